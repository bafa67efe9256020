// The SIP decoder: SIP on UDP and TCP, any port (5060 tried first; 5061
// carries TLS), its messages' parts under "sip", and the RTP and RTCP flows
// that SDP bodies announce.
#include "message/MessageInspector.h"

namespace {

struct Sip {
  static constexpr oru::kit::Spec kSpec{
      .plugin = "sip",
      .module = oru::kit::MODULE_SIP,
      .protocols = {"SIP", "RTP", "RTCP"},
      .tcp = true,
      .tcp_ports = {5060},
      .udp = true,
      .udp_ports = {5060},
  };
  static constexpr kest_message::MessageOptions kMessage{
      .dialect = &kest_message::kSip,
      .prefix = "sip",
      .sdp = true,
  };
  using Launcher = kest_message::MessageLauncher;
};

} // namespace

KEST_MESSAGE_DECODER(Sip)
