// The entry point of tcp.plg.
#include "tcp/TcpPlugin.h"

KEST_PLUGIN_QUERY {
  return kest_decoders::TcpPlugin::EntryTable();
}
