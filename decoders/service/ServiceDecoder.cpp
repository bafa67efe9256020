// The service plug-in: names the service of a connection ("service.name",
// "service.category", "service.source") from what the decoders report
// (kest/kit/Services.h), from DNS answers that led to the server's address,
// and from the catalogue's address ranges.
//
// Each thread keeps its own catalogue: the built-in one, then the user's
// (the file the configuration item "service.catalogue" names), read at the
// thread's start and again when the item changes. The addresses learned
// from DNS answers are one store per instance (LearnedNames.h), shared by
// its threads.
//
// What was published is remembered per connection in a small direct-mapped
// table by connection number: a connection that loses its place to another
// may publish its service once more, nothing worse, and nothing needs
// clearing when connections end.
#include "service/Catalogue.h"
#include "service/LearnedNames.h"

#include <kest/Clock.h>
#include <kest/Configuration.h>
#include <kest/Log.h>
#include <kest/ProtocolRegistry.h>
#include <kest/kit/Decoder.h>
#include <kest/kit/Services.h>

#include <fcntl.h>
#include <unistd.h>

namespace kest_service {
extern const char kBuiltinCatalogue[];
extern const size_t kBuiltinCatalogueSize;
} // namespace kest_service

namespace {

using kest_service::Catalogue;
using kest_service::LearnedNames;

enum Attribute { kName, kCategory, kSource };

constexpr const char *kCatalogueItem = "service.catalogue";
// A user catalogue larger than this is refused whole.
constexpr size_t kMaxCatalogueFile = 8u << 20;

// The learned store of each instance, made by its first thread to start and
// given back by its last to stop: an instance that fails to open calls no
// plug-in's instance exit, and a store made there would be lost.
LearnedNames *s_learned[oru::kInstanceRows] = {};
uint32_t s_learned_users[oru::kInstanceRows] = {};
oru::SpinLock s_learned_lock = 0;

LearnedNames *Learned() {
  const int row = oru::Runtime::l_instance_id;
  return row >= 0 && row < oru::kInstanceRows ? s_learned[row] : nullptr;
}

bool UseLearned() {
  const int row = oru::Runtime::l_instance_id;
  if (row < 0 || row >= oru::kInstanceRows) {
    return false;
  }
  oru::SpinGuard hold(s_learned_lock);
  if (s_learned[row] == nullptr) {
    s_learned[row] = LearnedNames::Create();
    if (s_learned[row] == nullptr) {
      return false;
    }
  }
  ++s_learned_users[row];
  return true;
}

void LeaveLearned() {
  const int row = oru::Runtime::l_instance_id;
  if (row < 0 || row >= oru::kInstanceRows) {
    return;
  }
  oru::SpinGuard hold(s_learned_lock);
  if (s_learned_users[row] != 0 && --s_learned_users[row] == 0) {
    LearnedNames::Destroy(s_learned[row]);
    s_learned[row] = nullptr;
  }
}

const char *SourceName(oru::ServiceSource source) {
  switch (source) {
  case oru::SERVICE_SOURCE_ADDRESS:
    return "address";
  case oru::SERVICE_SOURCE_DNS:
    return "dns";
  case oru::SERVICE_SOURCE_HOST:
    return "host";
  case oru::SERVICE_SOURCE_SNI:
    return "sni";
  default:
    return "";
  }
}

void WarnSkipped(unsigned line) {
  KEST_LOG_WARNING("service", "catalogue line %u is malformed: skipped\n", line);
}

// The file's bytes in `buffer` (from the local hooks; the caller frees it).
bool ReadFile(const char *path, char *&buffer, size_t &length) {
  buffer = nullptr;
  length = 0;
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  size_t capacity = 0;
  bool ok = true;
  for (;;) {
    if (length == capacity) {
      const size_t wanted = capacity == 0 ? 65536 : capacity * 2;
      char *bigger =
          wanted <= kMaxCatalogueFile ? static_cast<char *>(kest_malloc_local(wanted)) : nullptr;
      if (bigger == nullptr) {
        ok = false;
        break;
      }
      if (length != 0) {
        kest_memcpy(bigger, buffer, length);
      }
      kest_free_local(buffer);
      buffer = bigger;
      capacity = wanted;
    }
    const ssize_t n = read(fd, buffer + length, capacity - length);
    if (n < 0) {
      ok = false;
      break;
    }
    if (n == 0) {
      break;
    }
    length += static_cast<size_t>(n);
  }
  close(fd);
  if (!ok) {
    kest_free_local(buffer);
    buffer = nullptr;
    length = 0;
  }
  return ok;
}

// A Host header's name without its ":port".
size_t WithoutPort(const char *name, size_t length) {
  size_t i = length;
  while (i > 0 && name[i - 1] >= '0' && name[i - 1] <= '9') {
    --i;
  }
  return i > 1 && i < length && name[i - 1] == ':' ? i - 1 : length;
}

// A name's bytes as one word (FNV-1a), to know it again.
uint64_t NameHash(const char *name, size_t length) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (size_t i = 0; i < length; ++i) {
    h = (h ^ static_cast<uint8_t>(name[i])) * 0x100000001b3ull;
  }
  return h;
}

class ServiceInspector;

struct ServicePlugin {
  static constexpr oru::kit::Spec kSpec{
      .plugin = "service",
      .module = oru::kit::MODULE_SERVICE,
      .module_name = "SERVICE",
      .attributes = {"service.name", "service.category", "service.source"},
      .tcp = true,
      .udp = true,
  };
  using Inspector = ServiceInspector;
};

class ServiceInspector final : public oru::Inspector, public oru::IServices {
public:
  bool Start() {
    if (!UseLearned()) {
      return false;
    }
    m_uses_learned = true;
    if (!m_reg.Start(ServicePlugin::kSpec) || !LoadCatalogue()) {
      return false;
    }
    oru::InterfaceBroker *broker = oru::InterfaceBroker::Instance();
    if (broker == nullptr ||
        !broker->RegisterInterface(ServicePlugin::kSpec.module, oru::INTERFACE_SERVICES,
                                   static_cast<oru::IServices *>(this))) {
      return false;
    }
    m_registered = true;
    oru::Configuration *config = oru::Configuration::Instance();
    if (config == nullptr ||
        !config->Subscribe(kCatalogueItem, this,
                           oru::MakeConfigMethod(&ServiceInspector::OnChange))) {
      return false;
    }
    m_subscribed = true;
    return true;
  }

  void Stop() {
    if (m_subscribed) {
      if (oru::Configuration *config = oru::Configuration::Peek()) {
        config->Unsubscribe(kCatalogueItem, this,
                            oru::MakeConfigMethod(&ServiceInspector::OnChange));
      }
      m_subscribed = false;
    }
    if (m_registered) {
      if (oru::InterfaceBroker *broker = oru::InterfaceBroker::Peek()) {
        broker->UnregisterInterface(ServicePlugin::kSpec.module, oru::INTERFACE_SERVICES,
                                    static_cast<oru::IServices *>(this));
      }
      m_registered = false;
    }
    m_reg.Stop();
    oru::fdt::DestroyObject(m_catalogue);
    m_catalogue = nullptr;
    if (m_uses_learned) {
      LeaveLearned();
      m_uses_learned = false;
    }
  }

  void Link() { m_reg.Link(); }

  unsigned int Inspect(oru::ParentDpi * /*parent*/, oru::PktInfo &pkt, oru::Tuple & /*tuple*/,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    if (!conn) {
      return oru::INSPECT_FINISHED;
    }
    if (pkt.data == nullptr || pkt.length == 0) {
      // A handshake: nothing is known yet.
      return oru::INSPECT_STAY;
    }
    // The first payload decides. Staying longer would keep the chain from
    // emptying, and decoders that wait for an empty chain (those that read
    // a side's later messages through a callback) would miss the packet
    // on which it empties. A server name that comes later still replaces
    // what the address said.
    if (SeenOf(*conn).source == oru::SERVICE_SOURCE_NONE) {
      ByAddress(*conn, conn->m_tuple.dst);
    }
    return oru::INSPECT_FINISHED;
  }

  void ReportName(const char *name, size_t length, oru::ServiceSource source) override {
    oru::Conn *conn = ActiveConn();
    if (conn == nullptr || name == nullptr || m_catalogue == nullptr ||
        source == oru::SERVICE_SOURCE_NONE) {
      return;
    }
    // Of one source, the first service named stays (a DNS flow's later
    // questions, a proxy's later hosts).
    Seen &seen = SeenOf(*conn);
    if (source <= seen.source) {
      return;
    }
    if (source == oru::SERVICE_SOURCE_HOST) {
      length = WithoutPort(name, length);
    }
    // A name the catalogue does not know holds nothing back: the address
    // may still say. The same name again (a kept-alive connection's next
    // Host) is not looked up again.
    const uint64_t hash = NameHash(name, length);
    if (seen.missed_source == source && seen.missed == hash) {
      return;
    }
    const int service = m_catalogue->Match(name, length);
    if (service < 0) {
      seen.missed_source = source;
      seen.missed = hash;
      return;
    }
    seen.source = source;
    Publish(*conn, service, source);
  }

  void LearnAddress(const uint8_t *address, size_t address_length, const char *name, size_t length,
                    uint32_t ttl) override {
    LearnedNames *learned = Learned();
    uint64_t key = 0;
    if (learned == nullptr || address == nullptr || m_catalogue == nullptr ||
        (address_length != 4 && address_length != 16) ||
        m_catalogue->Match(name, length, &key) < 0) {
      return;
    }
    const oru::IpAddr ip =
        address_length == 4
            ? oru::IpAddr::FromV4(static_cast<uint32_t>(address[0]) << 24 |
                                  static_cast<uint32_t>(address[1]) << 16 |
                                  static_cast<uint32_t>(address[2]) << 8 | address[3])
            : oru::IpAddr::FromV6(address);
    learned->Learn(ip, key, ttl, oru::now_sec());
  }

  void OnChange(const oru::fdt::string &, const oru::fdt::string &, const oru::fdt::string &) {
    Catalogue *fresh = oru::fdt::CreateObject<Catalogue>(oru::fdt::OBJECT_LOCAL);
    if (fresh == nullptr || !LoadInto(*fresh)) {
      oru::fdt::DestroyObject(fresh);
      KEST_LOG_WARNING("service", "no memory for the new catalogue: the old one stays\n");
      return;
    }
    oru::fdt::DestroyObject(m_catalogue);
    m_catalogue = fresh;
    // What connections published stays published; a connection named under
    // the old catalogue may be named again under the new one.
    kest_memset(m_seen, 0, sizeof m_seen);
  }

private:
  struct Seen {
    uint64_t number = 0;
    oru::ServiceSource source = oru::SERVICE_SOURCE_NONE;
    // The last name of `missed_source` that the catalogue did not know.
    oru::ServiceSource missed_source = oru::SERVICE_SOURCE_NONE;
    uint64_t missed = 0;
  };
  static constexpr size_t kSeen = 4096;
  static constexpr uint32_t kKnownApps = 512;

  static oru::Conn *ActiveConn() { return oru::ThreadPointer<oru::Conn>(oru::Conn::l_active_conn); }

  Seen &SeenOf(const oru::Conn &conn) {
    Seen &seen = m_seen[conn.m_number & (kSeen - 1)];
    if (seen.number != conn.m_number) {
      seen = Seen{};
      seen.number = conn.m_number;
    }
    return seen;
  }

  bool LoadCatalogue() {
    m_catalogue = oru::fdt::CreateObject<Catalogue>(oru::fdt::OBJECT_LOCAL);
    return m_catalogue != nullptr && LoadInto(*m_catalogue);
  }

  static bool LoadInto(Catalogue &catalogue) {
    if (!catalogue.Load(kest_service::kBuiltinCatalogue, kest_service::kBuiltinCatalogueSize)) {
      return false;
    }
    const oru::fdt::string path = oru::Configuration::GetItem(kCatalogueItem);
    if (path.empty()) {
      return true;
    }
    char *text = nullptr;
    size_t length = 0;
    if (!ReadFile(path.c_str(), text, length)) {
      KEST_LOG_WARNING("service", "cannot read the catalogue %s: the built-in one serves\n",
                       path.c_str());
      return true;
    }
    unsigned skipped = 0;
    const bool ok = catalogue.Load(text, length, &skipped, WarnSkipped);
    kest_free_local(text);
    return ok;
  }

  // A connection without a server name of its own: a name a DNS answer gave
  // for its server's address, else a range that holds the address.
  void ByAddress(oru::Conn &conn, const oru::IpAddr &server) {
    if (ActiveConn() != &conn || m_catalogue == nullptr) {
      return;
    }
    Seen &seen = SeenOf(conn);
    if (LearnedNames *learned = Learned()) {
      const uint64_t key = learned->Find(server, oru::now_sec());
      const int service = key != 0 ? m_catalogue->ByKey(key) : -1;
      if (service >= 0) {
        seen.source = oru::SERVICE_SOURCE_DNS;
        Publish(conn, service, oru::SERVICE_SOURCE_DNS);
        return;
      }
    }
    const int service = m_catalogue->MatchAddress(server);
    if (service >= 0) {
      seen.source = oru::SERVICE_SOURCE_ADDRESS;
      Publish(conn, service, oru::SERVICE_SOURCE_ADDRESS);
    }
  }

  // Whether a host's custom application named the connection: its name
  // stays the connection's, and no service is added to it. The answer for
  // an application index is kept: hosts add their applications before
  // classifying.
  bool CustomApplication(oru::Conn &conn) {
    const uint32_t app = conn.GetAppStack()->app;
    if (app == 0) {
      return false;
    }
    uint8_t *known = app < kKnownApps ? &m_custom_app[app] : nullptr;
    if (known != nullptr && *known != 0) {
      return *known == 2;
    }
    oru::fdt::string name;
    bool custom = false;
    if (oru::ProtocolRegistry::IndexToName(static_cast<int>(app), name)) {
      char key[64];
      kest_snprintf(key, sizeof key, "customproto.%s", name.c_str());
      custom = !oru::Configuration::GetItem(key).empty();
    }
    if (known != nullptr) {
      *known = custom ? 2 : 1;
    }
    return custom;
  }

  void Publish(oru::Conn &conn, int service, oru::ServiceSource source) {
    if (CustomApplication(conn)) {
      return;
    }
    const kest_service::Service &s = m_catalogue->At(service);
    m_reg.Publish(kName, s.name, kest_strlen(s.name));
    m_reg.Publish(kCategory, s.category, kest_strlen(s.category));
    const char *from = SourceName(source);
    m_reg.Publish(kSource, from, kest_strlen(from));
  }

  oru::kit::Registration m_reg;
  Catalogue *m_catalogue = nullptr;
  Seen m_seen[kSeen];
  bool m_registered = false;
  bool m_subscribed = false;
  bool m_uses_learned = false;
  // By application index: 0 not asked yet, 1 a protocol, 2 a host's own.
  uint8_t m_custom_app[kKnownApps] = {};
};

} // namespace

KEST_DECODER(ServicePlugin)
