// The entry point of udp.plg.
#include "transport/Transports.h"

KEST_PLUGIN_QUERY {
  return kest_decoders::UdpEntryTable();
}
