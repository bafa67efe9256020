#include "udp/UdpPlugin.h"

#include <kest/MemTag.h>

namespace kest_decoders {

namespace {

constexpr TransportPlugin kUdp("udp", "UDP", oru::MODULE_UDP, 17, oru::MemTag::CTX_UDP_INSPECT,
                               "udp.rule_used");

} // namespace

const oru::PluginEntryTable *UdpPlugin::EntryTable() {
  return &TransportEntries<&kUdp>::kTable;
}

const TransportPlugin &UdpPlugin::Transport() {
  return kUdp;
}

} // namespace kest_decoders
