// The two transports: protocol "TCP" with the connection factory of IP
// protocol 6 (module TCP), and "UDP" with that of 17 (module UDP). Each
// plug-in (tcp.plg, udp.plg) hands over its entry table; tests reach the
// descriptions to start a transport in-process.
//
// ip.plg holds the flows of every other IP protocol: "ICMP", "ICMPv6",
// "IGMP", "GRE", "ESP" and "SCTP" each in a table of its own, any other
// number in the table of "IP". The whole-packet decoder keys them (see
// wire/WireParser.h).
#ifndef KEST_DECODERS_TRANSPORTS_H
#define KEST_DECODERS_TRANSPORTS_H

#include "transport/TransportPlugin.h"

#include <kest/Plugin.h>

namespace kest_decoders {

const TransportPlugin &TcpTransport();
const TransportPlugin &UdpTransport();
const oru::PluginEntryTable *TcpEntryTable();
const oru::PluginEntryTable *UdpEntryTable();
const oru::PluginEntryTable *OtherEntryTable();

} // namespace kest_decoders

#endif
