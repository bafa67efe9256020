// The DNS decoder: names DNS, MDNS and LLMNR on UDP and TCP by the bytes of
// their messages, on any port, and reports every message of a connection
// ("dns.query", "dns.qtype", "dns.rcode", "dns.answers").
//
// One inspector per thread sits on every port of both transports, first on
// the well-known ports. It stays on a connection once the connection's first
// message reads as DNS, and keeps what it must remember between packets in
// a map by connection number, which OnChainExit empties. Over UDP a datagram
// is a message; over TCP each message has a two-byte length in front and may
// end in a later segment or share one with the next, so messages are read
// from the side's reassembled flow, whose blocks stay (Sync) while a message
// is incomplete.
#include "common/AppAttach.h"
#include "common/TransportPlugin.h"
#include "dns/DnsMessage.h"

#include <kest/AttributeMgr.h>
#include <kest/Conn.h>
#include <kest/Inspector.h>
#include <kest/InterfaceBroker.h>
#include <kest/Plugin.h>
#include <kest/ProtocolRegistry.h>
#include <kest/fdt/ObjectPrefix.h>
#include <kest/fdt/map.h>

namespace {

constexpr oru::ModuleId kModule = 262;

// Messages read per connection; a connection that goes on beyond them keeps
// its name, but its later messages are not reported.
constexpr uint32_t kMaxMessages = 256;

const uint16_t kUdpPorts[] = {53, 5353, 5355};
const uint16_t kTcpPorts[] = {53};
const kest_decoders::AppPorts kUdp{17, kUdpPorts, sizeof kUdpPorts / sizeof kUdpPorts[0]};
const kest_decoders::AppPorts kTcp{6, kTcpPorts, sizeof kTcpPorts / sizeof kTcpPorts[0]};

enum Flavor { kDns, kMdns, kLlmnr, kFlavors };
const char *const kProtocolNames[kFlavors] = {"DNS", "MDNS", "LLMNR"};

enum Attribute { kQuery, kQtype, kRcode, kAnswers, kAttributes };
const char *const kAttributeNames[kAttributes] = {"dns.query", "dns.qtype", "dns.rcode",
                                                  "dns.answers"};

// The largest message plus its length prefix.
constexpr size_t kScratch = 0x10000 + 2;

// What the thread's inspector works with.
struct ThreadState {
  uint32_t proto[kFlavors] = {};
  // Identifiers of the attributes, kept current by the attribute manager; 0
  // while nobody listens.
  int ids[kAttributes] = {};
  // A TCP message that lies across blocks is copied here to be read whole.
  uint8_t *scratch = nullptr;
  // The last message read; too large for the stack of every host.
  kest_dns::Summary summary;
};
thread_local ThreadState *t_state = nullptr;

// The multicast groups of mDNS and LLMNR.
constexpr oru::IpAddr kMdnsV4 = oru::IpAddr::FromV4(0xE00000FB);
constexpr oru::IpAddr kMdnsV6{0xFF02000000000000ull, 0xFBull};
constexpr oru::IpAddr kLlmnrV4 = oru::IpAddr::FromV4(0xE00000FC);
constexpr oru::IpAddr kLlmnrV6{0xFF02000000000000ull, 0x10003ull};

bool To(const oru::Tuple &t, const oru::IpAddr &v4, const oru::IpAddr &v6, uint16_t port) {
  return ((t.dst == v4 || t.dst == v6) && t.dst_port == port) ||
         ((t.src == v4 || t.src == v6) && t.src_port == port);
}

// Which of the three a connection of DNS messages is. The groups decide; the
// answers of mDNS and LLMNR go back by unicast from the protocol's port, so
// over UDP that port at either end counts as well. The bytes have already
// said DNS: the port only tells the kind.
Flavor FlavorOf(const oru::Tuple &t) {
  if (To(t, kMdnsV4, kMdnsV6, 5353)) {
    return kMdns;
  }
  if (To(t, kLlmnrV4, kLlmnrV6, 5355)) {
    return kLlmnr;
  }
  if (t.protocol == 17 && t.src_port != 53 && t.dst_port != 53) {
    if (t.src_port == 5353 || t.dst_port == 5353) {
      return kMdns;
    }
    if (t.src_port == 5355 || t.dst_port == 5355) {
      return kLlmnr;
    }
  }
  return kDns;
}

void Publish(int id, const char *text, size_t length) {
  if (id < 1) {
    return;
  }
  const oru::Conn *active = oru::ThreadPointer<oru::Conn>(oru::Conn::l_active_conn);
  oru::AttributeMgr *manager = oru::AttributeMgr::Peek();
  if (active == nullptr || (active->m_policy & oru::POLICY_ATTRIBUTES) == 0 || manager == nullptr) {
    return;
  }
  manager->DispatchAttribute(id, reinterpret_cast<const uint8_t *>(text), static_cast<int>(length),
                             0, 0);
}

// Every message reports what it has: the question (if any), the response
// code of a response, the answers worth naming.
void Report(const ThreadState &state, const kest_dns::Summary &m) {
  char word[16];
  if (m.has_question) {
    Publish(state.ids[kQuery], m.query, m.query_length);
    Publish(state.ids[kQtype], word, kest_dns::FormatType(m.qtype, word, sizeof word));
  }
  if (m.response) {
    Publish(state.ids[kRcode], word, kest_dns::FormatRcode(m.rcode, word, sizeof word));
  }
  if (m.answers_length != 0) {
    Publish(state.ids[kAnswers], m.answers, m.answers_length);
  }
}

struct ConnState {
  // TCP: stream position of the next length prefix, per side.
  uint64_t next[2] = {0, 0};
  bool seen[2] = {false, false};
  // The protocol given to the connection; 0 until its first message.
  uint32_t proto = 0;
  uint32_t messages = 0;
};

class DnsInspector final : public oru::Inspector {
public:
  unsigned int Inspect(oru::ParentDpi * /*parent*/, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    ThreadState *state = t_state;
    if (state == nullptr || !conn) {
      return oru::INSPECT_FINISHED;
    }
    ConnMap::iterator it = m_conns.find(conn->m_number);
    if (it == m_conns.end()) {
      it = m_conns.try_emplace(conn->m_number);
      if (it == m_conns.end()) {
        // Without memory to follow the connection, this packet is all.
        ConnState once;
        Inspect(*state, once, pkt, tuple, conn);
        return oru::INSPECT_FINISHED;
      }
    }
    return Inspect(*state, it->second, pkt, tuple, conn);
  }

  void OnChainExit(oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    if (conn) {
      m_conns.erase(conn->m_number);
    }
  }

private:
  using ConnMap = oru::fdt::map<uint64_t, ConnState>;

  unsigned Inspect(ThreadState &state, ConnState &c, oru::PktInfo &pkt, const oru::Tuple &tuple,
                   oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    return tuple.protocol == 6 ? Stream(state, c, pkt, tuple, conn)
                               : Datagram(state, c, pkt, tuple, conn);
  }

  // Reads one message. False when the connection is not (or no longer) to
  // be followed: its first message is not DNS, or enough were read.
  bool Message(ThreadState &state, ConnState &c, const uint8_t *data, size_t length,
               const oru::Tuple &tuple, oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    const kest_dns::Verdict verdict = kest_dns::Parse(data, length, state.summary);
    if (c.proto == 0) {
      // A first message decides alone, so it must hold whole; one cut short
      // by the server (TC) may end early.
      const bool dns = verdict == kest_dns::Verdict::kDns ||
                       (verdict == kest_dns::Verdict::kDnsDamaged && state.summary.truncated);
      if (!dns) {
        return false;
      }
      c.proto = state.proto[FlavorOf(tuple)];
      if (c.proto == 0 || !conn->PushProtocol(c.proto)) {
        return false;
      }
    }
    if (verdict != kest_dns::Verdict::kNotDns) {
      Report(state, state.summary);
    }
    return ++c.messages < kMaxMessages;
  }

  unsigned Datagram(ThreadState &state, ConnState &c, oru::PktInfo &pkt, const oru::Tuple &tuple,
                    oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    if (pkt.data == nullptr || !Message(state, c, pkt.data, pkt.length, tuple, conn)) {
      return oru::INSPECT_FINISHED;
    }
    return oru::INSPECT_STAY;
  }

  // The `length` bytes at `pos` of the flow in one piece: in place when one
  // block holds them, else copied to the scratch buffer. Null across a hole.
  static const uint8_t *View(const oru::FlowBuffer &flow, uint64_t pos, size_t length,
                             uint8_t *scratch) {
    unsigned long long start = 0;
    const oru::FlowBuffer::Block *block = flow.GetBlock(pos, start);
    if (block != nullptr && pos + length <= start + block->size) {
      return reinterpret_cast<const uint8_t *>(block->data + (pos - start));
    }
    if (scratch == nullptr || length > kScratch) {
      return nullptr;
    }
    size_t done = 0;
    while (done < length) {
      block = flow.GetBlock(pos + done, start);
      if (block == nullptr) {
        return nullptr;
      }
      const size_t offset = static_cast<size_t>(pos + done - start);
      size_t n = block->size - offset;
      if (n > length - done) {
        n = length - done;
      }
      kest_memcpy(scratch + done, block->data + offset, n);
      done += n;
    }
    return scratch;
  }

  unsigned Stream(ThreadState &state, ConnState &c, oru::PktInfo &pkt, const oru::Tuple &tuple,
                  oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    const unsigned side = pkt.side != 0 ? 1 : 0;
    oru::FlowBuffer &flow = conn->m_flow[side];
    if (!c.seen[side]) {
      c.next[side] = pkt.stream_pos;
      c.seen[side] = true;
    }
    for (;;) {
      const uint64_t next = c.next[side];
      const uint64_t end = flow.End();
      if (next < flow.Begin() || next > end) {
        // What was kept is gone (a side holds only so much): the messages
        // cannot be found again.
        return oru::INSPECT_FINISHED;
      }
      if (end - next < 2) {
        break;
      }
      const size_t length =
          static_cast<uint8_t>(flow.At(next)) << 8 | static_cast<uint8_t>(flow.At(next + 1));
      if (length < kest_dns::kHeaderSize) {
        return oru::INSPECT_FINISHED;
      }
      const uint64_t available = end - next - 2;
      if (available < length) {
        if (c.proto == 0) {
          // Before the first message is whole, its header must hold.
          const size_t have = available < kest_dns::kHeaderSize ? static_cast<size_t>(available)
                                                                : kest_dns::kHeaderSize;
          const uint8_t *head = View(flow, next + 2, have, state.scratch);
          if (head == nullptr || !kest_dns::PlausibleStart(head, have, length)) {
            return oru::INSPECT_FINISHED;
          }
        }
        break;
      }
      const uint8_t *message = View(flow, next + 2, length, state.scratch);
      if (message == nullptr || !Message(state, c, message, length, tuple, conn)) {
        return oru::INSPECT_FINISHED;
      }
      c.next[side] = next + 2 + length;
    }
    // The rest of a message is still to come: keep what there is of it.
    if (c.next[side] < flow.End() && !flow.Sync()) {
      return oru::INSPECT_FINISHED;
    }
    return oru::INSPECT_STAY;
  }

  ConnMap m_conns;
};

// This thread's inspector, with the reference this plug-in holds. A plain
// pointer: a thread-local with a destructor may be gone before the thread's
// kest_fini runs.
thread_local DnsInspector *t_inspector = nullptr;

const char *GetName() {
  return "dns";
}

bool GetVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
  if (own != nullptr) {
    *own = oru::VersionRecord{kest_decoders::TransportPlugin::kMajor, 0, 0, 1, "dns"};
  }
  return library != nullptr && library->major == kest_decoders::TransportPlugin::kMajor;
}

bool InitInstance() {
  for (const char *name : kProtocolNames) {
    oru::RegisterProtocol(name);
  }
  for (const char *name : kAttributeNames) {
    // A name made already (by an earlier instance's store) serves as it is.
    oru::AttributeMgr::Create(name);
  }
  return oru::InterfaceBroker::RegisterModule(kModule, "DNS");
}

void ExitThread();

// A failed start gives back what it took itself: the plug-in manager calls
// no ExitThread for a plug-in whose InitThread failed.
bool InitThread() {
  t_state = oru::fdt::CreateObject<ThreadState>(oru::fdt::OBJECT_LOCAL);
  if (t_state == nullptr) {
    return false;
  }
  bool named = true;
  for (int i = 0; i < kFlavors; ++i) {
    t_state->proto[i] = static_cast<uint32_t>(oru::GetProtocolId(kProtocolNames[i]));
    named = named && t_state->proto[i] != 0;
  }
  t_state->scratch = static_cast<uint8_t *>(kest_malloc_local(kScratch));
  t_inspector = oru::fdt::CreateObject<DnsInspector>(oru::fdt::OBJECT_LOCAL);
  if (t_inspector != nullptr) {
    t_inspector->add_ref();
  }
  oru::AttributeMgr *manager = oru::AttributeMgr::Instance();
  if (manager != nullptr) {
    for (int i = 0; i < kAttributes; ++i) {
      manager->Register(kAttributeNames[i], &t_state->ids[i]);
    }
  }
  if (named && t_state->scratch != nullptr && t_inspector != nullptr && manager != nullptr) {
    return true;
  }
  ExitThread();
  return false;
}

void LinkThread() {
  kest_decoders::Attach(t_inspector, kUdp);
  kest_decoders::Attach(t_inspector, kTcp);
}

void StartThread() {}

void ExitThread() {
  kest_decoders::Detach(t_inspector, kUdp);
  kest_decoders::Detach(t_inspector, kTcp);
  if (t_inspector != nullptr) {
    t_inspector->release();
    t_inspector = nullptr;
  }
  if (t_state != nullptr) {
    oru::AttributeMgr *manager = oru::AttributeMgr::Peek();
    if (manager != nullptr) {
      for (const char *name : kAttributeNames) {
        manager->Unregister(name);
      }
    }
    if (t_state->scratch != nullptr) {
      kest_free_local(t_state->scratch);
    }
    oru::fdt::DestroyObject(t_state);
    t_state = nullptr;
  }
}

void ExitInstance() {
  oru::InterfaceBroker::UnregisterModule(kModule, "DNS");
}

const oru::PluginEntryTable kTable = {GetName,    GetVersion,  InitInstance, InitThread,
                                      LinkThread, StartThread, ExitThread,   ExitInstance};

} // namespace

KEST_PLUGIN_QUERY {
  return &kTable;
}
