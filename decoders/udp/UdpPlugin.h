// The UDP decoder's entry table: protocol "UDP", module UDP with the
// connection factory of IP protocol 17.
#ifndef KEST_DECODERS_UDPPLUGIN_H
#define KEST_DECODERS_UDPPLUGIN_H

#include "transport/TransportPlugin.h"

#include <kest/Plugin.h>

namespace kest_decoders {

class UdpPlugin {
public:
  static const oru::PluginEntryTable *EntryTable();
  // The description the entry points act on.
  static const TransportPlugin &Transport();
};

} // namespace kest_decoders

#endif
