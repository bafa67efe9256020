// The entry point of udp.plg.
#include "udp/UdpPlugin.h"

KEST_PLUGIN_QUERY {
  return kest_decoders::UdpPlugin::EntryTable();
}
