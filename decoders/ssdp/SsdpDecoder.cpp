// The SSDP decoder: SSDP on UDP, any port (1900 tried first), its messages'
// parts under "ssdp": searches, announcements and the answers to searches
// (with their ST or USN header).
#include "message/MessageInspector.h"

namespace {

struct Ssdp {
  static constexpr oru::kit::Spec kSpec{
      .plugin = "ssdp",
      .module = oru::kit::MODULE_SSDP,
      .protocols = {"SSDP"},
      .udp = true,
      .udp_ports = {1900},
  };
  static constexpr kest_message::MessageOptions kMessage{
      .dialect = &kest_message::kSsdp,
      .prefix = "ssdp",
      .search_response = true,
  };
  using Launcher = kest_message::MessageLauncher;
};

} // namespace

KEST_MESSAGE_DECODER(Ssdp)
