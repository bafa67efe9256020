// The whole-packet decoder, wire.plg (named so that it starts after tcp.plg
// and udp.plg, which keep the first protocol indices): takes the host's
// three packet forms
// (kest_classify with KEST_SELECTOR_IP, _ETHERNET, _LINUX_SLL), reads the
// link, network and transport layers (WireParser) and hands TCP and UDP
// segments to the transports (INTERFACE_TRANSPORT_SEGMENT), which find the
// connection, enter the payload and run its inspectors. Everything else is
// answered "not classified" (code 0) on a connection of number 0. With
// POLICY_TUNNELS in the thread's default policy, IP-in-IP, GRE, GTP-U (UDP
// 2152) and VXLAN (UDP 4789) are opened and the innermost packet is
// classified, the tunnels ("IPIP", "GRE", "GTP", "VXLAN") standing under its
// transport on the stack.
#ifndef KEST_DECODERS_PACKETPLUGIN_H
#define KEST_DECODERS_PACKETPLUGIN_H

#include <kest/Plugin.h>

namespace kest_decoders {

class WirePlugin {
public:
  static const oru::PluginEntryTable *EntryTable();
};

} // namespace kest_decoders

#endif
