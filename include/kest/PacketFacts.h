// The facts of the whole packet being classified on this thread, which the
// packet decoder records as it parses so that the host can account for the
// packet (kest_packet_facts_get) without parsing it a second time.
#ifndef KEST_PACKETFACTS_H
#define KEST_PACKETFACTS_H

#include <kest.h>
#include <kest/Export.h>

namespace oru {

// This thread's record of the packet at hand. kest_classify() marks it
// KEST_PACKET_NONE before every packet; the decoder of whole packets then
// writes every field.
KEST_API kest_packet_facts_t *PacketFactsRecord();

} // namespace oru

#endif
