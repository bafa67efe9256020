// The TCP decoder's entry table: protocol "TCP", module TCP with the
// connection factory of IP protocol 6.
#ifndef KEST_DECODERS_TCPPLUGIN_H
#define KEST_DECODERS_TCPPLUGIN_H

#include "transport/TransportPlugin.h"

#include <kest/Plugin.h>

namespace kest_decoders {

class TcpPlugin {
public:
  static const oru::PluginEntryTable *EntryTable();
  // The description the entry points act on.
  static const TransportPlugin &Transport();
};

} // namespace kest_decoders

#endif
