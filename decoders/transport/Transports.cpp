#include "transport/Transports.h"

#include <kest/MemTag.h>

namespace kest_decoders {

namespace {

constexpr TransportPlugin kTcp("tcp", "TCP", oru::MODULE_TCP, 6, oru::MemTag::CTX_TCP_INSPECT,
                               "tcp.rule_used");
constexpr TransportPlugin kUdp("udp", "UDP", oru::MODULE_UDP, 17, oru::MemTag::CTX_UDP_INSPECT,
                               "udp.rule_used");

} // namespace

const TransportPlugin &TcpTransport() {
  return kTcp;
}
const TransportPlugin &UdpTransport() {
  return kUdp;
}
const oru::PluginEntryTable *TcpEntryTable() {
  return &TransportEntries<&kTcp>::kTable;
}
const oru::PluginEntryTable *UdpEntryTable() {
  return &TransportEntries<&kUdp>::kTable;
}

} // namespace kest_decoders
