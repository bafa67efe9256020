// How a whole-packet decoder hands a transport segment to the TCP or UDP
// decoder: INTERFACE_TRANSPORT_SEGMENT of MODULE_TCP and MODULE_UDP, on each
// thread. The transport finds or makes the connection (both directions of a
// flow are one connection), puts the payload into the side's FlowBuffer
// (TCP: reassembled in sequence order), runs the connection's inspectors and
// answers with their result, as an IClassify does.
//
// The IP protocols that are neither (ICMP, ICMPv6, IGMP, GRE, ESP, SCTP and
// any other number) have transports of the same interface under modules of
// their own (oru::kit::MODULE_ICMP ... MODULE_IP): they keep flows, without
// payload for inspectors.
#ifndef KEST_ITRANSPORTSEGMENT_H
#define KEST_ITRANSPORTSEGMENT_H

#include <kest/Conn.h>
#include <kest/Export.h>
#include <kest/InterfaceBroker.h>
#include <kest/IpAddr.h>
#include <kest/fdt/intrusive_ptr.h>
#include <stdint.h>

namespace oru {

constexpr InterfaceId INTERFACE_TRANSPORT_SEGMENT = 21;

// One segment, read out of a whole packet; borrowed for the call.
struct TransportSegment {
  // The packet as the host handed it over, and where its IP header and its
  // transport header start.
  const uint8_t *frame;
  uint32_t frame_length;
  uint16_t l3_offset;
  uint16_t l4_offset;
  IpAddr src;
  IpAddr dst;
  // Host byte order.
  uint16_t src_port;
  uint16_t dst_port;
  // TCP only: the flags byte and the sequence numbers.
  uint8_t tcp_flags;
  uint32_t seq;
  uint32_t ack;
  const uint8_t *payload;
  uint32_t payload_length;
  // The IP protocol; read by the transport of the other numbers (0 from
  // older callers, who only reach TCP and UDP).
  uint8_t protocol;
  // 1: not the flow's own packet but one that quotes it (an ICMP error
  // about it): the transport attaches it to the flow of these end points
  // if there is one, and makes none (answer 0, `conn` untouched).
  uint8_t quoted;
};

// Virtual table order fixed: Segment. No virtual destructor: the library
// never owns the object.
class KEST_API ITransportSegment {
public:
  // The inspectors' result for this segment, with `conn` set to its
  // connection; 0 (no result) when no connection could be made (kest_errno
  // 12).
  virtual unsigned Segment(TransportSegment &segment, fdt::intrusive_ptr<Conn> &conn) = 0;

protected:
  ~ITransportSegment() = default;
};

} // namespace oru

#endif
