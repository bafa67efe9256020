// The library's side of the packet facts record.
#ifndef KEST_CONN_PACKETFACTS_H
#define KEST_CONN_PACKETFACTS_H

namespace oru {

// Before every classifying call: the record belongs to the current instance
// and says that no whole packet has been parsed yet.
void MarkPacketFacts();

} // namespace oru

#endif
