// The two transports: protocol "TCP" with the connection factory of IP
// protocol 6 (module TCP), and "UDP" with that of 17 (module UDP). Each
// plug-in (tcp.plg, udp.plg) hands over its entry table; tests reach the
// descriptions to start a transport in-process.
#ifndef KEST_DECODERS_TRANSPORTS_H
#define KEST_DECODERS_TRANSPORTS_H

#include "transport/TransportPlugin.h"

#include <kest/Plugin.h>

namespace kest_decoders {

const TransportPlugin &TcpTransport();
const TransportPlugin &UdpTransport();
const oru::PluginEntryTable *TcpEntryTable();
const oru::PluginEntryTable *UdpEntryTable();

} // namespace kest_decoders

#endif
