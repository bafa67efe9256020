// The "tls" plug-in: names the protocol "TLS" and the module "TLS" (263), and
// puts one TlsDpi per thread on every TCP connection, first on the
// ports where TLS is usual. The bytes decide: any port may carry it.
#include "tls/TlsDpi.h"

#include "transport/TransportPlugin.h"
#include <kest/kit/Attach.h>

#include <kest/InterfaceBroker.h>
#include <kest/Plugin.h>
#include <kest/ProtocolRegistry.h>
#include <kest/fdt/ObjectPrefix.h>

namespace {

constexpr oru::ModuleId kModule = 263;
constexpr const char *kModuleName = "TLS";
constexpr const char *kProtocol = "TLS";

// HTTPS, SMTPS, NNTPS, LDAPS, DNS over TLS, FTPS data and control, TELNETS,
// IMAPS, IRCS, POP3S, SIP over TLS, alternative HTTPS.
constexpr uint16_t kPorts[] = {443, 465, 563, 636, 853, 989, 990, 992, 993, 994, 995, 5061, 8443};
constexpr oru::kit::AppPorts kWhere{6, kPorts, sizeof kPorts / sizeof kPorts[0]};

// This thread's inspector, with the reference the plug-in holds. A plain
// pointer: a thread-local with a destructor may be gone before kest_fini.
thread_local kest_tls::TlsDpi *t_inspector = nullptr;

const char *GetName() {
  return "tls";
}

bool GetVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
  if (own != nullptr) {
    *own = oru::VersionRecord{kest_decoders::TransportPlugin::kMajor, 0, 0, 1, "tls"};
  }
  return library != nullptr && library->major == kest_decoders::TransportPlugin::kMajor;
}

bool InitInstance() {
  oru::RegisterProtocol(kProtocol);
  kest_tls::TlsDpi::CreateAttributes();
  return oru::InterfaceBroker::RegisterModule(kModule, kModuleName);
}

bool InitThread() {
  const int proto = oru::GetProtocolId(kProtocol);
  if (proto <= 0) {
    return false;
  }
  t_inspector = oru::fdt::CreateObject<kest_tls::TlsDpi>(oru::fdt::OBJECT_LOCAL,
                                                         static_cast<uint32_t>(proto));
  if (t_inspector == nullptr) {
    return false;
  }
  t_inspector->add_ref();
  t_inspector->RegisterAttributes();
  return true;
}

void LinkThread() {
  oru::kit::Attach(t_inspector, kWhere);
}

void StartThread() {}

void ExitThread() {
  if (t_inspector == nullptr) {
    return;
  }
  oru::kit::Detach(t_inspector, kWhere);
  t_inspector->UnregisterAttributes();
  // Chains may still hold it; the last reference frees it.
  t_inspector->release();
  t_inspector = nullptr;
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
