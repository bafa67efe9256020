// The SSDP decoder plug-in: protocol "SSDP" on UDP, any port (1900 tried
// first), module 273, attributes under "ssdp": searches, announcements and
// the answers to searches (with their ST or USN header).
#include "message/MessageDecoder.h"

namespace {

constexpr uint16_t kPorts[] = {1900};

const kest_message::PluginInfo kInfo{"ssdp", 273,     "SSDP", "SSDP", "ssdp", &kest_message::kSsdp,
                                     false,  nullptr, 0,      true,   kPorts, 1,
                                     false,  false,   true};

} // namespace

KEST_PLUGIN_QUERY {
  return &kest_message::PluginEntries<&kInfo>::kTable;
}
