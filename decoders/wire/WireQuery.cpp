// The entry point of wire.plg.
#include "wire/WirePlugin.h"

KEST_PLUGIN_QUERY {
  return kest_decoders::WirePlugin::EntryTable();
}
