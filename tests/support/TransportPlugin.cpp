#include "TransportPlugin.h"

#include <kest/Plugin.h>
#include <kest/PluginManager.h>
#include <kest/ProtocolRegistry.h>

#include <atomic>
#include <mutex>

namespace kest_test {

namespace {

std::atomic<bool> g_register{true};
std::atomic<void (*)()> g_thread_start{nullptr};

const char *GetName() {
  return kTransportPluginName;
}

bool GetVersion(const oru::VersionRecord * /*library*/, oru::VersionRecord *own) {
  *own = oru::VersionRecord{1, 0, 0, 0, "test"};
  return true;
}

bool InitInstance() {
  if (g_register) {
    oru::RegisterProtocol("TCP");
    oru::RegisterProtocol("UDP");
  }
  return true;
}

bool InitThread() {
  if (void (*start)() = g_thread_start.load()) {
    start();
  }
  return true;
}

void Nothing() {}

const oru::PluginEntryTable kTable = {GetName, GetVersion, InitInstance, InitThread,
                                      Nothing, Nothing,    Nothing,      Nothing};

} // namespace

void AddTransportPlugin() {
  static std::once_flag once;
  std::call_once(once, [] { oru::PluginManager::AddBuiltin(&kTable); });
}

void SetTransportRegistration(bool on) {
  g_register = on;
}

void SetTransportThreadStart(void (*start)()) {
  g_thread_start = start;
}

} // namespace kest_test
