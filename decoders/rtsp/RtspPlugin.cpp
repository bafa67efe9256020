// The RTSP decoder plug-in: protocol "RTSP" on TCP, any port (554 and 8554
// tried first), module 272, attributes under "rtsp", and the RTP and RTCP
// flows that Transport headers and SDP bodies announce.
#include "sip/MessageDecoder.h"

namespace {

constexpr uint16_t kPorts[] = {554, 8554};

const kest_sip::PluginInfo kInfo{"rtsp",           272,  "RTSP", "RTSP", "rtsp",
                                 &kest_sip::kRtsp, true, kPorts, 2,      false,
                                 nullptr,          0,    true,   true,   false};

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
