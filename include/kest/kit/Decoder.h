// The decoder kit: a protocol decoder as one declaration and one function.
//
// A decoder is a type with a Spec and, for the framings the kit reads itself,
// a per-connection State and a Feed function:
//
//   struct Ntp {
//     static constexpr oru::kit::Spec kSpec{
//         .plugin = "ntp", .module = 1030, .protocols = {"NTP"},
//         .attributes = {"ntp.version", "ntp.mode", "ntp.stratum"},
//         .udp = true, .udp_ports = {123}};
//     struct State {};
//     static oru::kit::Verdict Feed(oru::kit::Session<Ntp> &s, oru::kit::ByteReader r);
//   };
//   KEST_DECODER(Ntp)
//
// The kit does the rest: the plug-in's entry table and version, registration
// of protocols, module and attributes, one inspector per thread on every port
// of the transports it names (its ports are tried first; they never decide),
// a State per connection made on its first packet and dropped when the
// inspector leaves the connection's chain, the framing of bytes into
// messages, naming the protocol, and one rule for publishing attributes.
//
// A decoder may also have a per-thread D::Thread (made at thread start,
// Session::thread()), an Opening(side, first) or Opening(side, first,
// transport) test of the first bytes it is given of a connection, false when
// they cannot begin its protocol (no state is made for that connection: most
// are not this protocol, and a large State costs to clear; over TCP the
// transport's gate no longer offers the decoder connections whose first byte
// its Opening turns away alone, so Opening must accept a 1-byte first segment
// of its protocol, as the split tests check), for records an Early(session, head) test that
// judges the start of a record not yet whole (kNotMine leaves), and a
// Leave(session), run when the inspector leaves a connection that is the
// thread's active one (after a verdict to leave, or at the connection's
// end): the last chance to publish what waited. Session::side() means
// nothing there.
//
// Session::HandOn() passes a TCP connection's later bytes to a fresh chain
// of the transport's decoders (an accepted STARTTLS), under the chameleon
// policy; Session::Expect() names the connections a message announces
// (Spec::expects), under the future-flows policy. Spec::borrowed names
// attributes of another decoder that this one reports too (QUIC reports
// TLS's): they are shared, whichever plug-in starts first.
//
// Framing (Spec::tcp_framing; UDP is always one datagram per message):
//   kDatagram  UDP only.
//   kRecords   TCP records with a length field (Spec::records): each whole
//              record, header included, in one piece. A record that lies
//              across blocks is copied; the kit keeps (Sync) the bytes of a
//              record still incomplete after the packet.
//   kStream    TCP bytes in order as they come, one contiguous run per call;
//              the decoder keeps what it needs of them.
// Line dialogues (mail, file transfer, banners) have a framing of their own
// in kest/kit/LineDecoder.h; decoders that need their own inspector name it
// as D::Inspector (see Plugin below).
//
// Feed answers a Verdict. kNamed names the protocol (Session::Name for
// another of the decoder's protocols) and goes on reading; kDone and
// kNotMine leave the connection, keeping a name already given. Leaving is
// never an abandon: every decoder shares the transport's chain, and an
// abandon would end it for all of them.
#ifndef KEST_KIT_DECODER_H
#define KEST_KIT_DECODER_H

#include <kest/AttributeMgr.h>
#include <kest/Conn.h>
#include <kest/FlowBuffer.h>
#include <kest/Inspector.h>
#include <kest/InterfaceBroker.h>
#include <kest/PktInfo.h>
#include <kest/Plugin.h>
#include <kest/ProtocolRegistry.h>
#include <kest/Runtime.h>
#include <kest/fdt/ObjectPrefix.h>
#include <kest/fdt/map.h>
#include <kest/kit/Attach.h>
#include <kest/kit/ByteReader.h>
#include <kest/kit/ExpectedFlows.h>
#include <kest/kit/FlowView.h>
#include <kest/kit/InnerChain.h>
#include <kest/kit/ModuleIds.h>

#include <stddef.h>
#include <stdint.h>

namespace oru::kit {

enum class Verdict : uint8_t {
  // Undecided, or named already and still reading: more, please.
  kNeedMore,
  // The protocol is certain: name it and go on reading.
  kNamed,
  // Nothing more to learn: leave the connection.
  kDone,
  // Not this protocol: leave the connection.
  kNotMine,
};

enum class Framing : uint8_t { kDatagram, kRecords, kStream };

// TCP records whose length stands in their header: `width` bytes (1 to 4)
// at `offset`, big-endian unless `little_endian`. The record is the header
// (`offset` + `width` bytes), then the field's value plus `adjust` bytes.
struct RecordFormat {
  uint8_t offset = 0;
  uint8_t width = 2;
  bool little_endian = false;
  int32_t adjust = 0;
  // The longest record taken, header included; a longer one is not this
  // protocol's.
  uint32_t max = 0x10000 + 2;
  // The shortest record taken, header included.
  uint32_t min = 2;
};

// Connections that a decoder's messages announce (Session::Expect): on
// which transport (6 or 17; 0 for none) and named with which of the
// decoder's protocols.
struct ExpectFormat {
  uint8_t transport = 0;
  uint8_t protocol = 0;
};

constexpr int kMaxProtocols = 4;
constexpr int kMaxAttributes = 16;
constexpr int kMaxBorrowed = 12;
constexpr int kMaxPorts = 16;

struct Spec {
  // The plug-in's name; its file is <plugin>.plg.
  const char *plugin = nullptr;
  // The module number (kest/kit/ModuleIds.h) and name; the name defaults to
  // the first protocol.
  oru::ModuleId module = 0;
  const char *module_name = nullptr;
  // Protocols the decoder names; Session::Name(i) gives the i-th.
  const char *protocols[kMaxProtocols] = {};
  // Attribute names; Session::Publish(i, ...) reports the i-th.
  const char *attributes[kMaxAttributes] = {};
  // Attribute names of another decoder that this one reports too (QUIC
  // reports the TLS decoder's "tls.server_name"), numbered for
  // Session::Publish after `attributes`. They are registered at link, once
  // every plug-in of the thread has started, and only when none did: their
  // own decoder keeps them whatever the order of the plug-ins.
  const char *borrowed[kMaxBorrowed] = {};
  // Where the decoder runs (every port), and the ports tried first.
  bool tcp = false;
  uint16_t tcp_ports[kMaxPorts] = {};
  bool udp = false;
  uint16_t udp_ports[kMaxPorts] = {};
  Framing tcp_framing = Framing::kStream;
  RecordFormat records = {};
  ExpectFormat expects = {};
  // Messages (datagrams, records, runs of bytes) read per connection; the
  // connection keeps its name beyond them but is no longer read.
  uint32_t max_messages = 256;

  constexpr int ProtocolCount() const {
    int n = 0;
    while (n < kMaxProtocols && protocols[n] != nullptr) {
      ++n;
    }
    return n;
  }
  constexpr int AttributeCount() const {
    int n = 0;
    while (n < kMaxAttributes && attributes[n] != nullptr) {
      ++n;
    }
    return n;
  }
  constexpr int BorrowedCount() const {
    int n = 0;
    while (n < kMaxBorrowed && borrowed[n] != nullptr) {
      ++n;
    }
    return n;
  }
  // The i-th attribute name for Session::Publish, borrowed ones included.
  constexpr const char *AttributeName(int i) const {
    return i < AttributeCount() ? attributes[i] : borrowed[i - AttributeCount()];
  }
  constexpr size_t PortCount(const uint16_t *ports) const {
    size_t n = 0;
    while (n < kMaxPorts && ports[n] != 0) {
      ++n;
    }
    return n;
  }
  AppPorts Where(uint8_t ip_protocol) const {
    const uint16_t *ports = ip_protocol == 6 ? tcp_ports : udp_ports;
    return AppPorts{ip_protocol, ports, PortCount(ports)};
  }
  const char *ModuleName() const { return module_name != nullptr ? module_name : protocols[0]; }
};

// Reports a value of attribute `id` (0: nobody listens) for the thread's
// active connection, when that connection's policy allows attributes. The
// one rule every decoder of the kit follows.
inline void PublishAttribute(int id, const void *value, size_t length) {
  if (id < 1) {
    return;
  }
  const oru::Conn *active = oru::ThreadPointer<oru::Conn>(oru::Conn::l_active_conn);
  oru::AttributeMgr *manager = oru::AttributeMgr::Peek();
  if (active == nullptr || (active->m_policy & oru::POLICY_ATTRIBUTES) == 0 || manager == nullptr) {
    return;
  }
  manager->DispatchAttribute(id, static_cast<const uint8_t *>(value), static_cast<int>(length), 0,
                             0);
}

// What a decoder's thread registers: its protocols' indices and the
// identifiers of its attributes, kept current by the attribute manager.
class Registration {
public:
  // Instance start-up: the protocols, the attribute names (a name another
  // plug-in made already serves as it is) and the module. False when the
  // module name is taken.
  static bool Create(const Spec &spec) {
    for (int i = 0; i < spec.ProtocolCount(); ++i) {
      oru::RegisterProtocol(spec.protocols[i]);
    }
    for (int i = 0; i < spec.AttributeCount() + spec.BorrowedCount(); ++i) {
      oru::AttributeMgr::Create(oru::fdt::string(spec.AttributeName(i)));
    }
    return oru::InterfaceBroker::RegisterModule(spec.module, spec.ModuleName());
  }
  static void Destroy(const Spec &spec) {
    oru::InterfaceBroker::UnregisterModule(spec.module, spec.ModuleName());
  }

  // Thread start-up. False when a protocol has no index or without memory.
  // An attribute that another plug-in of this thread registered already is
  // shared: its identifier is read through the manager (Id).
  bool Start(const Spec &spec) {
    m_spec = &spec;
    for (int i = 0; i < spec.ProtocolCount(); ++i) {
      const int proto = oru::GetProtocolId(spec.protocols[i]);
      if (proto <= 0) {
        return false;
      }
      m_proto[i] = static_cast<uint32_t>(proto);
    }
    oru::AttributeMgr *manager = oru::AttributeMgr::Instance();
    if (manager == nullptr) {
      return false;
    }
    for (int i = 0; i < spec.AttributeCount(); ++i) {
      m_own[i] = !manager->IsRegistered(spec.attributes[i]) &&
                 manager->Register(oru::fdt::string(spec.attributes[i]), &m_ids[i]);
    }
    return true;
  }
  // Thread link, after every plug-in's start: the borrowed attributes that
  // no plug-in registered. The kit's framed inspector calls it; an
  // inspector of a decoder's own calls it from its Link.
  void Link() {
    oru::AttributeMgr *manager = oru::AttributeMgr::Instance();
    for (int i = Own(); manager != nullptr && i < Count(); ++i) {
      const char *name = m_spec->AttributeName(i);
      m_own[i] =
          !manager->IsRegistered(name) && manager->Register(oru::fdt::string(name), &m_ids[i]);
    }
  }
  void Stop() {
    oru::AttributeMgr *manager = oru::AttributeMgr::Peek();
    for (int i = 0; i < Count(); ++i) {
      if (m_own[i] && manager != nullptr) {
        manager->Unregister(oru::fdt::string(m_spec->AttributeName(i)));
      }
      m_own[i] = false;
      m_ids[i] = 0;
    }
  }

  uint32_t Proto(int i = 0) const { return i >= 0 && i < kMaxProtocols ? m_proto[i] : 0; }
  // The attribute's identifier now; 0 while nobody listens.
  int Id(int attribute) const {
    if (attribute < 0 || attribute >= Count()) {
      return 0;
    }
    if (m_own[attribute]) {
      return m_ids[attribute];
    }
    oru::AttributeMgr *manager = oru::AttributeMgr::Peek();
    return manager != nullptr ? manager->PlainId(m_spec->AttributeName(attribute)) : 0;
  }
  void Publish(int attribute, const void *value, size_t length) const {
    PublishAttribute(Id(attribute), value, length);
  }
  const Spec &spec() const { return *m_spec; }

private:
  int Own() const { return m_spec != nullptr ? m_spec->AttributeCount() : 0; }
  int Count() const { return m_spec != nullptr ? Own() + m_spec->BorrowedCount() : 0; }

  const Spec *m_spec = nullptr;
  uint32_t m_proto[kMaxProtocols] = {};
  int m_ids[kMaxAttributes + kMaxBorrowed] = {};
  bool m_own[kMaxAttributes + kMaxBorrowed] = {};
};

// Per-connection values of type T, by connection number, on one thread.
template <class T> class ConnStates {
public:
  // The connection's value, made (value-initialised) on first use; null
  // without memory.
  T *Get(const oru::Conn &conn) {
    typename Map::iterator it = m_map.find(conn.m_number);
    if (it == m_map.end()) {
      it = m_map.try_emplace(conn.m_number);
      if (it == m_map.end()) {
        return nullptr;
      }
    }
    return &it->second;
  }
  T *Find(const oru::Conn &conn) {
    typename Map::iterator it = m_map.find(conn.m_number);
    return it == m_map.end() ? nullptr : &it->second;
  }
  void Drop(const oru::Conn &conn) { m_map.erase(conn.m_number); }
  size_t Size() const { return m_map.size(); }

private:
  using Map = oru::fdt::map<uint64_t, T>;
  Map m_map;
};

template <class D> class FramedInspector;

// A decoder's per-thread state: D::Thread when it has one.
struct NoThread {};
template <class D> struct ThreadOf { using Type = NoThread; };
template <class D>
requires requires {
  typename D::Thread;
}
struct ThreadOf<D> {
  using Type = typename D::Thread;
};

// What Feed sees of the connection it reads.
template <class D> class Session {
public:
  using Thread = typename ThreadOf<D>::Type;

  // What the inspector lends a session beside the connection's state.
  struct Links {
    const Registration &reg;
    Thread &thread;
    ExpectedProtocol *expected;
  };

  Session(const Links &links, typename D::State &state, oru::Conn &conn, unsigned side, bool &named,
          bool &hand_on, uint32_t *unread = nullptr)
      : m_links(links), m_state(state), m_conn(conn), m_side(side), m_named(named),
        m_hand_on(hand_on), m_unread(unread) {}

  typename D::State &state() { return m_state; }
  // The decoder's state on this thread (D::Thread), made at thread start.
  Thread &thread() { return m_links.thread; }
  oru::Conn &conn() { return m_conn; }
  const oru::Tuple &tuple() const { return m_conn.m_tuple; }
  // 0: the side of the connection's first end point (tuple().src), 1: the
  // other.
  unsigned side() const { return m_side; }
  bool named() const { return m_named; }
  // Names the connection with the decoder's i-th protocol, once; the first
  // name given stays. False when the connection refused it.
  bool Name(int i = 0) {
    if (m_named) {
      return true;
    }
    m_named = m_conn.PushProtocol(m_links.reg.Proto(i));
    return m_named;
  }
  // TCP: the bytes behind this message are another protocol's (an accepted
  // STARTTLS, say). When the connection's policy allows a change of
  // protocol, both sides' later bytes go to a fresh chain of the
  // transport's decoders, which name what they find above this protocol;
  // this decoder reads no more. Without the policy the connection is left.
  // With Framing::kStream, `unread` is how many bytes at the end of the run
  // given to Feed come behind the handing message (a client's TLS hello in
  // the segment of its SSL request): they go to the fresh chain too.
  void HandOn(size_t unread = 0) {
    m_hand_on = true;
    if (m_unread != nullptr) {
      *m_unread = static_cast<uint32_t>(unread);
    }
  }
  bool handing_on() const { return m_hand_on; }
  // Expects a connection with `port` at `addr` (Spec::expects), named on its
  // first packet, when the connection's policy allows future flows.
  void Expect(const oru::IpAddr &addr, uint16_t port) {
    if (m_links.expected != nullptr && ExpectedFlows::Allowed(m_conn)) {
      m_links.expected->Expect(addr, port);
    }
  }
  // Reports attribute `i` of the Spec, when someone listens and the
  // connection's policy allows it.
  void Publish(int i, const void *value, size_t length) { m_links.reg.Publish(i, value, length); }
  void Publish(int i, const char *text) { Publish(i, text, TextSize(text)); }
  const Registration &registration() const { return m_links.reg; }

private:
  static size_t TextSize(const char *text) {
    size_t n = 0;
    while (text != nullptr && text[n] != 0) {
      ++n;
    }
    return n;
  }

  const Links &m_links;
  typename D::State &m_state;
  oru::Conn &m_conn;
  unsigned m_side;
  bool &m_named;
  bool &m_hand_on;
  uint32_t *m_unread;
};

// The kit's inspector for decoders with a Feed function.
template <class D> class FramedInspector final : public oru::Inspector {
public:
  using Thread = typename ThreadOf<D>::Type;

  bool Start() {
    m_thread = oru::fdt::CreateObject<Thread>(oru::fdt::OBJECT_LOCAL);
    if (m_thread == nullptr || !m_reg.Start(D::kSpec)) {
      return false;
    }
    if (kSpec.expects.transport != 0) {
      m_expected = oru::fdt::CreateObject<ExpectedProtocol>(
          oru::fdt::OBJECT_LOCAL, kSpec.expects.transport, m_reg.Proto(kSpec.expects.protocol));
      if (m_expected == nullptr) {
        return false;
      }
      m_expected->add_ref();
    }
    return true;
  }
  void Stop() {
    if (m_expected != nullptr) {
      m_expected->Withdraw();
      m_expected->release();
      m_expected = nullptr;
    }
    m_reg.Stop();
    if (m_thread != nullptr) {
      oru::fdt::DestroyObject(m_thread);
      m_thread = nullptr;
    }
    if (m_scratch != nullptr) {
      kest_free_local(m_scratch);
      m_scratch = nullptr;
    }
  }
  // Every plug-in of the thread has started.
  void Link() { m_reg.Link(); }
  const Registration &registration() const { return m_reg; }
  size_t Connections() const { return m_conns.Size(); }

  unsigned int Inspect(oru::ParentDpi * /*parent*/, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    if (!conn || m_thread == nullptr || conn.get() == m_inside) {
      // An inner chain is built from the same rules, so it holds this
      // inspector too: the bytes inside are not this protocol's.
      return oru::INSPECT_FINISHED;
    }
    Entry *entry = m_conns.Find(*conn);
    unsigned result;
    if (entry != nullptr) {
      if (entry->inner.get() != nullptr) {
        return PassInner(*entry, pkt, tuple, conn);
      }
      result = Run(*entry, pkt, tuple, *conn);
    } else if (pkt.data != nullptr && pkt.length != 0 &&
               !Opens(pkt.side != 0 ? 1u : 0u, ByteReader(pkt.data, pkt.length), tuple.protocol)) {
      // Most connections are not this protocol and say so in their first
      // bytes: they leave before any state is made for them.
      return oru::INSPECT_FINISHED;
    } else if constexpr (kStateFromStart) {
      // A decoder with Leave keeps its state from the start, for its exit;
      // so does one whose state cannot be copied.
      entry = m_conns.Get(*conn);
      if (entry == nullptr) {
        // Without memory to follow the connection, this packet is all.
        Entry once{};
        Run(once, pkt, tuple, *conn);
        return oru::INSPECT_FINISHED;
      }
      result = Run(*entry, pkt, tuple, *conn);
    } else {
      // Most connections are not this protocol and say so in their first
      // packet: that reading is on a state of the moment, kept only when
      // the decoder stays.
      Entry first{};
      result = Run(first, pkt, tuple, *conn);
      if (result == oru::INSPECT_FINISHED && !first.hand_on) {
        return result;
      }
      entry = m_conns.Get(*conn);
      if (entry == nullptr) {
        // Without memory to follow the connection, this packet is all.
        return oru::INSPECT_FINISHED;
      }
      *entry = first;
    }
    if (!entry->hand_on || tuple.protocol != 6) {
      return result;
    }
    const uint64_t from[2] = {entry->seen[0] ? entry->next[0] : conn->m_flow[0].m_next_pos,
                              entry->seen[1] ? entry->next[1] : conn->m_flow[1].m_next_pos};
    entry->inner = InnerChain::Start(*conn, 6, m_reg.Proto(), from);
    if (entry->inner.get() == nullptr) {
      return oru::INSPECT_FINISHED;
    }
    // The handing message's packet may carry the first inner bytes.
    return PassInner(*entry, pkt, tuple, conn);
  }

  // The first bytes a TCP connection may open with for this decoder: those
  // its Opening does not turn away as a 1-byte first segment, which it must
  // not do to a stream of its protocol cut anywhere. For UDP, where a
  // datagram is whole and Opening may judge its size, those that
  // D::DatagramFirstByte(side, byte) allows, when the decoder has it;
  // otherwise false (every byte may).
  static bool Openings(uint8_t transport, oru::FirstBytes &first) {
    if constexpr (requires { D::DatagramFirstByte(0u, uint8_t{0}); }) {
      if (transport == 17) {
        for (unsigned side = 0; side < 2; ++side) {
          first.AllowWhere(side, [side](uint8_t byte) { return D::DatagramFirstByte(side, byte); });
        }
        return true;
      }
    }
    if constexpr (kJudgesOpening) {
      if (transport == 6) {
        for (unsigned side = 0; side < 2; ++side) {
          first.AllowWhere(side,
                           [side](uint8_t byte) { return Opens(side, ByteReader(&byte, 1), 6); });
        }
        return true;
      }
    }
    return false;
  }

  void OnChainExit(oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    if (!conn || conn.get() == m_inside) {
      // This inspector's entry of an inner chain: the outer reading goes on.
      return;
    }
    Entry *entry = m_conns.Find(*conn);
    if (entry != nullptr && entry->inner.get() != nullptr) {
      m_inside = conn.get();
      entry->inner->End(conn);
      m_inside = nullptr;
    }
    if constexpr (requires(Session<D> & s) { D::Leave(s); }) {
      // Attributes go to the active connection: for another, nothing is said.
      if (entry != nullptr && m_thread != nullptr &&
          oru::ThreadPointer<oru::Conn>(oru::Conn::l_active_conn) == conn.get()) {
        const typename Session<D>::Links links{m_reg, *m_thread, m_expected};
        Session<D> session(links, entry->state, *conn, 0, entry->named, entry->hand_on);
        D::Leave(session);
      }
    }
    m_conns.Drop(*conn);
  }

private:
  struct Entry {
    typename D::State state{};
    uint64_t next[2] = {0, 0};
    uint32_t messages = 0;
    bool seen[2] = {false, false};
    bool named = false;
    bool hand_on = false;
    // Bytes of the last run that came behind the handing message.
    uint32_t unread = 0;
    // Set once the connection turned to another protocol.
    oru::fdt::intrusive_ptr<InnerChain> inner;
  };

  static constexpr const Spec &kSpec = D::kSpec;
  // A decoder with Leave keeps its state from the start, for its exit; so
  // does one whose state cannot be copied.
  static constexpr bool kStateFromStart = requires(Session<D> & s) { D::Leave(s); }
  || !requires(typename D::State & a, const typename D::State &b) { a = b; };
  // Whether a connection's first packet goes through D::Opening, which may
  // want the transport.
  static constexpr bool kOpeningByTransport = requires(ByteReader r) {
    D::Opening(0u, r, uint8_t{6});
  };
  static constexpr bool kJudgesOpening = kOpeningByTransport || requires(ByteReader r) {
    D::Opening(0u, r);
  };

  static bool Opens([[maybe_unused]] unsigned side, [[maybe_unused]] ByteReader first,
                    [[maybe_unused]] uint8_t transport) {
    if constexpr (kOpeningByTransport) {
      return D::Opening(side, first, transport);
    } else if constexpr (kJudgesOpening) {
      return D::Opening(side, first);
    } else {
      return true;
    }
  }

  unsigned Run(Entry &e, oru::PktInfo &pkt, const oru::Tuple &tuple, oru::Conn &conn) {
    const unsigned side = pkt.side != 0 ? 1 : 0;
    if (tuple.protocol != 6) {
      if (pkt.data == nullptr) {
        return oru::INSPECT_FINISHED;
      }
      return Message(e, conn, side, ByteReader(pkt.data, pkt.length)) ? oru::INSPECT_STAY
                                                                      : oru::INSPECT_FINISHED;
    }
    oru::FlowBuffer &flow = conn.m_flow[side];
    if (!e.seen[side]) {
      e.next[side] = pkt.stream_pos;
      e.seen[side] = true;
    }
    if (e.next[side] < flow.Begin() || e.next[side] > flow.End()) {
      // What was kept is gone (a side holds only so much): the place in
      // the stream cannot be found again.
      return oru::INSPECT_FINISHED;
    }
    const bool go_on = kSpec.tcp_framing == Framing::kRecords ? Records(e, conn, side, flow)
                                                              : Stream(e, conn, side, flow);
    if (!go_on) {
      return oru::INSPECT_FINISHED;
    }
    // The rest of a record is still to come: keep what there is of it.
    if (e.next[side] < flow.End() && !flow.Sync()) {
      return oru::INSPECT_FINISHED;
    }
    return oru::INSPECT_STAY;
  }

  // The packet to the inner chain; the inspector leaves (never abandons,
  // whatever the inner chain answered) once nothing inside waits.
  unsigned PassInner(Entry &e, oru::PktInfo &pkt, oru::Tuple &tuple,
                     oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    m_inside = conn.get();
    e.inner->Pass(pkt, tuple, conn);
    const bool done = e.inner->Done();
    m_inside = nullptr;
    return done ? oru::INSPECT_FINISHED : oru::INSPECT_STAY;
  }

  // One message to the decoder; false to stop reading (to leave the
  // connection, or to hand it on).
  bool Message(Entry &e, oru::Conn &conn, unsigned side, ByteReader bytes) {
    const typename Session<D>::Links links{m_reg, *m_thread, m_expected};
    Session<D> session(links, e.state, conn, side, e.named, e.hand_on, &e.unread);
    const Verdict verdict = D::Feed(session, bytes);
    if (verdict == Verdict::kNamed && !session.Name()) {
      return false;
    }
    if (e.hand_on || verdict == Verdict::kDone || verdict == Verdict::kNotMine) {
      return false;
    }
    return ++e.messages < kSpec.max_messages;
  }

  bool Stream(Entry &e, oru::Conn &conn, unsigned side, const oru::FlowBuffer &flow) {
    const uint64_t end = flow.End();
    while (e.next[side] < end) {
      unsigned long long start = 0;
      const oru::FlowBuffer::Block *block = flow.GetBlock(e.next[side], start);
      if (block == nullptr || block->data == nullptr || start + block->size <= e.next[side]) {
        // A hole: the order of the bytes is lost.
        return false;
      }
      const uint64_t offset = e.next[side] - start;
      uint64_t n = block->size - offset;
      if (n > end - e.next[side]) {
        n = end - e.next[side];
      }
      e.next[side] += n;
      if (!Message(e, conn, side, ByteReader(block->data + offset, static_cast<size_t>(n)))) {
        // The bytes behind a handing message are the next protocol's.
        e.next[side] -= e.hand_on && e.unread < n ? e.unread : 0;
        return false;
      }
    }
    return true;
  }

  bool Records(Entry &e, oru::Conn &conn, unsigned side, const oru::FlowBuffer &flow) {
    const RecordFormat &f = kSpec.records;
    const uint32_t header = static_cast<uint32_t>(f.offset) + f.width;
    for (;;) {
      const uint64_t next = e.next[side];
      const uint64_t have = flow.End() - next;
      if (have < header) {
        return true;
      }
      uint8_t head[16];
      const uint8_t *h = FlowSpan(flow, next, header, head, sizeof head);
      if (h == nullptr) {
        return false;
      }
      ByteReader field(h + f.offset, f.width);
      const int64_t body = static_cast<int64_t>(field.Uint(f.width, f.little_endian)) + f.adjust;
      const int64_t size = static_cast<int64_t>(header) + body;
      if (body < 0 || size < f.min || size > f.max) {
        return false;
      }
      if (have < static_cast<uint64_t>(size)) {
        return Early(e, conn, side, flow, next, have);
      }
      uint8_t *scratch = Scratch();
      const uint8_t *record =
          FlowSpan(flow, next, static_cast<size_t>(size), scratch, scratch != nullptr ? f.max : 0);
      if (record == nullptr) {
        return false;
      }
      e.next[side] = next + static_cast<uint64_t>(size);
      if (!Message(e, conn, side, ByteReader(record, static_cast<size_t>(size)))) {
        return false;
      }
    }
  }

  // Before the protocol is named, a decoder with an Early test judges the
  // start of a record that is not whole yet, so that foreign bytes leave
  // at once rather than wait for a record that never ends.
  bool Early(Entry &e, oru::Conn &conn, unsigned side, const oru::FlowBuffer &flow, uint64_t next,
             uint64_t have) {
    if constexpr (requires(Session<D> & s, ByteReader r) { D::Early(s, r); }) {
      if (!e.named) {
        uint8_t head[kEarlyBytes];
        const size_t n = have < kEarlyBytes ? static_cast<size_t>(have) : kEarlyBytes;
        const uint8_t *h = FlowSpan(flow, next, n, head, sizeof head);
        const typename Session<D>::Links links{m_reg, *m_thread, m_expected};
        Session<D> session(links, e.state, conn, side, e.named, e.hand_on);
        return h != nullptr && D::Early(session, ByteReader(h, n)) != Verdict::kNotMine;
      }
    }
    return true;
  }

  // Room for a record across blocks, made on first need.
  uint8_t *Scratch() {
    if (m_scratch == nullptr) {
      m_scratch = static_cast<uint8_t *>(kest_malloc_local(kSpec.records.max));
    }
    return m_scratch;
  }

  // Bytes of an incomplete record that Early sees at most.
  static constexpr size_t kEarlyBytes = 64;

  Registration m_reg;
  ConnStates<Entry> m_conns;
  Thread *m_thread = nullptr;
  uint8_t *m_scratch = nullptr;
  // Where announced connections are expected (Spec::expects).
  ExpectedProtocol *m_expected = nullptr;
  // The connection whose inner chain runs now.
  oru::Conn *m_inside = nullptr;
};

template <class D> struct InspectorOf { using Type = FramedInspector<D>; };
template <class D>
requires requires {
  typename D::Inspector;
}
struct InspectorOf<D> {
  using Type = typename D::Inspector;
};

// The entry table of decoder D. D::Inspector, when D names one, replaces the
// kit's framed inspector: an oru::Inspector, default-constructible, with
// bool Start() and void Stop() run at the thread's start and end (Start
// registers what the thread needs; a failed Start is followed by Stop), and
// optionally void Link(), run once every plug-in of the thread has started.
template <class D> struct Plugin {
  using Inspector = typename InspectorOf<D>::Type;
  static constexpr const Spec &kSpec = D::kSpec;

  // The key of this thread's inspector, which holds the plug-in's reference,
  // in the thread's slot block of the current instance: a thread that works
  // in two instances has one inspector in each, and no plug-in needs
  // thread-local storage of its own.
  static inline oru::ThreadLocalKey l_inspector{};
  static inline oru::SlotRegistration s_inspector_slot{l_inspector};
  static Inspector *&Current() {
    static_cast<void>(&s_inspector_slot);
    return oru::ThreadPointer<Inspector>(l_inspector);
  }

  static const char *GetName() { return kSpec.plugin; }
  static bool GetVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
    return SdkVersion(library, own);
  }
  static bool InitInstance() {
    if constexpr (requires { D::InitInstance(); }) {
      if (!D::InitInstance()) {
        return false;
      }
    }
    return Registration::Create(kSpec);
  }
  static bool InitThread() {
    Inspector *&t_inspector = Current();
    t_inspector = oru::fdt::CreateObject<Inspector>(oru::fdt::OBJECT_LOCAL);
    if (t_inspector == nullptr) {
      return false;
    }
    t_inspector->add_ref();
    if (t_inspector->Start()) {
      return true;
    }
    // The plug-in manager calls no ExitThread for a plug-in whose
    // InitThread failed: give back what the start took.
    ExitThread();
    return false;
  }
  static void LinkThread() {
    Inspector *t_inspector = Current();
    if constexpr (requires(Inspector & i) { i.Link(); }) {
      if (t_inspector != nullptr) {
        t_inspector->Link();
      }
    }
    for (const uint8_t transport : {uint8_t{6}, uint8_t{17}}) {
      if (!(transport == 6 ? kSpec.tcp : kSpec.udp)) {
        continue;
      }
      // Where the inspector knows which first bytes it turns away, the gate
      // spares it the connections that open with them.
      oru::FirstBytes first;
      bool narrow = false;
      if constexpr (requires(oru::FirstBytes & f) { Inspector::Openings(uint8_t{6}, f); }) {
        narrow = Inspector::Openings(transport, first);
      }
      Attach(t_inspector, kSpec.Where(transport), narrow ? &first : nullptr);
    }
  }
  static void StartThread() {}
  static void ExitThread() {
    Inspector *&t_inspector = Current();
    if (t_inspector == nullptr) {
      return;
    }
    if (kSpec.tcp) {
      Detach(t_inspector, kSpec.Where(6));
    }
    if (kSpec.udp) {
      Detach(t_inspector, kSpec.Where(17));
    }
    t_inspector->Stop();
    // Chains may still hold it; the last reference frees it.
    t_inspector->release();
    t_inspector = nullptr;
  }
  static void ExitInstance() { Registration::Destroy(kSpec); }

  static constexpr oru::PluginEntryTable kTable = {GetName,    GetVersion,  InitInstance,
                                                   InitThread, LinkThread,  StartThread,
                                                   ExitThread, ExitInstance};
};

} // namespace oru::kit

// The plug-in's "query" entry point for decoder D.
#define KEST_DECODER(D)                                                                            \
  KEST_PLUGIN_QUERY {                                                                              \
    return &::oru::kit::Plugin<D>::kTable;                                                         \
  }

#endif
