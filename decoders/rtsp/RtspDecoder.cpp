// The RTSP decoder: RTSP on TCP, any port (554 and 8554 tried first), its
// messages' parts under "rtsp", and the RTP and RTCP flows that Transport
// headers and SDP bodies announce.
#include "message/MessageInspector.h"

namespace {

struct Rtsp {
  static constexpr oru::kit::Spec kSpec{
      .plugin = "rtsp",
      .module = oru::kit::MODULE_RTSP,
      .protocols = {"RTSP", "RTP", "RTCP"},
      .tcp = true,
      .tcp_ports = {554, 8554},
  };
  static constexpr kest_message::MessageOptions kMessage{
      .dialect = &kest_message::kRtsp,
      .prefix = "rtsp",
      .sdp = true,
      .transport = true,
  };
  using Launcher = kest_message::MessageLauncher;
};

} // namespace

KEST_MESSAGE_DECODER(Rtsp)
