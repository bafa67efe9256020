// The HTTP/1.x decoder plug-in: protocol "HTTP" (and "WebSocket" after an
// upgrade), attributes under the prefix "http", module 264, and one
// inspector per thread on every TCP port, tried first on HTTP's usual ports.
#include "http/HttpDpi.h"
#include "http/HttpRules.h"
#include "message/MessageLine.h"
#include "transport/TransportPlugin.h"
#include <kest/kit/Attach.h>

#include <kest/InterfaceBroker.h>
#include <kest/Plugin.h>
#include <kest/ProtocolRegistry.h>
#include <kest/fdt/ObjectPrefix.h>

namespace {

using kest_http::HttpLauncher;
using kest_http::HttpThread;

constexpr oru::ModuleId kModule = 264;
constexpr const char *kModuleName = "HTTP";
constexpr const char *kPrefix = "http";

constexpr uint16_t kPorts[] = {80, 8080, 8000, 8008, 8888, 3128};
constexpr oru::kit::AppPorts kWhere{6, kPorts, sizeof kPorts / sizeof kPorts[0]};

// Plain pointers: a thread-local with a destructor may be gone before the
// thread's kest_fini runs.
thread_local HttpThread *t_thread = nullptr;
thread_local HttpLauncher *t_launcher = nullptr;

const char *GetName() {
  return "http";
}

bool GetVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
  if (own != nullptr) {
    *own = oru::VersionRecord{kest_decoders::TransportPlugin::kMajor, 0, 0, 1, "decoders"};
  }
  return library != nullptr && library->major == kest_decoders::TransportPlugin::kMajor;
}

bool InitInstance() {
  oru::RegisterProtocol("HTTP");
  oru::RegisterProtocol("WebSocket");
  return oru::WebAttributes::InitInstance(kPrefix) &&
         oru::InterfaceBroker::RegisterModule(kModule, kModuleName);
}

bool StartThreadState() {
  t_thread = oru::fdt::CreateObject<HttpThread>(oru::fdt::OBJECT_LOCAL);
  if (t_thread == nullptr) {
    return false;
  }
  const kest_message::Dialect &d = kest_message::kHttp;
  for (size_t i = 0; i < d.method_count; ++i) {
    if (!t_thread->methods.push_back(oru::WebMethod{d.methods[i].text, d.methods[i].length})) {
      return false;
    }
  }
  const int http = oru::GetProtocolId("HTTP");
  const int websocket = oru::GetProtocolId("WebSocket");
  if (http <= 0 || websocket <= 0) {
    return false;
  }
  t_thread->http = static_cast<uint32_t>(http);
  t_thread->websocket = static_cast<uint32_t>(websocket);
  t_thread->attributes.Initialize(kPrefix);
  t_thread->rules = oru::fdt::CreateObject<oru::KeyValueRuleStore>(oru::fdt::OBJECT_LOCAL, "http");
  if (t_thread->rules == nullptr) {
    return false;
  }
  t_thread->custom =
      oru::fdt::CreateObject<kest_http::HttpCustomRules>(oru::fdt::OBJECT_LOCAL, *t_thread->rules);
  oru::InterfaceBroker *broker = oru::InterfaceBroker::Instance();
  if (t_thread->custom == nullptr || broker == nullptr ||
      !broker->RegisterInterface(kModule, oru::INTERFACE_CUSTOM_RULE,
                                 static_cast<oru::ICustomRule *>(t_thread->custom))) {
    oru::fdt::DestroyObject(t_thread->custom);
    t_thread->custom = nullptr;
    return false;
  }
  t_launcher = oru::fdt::CreateObject<HttpLauncher>(oru::fdt::OBJECT_LOCAL, t_thread);
  if (t_launcher == nullptr) {
    return false;
  }
  t_launcher->add_ref();
  return true;
}

void ExitThread();

// A failed start gives back what it took itself: the plug-in manager calls
// no ExitThread for a plug-in whose InitThread failed.
bool InitThread() {
  if (StartThreadState()) {
    return true;
  }
  ExitThread();
  return false;
}

void LinkThread() {
  oru::kit::Attach(t_launcher, kWhere);
}

void StartThread() {}

void ExitThread() {
  // The transport's thread may have ended first, and its store with it.
  oru::kit::Detach(t_launcher, kWhere);
  if (t_launcher != nullptr) {
    t_launcher->release();
    t_launcher = nullptr;
  }
  if (t_thread != nullptr) {
    oru::InterfaceBroker *broker = oru::InterfaceBroker::Instance();
    if (t_thread->custom != nullptr && broker != nullptr) {
      broker->UnregisterInterface(kModule, oru::INTERFACE_CUSTOM_RULE,
                                  static_cast<oru::ICustomRule *>(t_thread->custom));
    }
    oru::fdt::DestroyObject(t_thread->custom);
    oru::fdt::DestroyObject(t_thread->rules);
    t_thread->attributes.ExitThread(kPrefix);
    oru::fdt::DestroyObject(t_thread);
    t_thread = nullptr;
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
