// The RTSP decoder plug-in: protocol "RTSP" on TCP, any port (554 and 8554
// tried first), module 272, attributes under "rtsp", and the RTP and RTCP
// flows that Transport headers and SDP bodies announce.
#include "message/MessageDecoder.h"

namespace {

constexpr uint16_t kPorts[] = {554, 8554};

const kest_message::PluginInfo kInfo{"rtsp", 272,    "RTSP", "RTSP", "rtsp",  &kest_message::kRtsp,
                                     true,   kPorts, 2,      false,  nullptr, 0,
                                     true,   true,   false};

} // namespace

KEST_PLUGIN_QUERY {
  return &kest_message::PluginEntries<&kInfo>::kTable;
}
