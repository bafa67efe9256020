// The whole-packet decoder, packet.plg: takes the host's three packet forms
// (kest_classify with KEST_SELECTOR_IP, _ETHERNET, _LINUX_SLL), reads the
// link, network and transport layers (PacketParser) and hands TCP and UDP
// segments to the transports (INTERFACE_TRANSPORT_SEGMENT), which find the
// connection, enter the payload and run its inspectors. Everything else is
// answered "not classified" (code 0) on a connection of number 0.
#ifndef KEST_DECODERS_PACKETPLUGIN_H
#define KEST_DECODERS_PACKETPLUGIN_H

#include <kest/Plugin.h>

namespace kest_decoders {

class PacketPlugin {
public:
  static const oru::PluginEntryTable *EntryTable();
};

} // namespace kest_decoders

#endif
