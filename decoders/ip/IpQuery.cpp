// The entry point of ip.plg: the flows of the IP protocols beside TCP and UDP.
#include "transport/Transports.h"

KEST_PLUGIN_QUERY {
  return kest_decoders::OtherEntryTable();
}
