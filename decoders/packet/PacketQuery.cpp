// The entry point of wire.plg.
#include "packet/PacketPlugin.h"

KEST_PLUGIN_QUERY {
  return kest_decoders::PacketPlugin::EntryTable();
}
