// The SIP decoder plug-in: protocol "SIP" on UDP and TCP, any port (5060
// tried first; 5061 carries TLS), module 271, attributes under "sip", and
// the RTP and RTCP flows that SDP bodies announce.
#include "message/MessageDecoder.h"

namespace {

constexpr uint16_t kPorts[] = {5060};

const kest_message::PluginInfo kInfo{"sip", 271,    "SIP", "SIP", "sip",  &kest_message::kSip,
                                     true,  kPorts, 1,     true,  kPorts, 1,
                                     true,  false,  false};

} // namespace

KEST_PLUGIN_QUERY {
  return &kest_message::PluginEntries<&kInfo>::kTable;
}
