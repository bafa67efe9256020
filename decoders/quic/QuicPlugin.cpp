// The QUIC decoder: quic.plg. Names QUIC on UDP by its long headers (a
// known version, connection IDs of at most 20 bytes, lengths that fit the
// datagram), or by the headers of Google's earlier QUIC that carry a
// version ("Q035", "Q046", ...; see QuicPacket.h), on any port and first
// on 443, 8443, 853 and 784. A flow that shows only short headers is not
// named: they carry nothing to tell QUIC from noise.
//
// Initial packets are encrypted with keys anyone can derive, so for the
// versions whose salt is known the inspector opens the client's first few
// Initials, puts their CRYPTO frames back in order and reads the
// ClientHello with the TLS decoder's parser: the server name and ALPN are
// published under the TLS attribute names, as for TLS over TCP.
//
// Those names belong to the TLS plug-in when it is loaded: an attribute name
// can be registered once per thread, so this plug-in registers them only
// when nobody did (checked in LinkThread, after every plug-in's InitThread)
// and otherwise reads, at the moment it publishes, the identifier the TLS
// plug-in's registration holds.
#include "quic/QuicPacket.h"
#include "tls/TlsHello.h"
#include "transport/TransportPlugin.h"
#include <kest/kit/Attach.h>

#include <kest/AttributeMgr.h>
#include <kest/Conn.h>
#include <kest/Inspector.h>
#include <kest/InterfaceBroker.h>
#include <kest/Plugin.h>
#include <kest/ProtocolRegistry.h>
#include <kest/fdt/ObjectPrefix.h>
#include <kest/fdt/map.h>
#include <new>
#include <string.h>

namespace {

constexpr oru::ModuleId kModule = 270;
constexpr const char *kModuleName = "QUIC";
constexpr const char *kProtocol = "QUIC";

// HTTPS, its alternative port, DNS over QUIC (853, and 784 from its drafts).
constexpr uint16_t kPorts[] = {443, 8443, 853, 784};
constexpr oru::kit::AppPorts kWhere{17, kPorts, sizeof kPorts / sizeof kPorts[0]};

constexpr const char *kAttrVersion = "quic.version";
enum TlsAttribute { kServerName, kAlpn, kTlsAttributes };
constexpr const char *kTlsNames[kTlsAttributes] = {"tls.server_name", "tls.alpn"};

// Datagrams a flow may send before one names it; a client's first datagram
// has a long header, so a few allow for a capture that starts late.
constexpr uint32_t kPatience = 8;
// After naming: Initial packets opened, decryptions tried (a server's
// Initials fail under the client's keys), datagrams looked at.
constexpr uint32_t kMaxOpened = 6;
constexpr uint32_t kMaxAttempts = 12;
constexpr uint32_t kMaxDatagrams = 32;
// The largest UDP payload.
constexpr size_t kScratch = 65536;

struct ThreadState {
  uint32_t proto = 0;
  int version_id = 0;
  // Identifiers of the TLS names when this plug-in registered them.
  int own_ids[kTlsAttributes] = {};
  bool own[kTlsAttributes] = {};
  uint8_t *scratch = nullptr;
  kest_tls::HelloInfo hello;
};
thread_local ThreadState *t_state = nullptr;

bool MayPublish() {
  const oru::Conn *active = oru::ThreadPointer<oru::Conn>(oru::Conn::l_active_conn);
  return active != nullptr && (active->m_policy & oru::POLICY_ATTRIBUTES) != 0;
}

void Publish(int id, const char *text, size_t length) {
  oru::AttributeMgr *manager = oru::AttributeMgr::Peek();
  if (id < 1 || manager == nullptr || !MayPublish()) {
    return;
  }
  manager->DispatchAttribute(id, reinterpret_cast<const uint8_t *>(text), static_cast<int>(length),
                             0, 0);
}

// The current identifier of a TLS name on this thread: ours, or the one the
// registration of whoever registered it holds (0 while nobody listens).
int TlsId(const ThreadState &state, TlsAttribute which) {
  if (state.own[which]) {
    return state.own_ids[which];
  }
  oru::AttributeMgr *manager = oru::AttributeMgr::Peek();
  if (manager == nullptr) {
    return 0;
  }
  const char *name = kTlsNames[which];
  auto found = manager->m_registrations.find(name);
  if (found == manager->m_registrations.end() || found->first.size() != strlen(name)) {
    return 0;
  }
  // A plain name keeps its one identifier under the empty remainder.
  auto &ids = found->second.ids;
  for (auto it = ids.begin(); it != ids.end(); ++it) {
    if (it->first.empty()) {
      return it->second;
    }
  }
  return 0;
}

struct ConnState {
  bool named = false;
  bool done = false;
  bool have_keys = false;
  int8_t client_side = -1;
  uint32_t version = 0;
  uint32_t datagrams = 0;
  uint32_t opened = 0;
  uint32_t attempts = 0;
  int64_t largest_pn = -1;
  kest_quic::InitialKeys keys{};
  kest_quic::CryptoStream *crypto = nullptr;
};

void AddCrypto(void *user, uint64_t offset, const uint8_t *data, size_t length) {
  static_cast<kest_quic::CryptoStream *>(user)->Add(offset, data, length);
}

class QuicInspector final : public oru::Inspector {
public:
  ~QuicInspector() override {
    for (auto it = m_conns.begin(); it != m_conns.end(); ++it) {
      FreeCrypto(it->second);
    }
  }

  unsigned int Inspect(oru::ParentDpi * /*parent*/, oru::PktInfo &pkt, oru::Tuple & /*tuple*/,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    ThreadState *state = t_state;
    if (state == nullptr || !conn || state->proto == 0) {
      return oru::INSPECT_FINISHED;
    }
    if (pkt.data == nullptr || pkt.length == 0) {
      return oru::INSPECT_STAY;
    }
    ConnMap::iterator it = m_conns.find(conn->m_number);
    if (it == m_conns.end()) {
      it = m_conns.try_emplace(conn->m_number);
      if (it == m_conns.end()) {
        return oru::INSPECT_FINISHED;
      }
    }
    ConnState &c = it->second;
    Datagram(*state, c, pkt.data, pkt.length, pkt.side != 0 ? 1 : 0, *conn);
    ++c.datagrams;
    if (!c.named) {
      return c.datagrams >= kPatience ? oru::INSPECT_FINISHED : oru::INSPECT_STAY;
    }
    if (c.done || c.opened >= kMaxOpened || c.attempts >= kMaxAttempts ||
        c.datagrams >= kMaxDatagrams) {
      return oru::INSPECT_FINISHED;
    }
    return oru::INSPECT_STAY;
  }

  void OnChainExit(oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    if (!conn) {
      return;
    }
    auto it = m_conns.find(conn->m_number);
    if (it != m_conns.end()) {
      FreeCrypto(it->second);
      m_conns.erase(conn->m_number);
    }
  }

private:
  using ConnMap = oru::fdt::map<uint64_t, ConnState>;

  static void FreeCrypto(ConnState &c) {
    if (c.crypto != nullptr) {
      c.crypto->~CryptoStream();
      kest_free_local(c.crypto);
      c.crypto = nullptr;
    }
  }

  // The packets of one datagram, one after the other, up to a short header
  // or anything that does not read.
  void Datagram(ThreadState &state, ConnState &c, const uint8_t *data, size_t length, unsigned side,
                oru::Conn &conn) {
    kest_quic::GoogleHeader google;
    if (!c.done && kest_quic::ParseGoogleHeader(data, length, google)) {
      Google(state, c, data, length, google, conn);
      return;
    }
    size_t pos = 0;
    while (pos < length && !c.done) {
      kest_quic::LongHeader header;
      if (kest_quic::ParseLongHeader(data + pos, length - pos, header) !=
          kest_quic::HeaderStatus::kOk) {
        return;
      }
      if (!c.named) {
        if (!conn.PushProtocol(state.proto)) {
          c.done = true;
          return;
        }
        c.named = true;
        SetVersion(state, c, header.version);
      } else if (c.version == kest_quic::kVersionNegotiation &&
                 header.version != kest_quic::kVersionNegotiation) {
        // The client's next attempt after a version negotiation.
        SetVersion(state, c, header.version);
      }
      if (c.done) {
        return;
      }
      if (header.type == kest_quic::PacketType::kInitial &&
          (c.client_side < 0 || c.client_side == static_cast<int8_t>(side))) {
        Initial(state, c, data + pos, header, side);
      }
      pos += header.packet_length;
    }
  }

  // A gQUIC packet that names its version: the flow is named by it, and
  // the client's hello, clear text before Q044, gives the server name.
  // One such packet is all there is to learn.
  void Google(ThreadState &state, ConnState &c, const uint8_t *data, size_t length,
              const kest_quic::GoogleHeader &header, oru::Conn &conn) {
    if (!c.named) {
      if (!conn.PushProtocol(state.proto)) {
        c.done = true;
        return;
      }
      c.named = true;
    }
    c.done = true;
    c.version = header.version;
    char text[16];
    Publish(state.version_id, text, kest_quic::VersionText(header.version, text, sizeof text));
    const uint8_t *name = nullptr;
    size_t name_length = 0;
    if (!header.long_form && header.header_length != 0 &&
        kest_quic::FindChloServerName(data + header.header_length, length - header.header_length,
                                      name, name_length)) {
      Publish(TlsId(state, kServerName), reinterpret_cast<const char *>(name), name_length);
    }
  }

  void SetVersion(ThreadState &state, ConnState &c, uint32_t version) {
    c.version = version;
    char text[16];
    Publish(state.version_id, text, kest_quic::VersionText(version, text, sizeof text));
    // Nothing more to learn where the Initial keys are unknown; a version
    // negotiation is followed by the client's next try.
    if (version != kest_quic::kVersionNegotiation &&
        kest_quic::KeyFamilyOf(version) == kest_quic::KeyFamily::kNone) {
      c.done = true;
    }
  }

  // Tries the client's keys on an Initial packet: those that opened an
  // earlier one, then those of this packet's own Destination Connection ID
  // (the client's first Initials, or the new ones after a Retry).
  void Initial(ThreadState &state, ConnState &c, const uint8_t *packet,
               const kest_quic::LongHeader &header, unsigned side) {
    if (c.opened >= kMaxOpened || c.attempts >= kMaxAttempts || state.scratch == nullptr ||
        header.packet_length > kScratch) {
      return;
    }
    const uint8_t *payload = nullptr;
    size_t payload_length = 0;
    uint64_t pn = 0;
    bool opened = false;
    if (c.have_keys && c.version == header.version) {
      ++c.attempts;
      opened = kest_quic::OpenInitial(packet, header, c.keys, c.largest_pn, state.scratch, payload,
                                      payload_length, pn);
    }
    if (!opened && c.attempts < kMaxAttempts) {
      kest_quic::InitialKeys keys;
      if (!kest_quic::DeriveClientInitialKeys(header.version, header.dcid, header.dcid_length,
                                              keys)) {
        return;
      }
      ++c.attempts;
      opened = kest_quic::OpenInitial(packet, header, keys, c.have_keys ? c.largest_pn : -1,
                                      state.scratch, payload, payload_length, pn);
      if (opened) {
        c.keys = keys;
        c.have_keys = true;
        c.version = header.version;
      }
    }
    if (!opened) {
      return;
    }
    ++c.opened;
    c.client_side = static_cast<int8_t>(side);
    if (static_cast<int64_t>(pn) > c.largest_pn) {
      c.largest_pn = static_cast<int64_t>(pn);
    }
    if (c.crypto == nullptr) {
      void *block = kest_malloc_local(sizeof(kest_quic::CryptoStream));
      if (block == nullptr) {
        c.done = true;
        return;
      }
      c.crypto = ::new (block) kest_quic::CryptoStream();
    }
    kest_quic::ParseFrames(payload, payload_length, AddCrypto, c.crypto);
    switch (c.crypto->GetState()) {
    case kest_quic::CryptoStream::State::kNeedMore:
      return;
    case kest_quic::CryptoStream::State::kTooLarge:
      c.done = true;
      return;
    case kest_quic::CryptoStream::State::kReady:
      break;
    }
    c.done = true;
    kest_tls::HelloInfo &hello = state.hello;
    if (kest_tls::ParseHello(c.crypto->Message(), c.crypto->MessageLength(), hello) !=
            kest_tls::ParseStatus::kOk ||
        hello.type != kest_tls::kClientHello) {
      return;
    }
    if (hello.has_server_name) {
      Publish(TlsId(state, kServerName), hello.server_name, hello.server_name_length);
    }
    if (hello.has_alpn) {
      Publish(TlsId(state, kAlpn), hello.alpn, hello.alpn_length);
    }
  }

  ConnMap m_conns;
};

thread_local QuicInspector *t_inspector = nullptr;

const char *GetName() {
  return "quic";
}

bool GetVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
  if (own != nullptr) {
    *own = oru::VersionRecord{kest_decoders::TransportPlugin::kMajor, 0, 0, 1, "quic"};
  }
  return library != nullptr && library->major == kest_decoders::TransportPlugin::kMajor;
}

bool InitInstance() {
  oru::RegisterProtocol(kProtocol);
  // Names made already (the TLS plug-in's, an earlier instance's) serve as
  // they are.
  oru::AttributeMgr::Create(kAttrVersion);
  for (const char *name : kTlsNames) {
    oru::AttributeMgr::Create(name);
  }
  return oru::InterfaceBroker::RegisterModule(kModule, kModuleName);
}

void ExitThread();

// A failed start gives back what it took itself: the plug-in manager calls
// no ExitThread for a plug-in whose InitThread failed.
bool InitThread() {
  t_state = oru::fdt::CreateObject<ThreadState>(oru::fdt::OBJECT_LOCAL);
  if (t_state == nullptr) {
    return false;
  }
  t_state->proto = static_cast<uint32_t>(oru::GetProtocolId(kProtocol));
  t_state->scratch = static_cast<uint8_t *>(kest_malloc_local(kScratch));
  t_inspector = oru::fdt::CreateObject<QuicInspector>(oru::fdt::OBJECT_LOCAL);
  if (t_inspector != nullptr) {
    t_inspector->add_ref();
  }
  oru::AttributeMgr *manager = oru::AttributeMgr::Instance();
  if (manager != nullptr) {
    manager->Register(kAttrVersion, &t_state->version_id);
  }
  if (t_state->proto != 0 && t_state->scratch != nullptr && t_inspector != nullptr &&
      manager != nullptr) {
    return true;
  }
  ExitThread();
  return false;
}

void LinkThread() {
  // Every plug-in's InitThread has run: a TLS name registered by now is the
  // TLS plug-in's, and stays its own.
  oru::AttributeMgr *manager = oru::AttributeMgr::Instance();
  if (manager != nullptr && t_state != nullptr) {
    for (int i = 0; i < kTlsAttributes; ++i) {
      const char *name = kTlsNames[i];
      auto found = manager->m_registrations.find(name);
      const bool taken =
          found != manager->m_registrations.end() && found->first.size() == strlen(name);
      if (!taken) {
        t_state->own[i] = manager->Register(name, &t_state->own_ids[i]);
      }
    }
  }
  oru::kit::Attach(t_inspector, kWhere);
}

void StartThread() {}

void ExitThread() {
  oru::kit::Detach(t_inspector, kWhere);
  if (t_inspector != nullptr) {
    t_inspector->release();
    t_inspector = nullptr;
  }
  if (t_state != nullptr) {
    oru::AttributeMgr *manager = oru::AttributeMgr::Peek();
    if (manager != nullptr) {
      manager->Unregister(kAttrVersion);
      for (int i = 0; i < kTlsAttributes; ++i) {
        if (t_state->own[i]) {
          manager->Unregister(kTlsNames[i]);
        }
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
  oru::InterfaceBroker::UnregisterModule(kModule, kModuleName);
}

const oru::PluginEntryTable kTable = {GetName,    GetVersion,  InitInstance, InitThread,
                                      LinkThread, StartThread, ExitThread,   ExitInstance};

} // namespace

KEST_PLUGIN_QUERY {
  return &kTable;
}
