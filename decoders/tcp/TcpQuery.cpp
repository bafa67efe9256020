// The entry point of tcp.plg.
#include "transport/Transports.h"

KEST_PLUGIN_QUERY {
  return kest_decoders::TcpEntryTable();
}
