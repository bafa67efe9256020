// The SSDP decoder plug-in: protocol "SSDP" on UDP, any port (1900 tried
// first), module 273, attributes under "ssdp": searches, announcements and
// the answers to searches (with their ST or USN header).
#include "sip/MessageDecoder.h"

namespace {

constexpr uint16_t kPorts[] = {1900};

const kest_sip::PluginInfo kInfo{"ssdp",           273,   "SSDP",  "SSDP", "ssdp",
                                 &kest_sip::kSsdp, false, nullptr, 0,      true,
                                 kPorts,           1,     false,   false,  true};

const char *GetName() {
  return kest_sip::PluginName(kInfo);
}
bool InitInstance() {
  return kest_sip::PluginInitInstance(kInfo);
}
bool InitThread() {
  return kest_sip::PluginInitThread(kInfo);
}
void LinkThread() {
  kest_sip::PluginLinkThread(kInfo);
}
void StartThread() {}
void ExitThread() {
  kest_sip::PluginExitThread(kInfo);
}
void ExitInstance() {
  kest_sip::PluginExitInstance(kInfo);
}

const oru::PluginEntryTable kTable = {GetName,      kest_sip::PluginVersion,
                                      InitInstance, InitThread,
                                      LinkThread,   StartThread,
                                      ExitThread,   ExitInstance};

} // namespace

KEST_PLUGIN_QUERY {
  return &kTable;
}
