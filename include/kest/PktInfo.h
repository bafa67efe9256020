// What a packet decoder knows about the packet at hand, passed by reference
// along every inspector chain. The library never reads or writes it: the
// decoder that calls Handoff fills it, and inspectors read it (or, between
// inspectors of one plug-in, exchange through it).
//
// Layout fixed: decoders and inspectors of different plug-ins share it.
#ifndef KEST_PKTINFO_H
#define KEST_PKTINFO_H

#include <stddef.h>
#include <stdint.h>

namespace oru {

struct PktInfo {
  // An offset that is not known: the packet came as payload alone.
  static constexpr uint16_t kNoOffset = 0xFFFF;

  // This packet's payload for the connection (the transport's data), and its
  // length in bytes. Valid for the call only: an inspector that needs the
  // bytes later keeps them through the side's FlowBuffer (Sync).
  const uint8_t *data;
  uint32_t length;
  // The side the payload belongs to, 0 or 1, as the connection's m_side.
  uint8_t side;
  // The TCP flags byte of the segment (FIN 0x01, SYN 0x02, RST 0x04, PSH 0x08,
  // ACK 0x10, URG 0x20); 0 for UDP and for payload handed over alone.
  uint8_t tcp_flags;
  // Offsets of the IP header and of the transport header from `frame`, when
  // the packet came whole; kNoOffset otherwise.
  uint16_t l3_offset;
  uint16_t l4_offset;
  uint16_t reserved;
  // Stream position of data[0] in the side's FlowBuffer. Bytes new to the
  // stream run from here to the flow's End(): a segment that fills a hole
  // brings the bytes that waited behind it.
  uint64_t stream_pos;
  // Time of the packet, in milliseconds of oru::now().
  uint64_t time;
  // The whole packet as the host handed it over, or null for payload alone.
  const uint8_t *frame;
  uint32_t frame_length;
};

static_assert(offsetof(PktInfo, data) == 0 && offsetof(PktInfo, length) == 8 &&
                  offsetof(PktInfo, side) == 12 && offsetof(PktInfo, tcp_flags) == 13 &&
                  offsetof(PktInfo, l3_offset) == 14 && offsetof(PktInfo, l4_offset) == 16 &&
                  offsetof(PktInfo, stream_pos) == 24 && offsetof(PktInfo, time) == 32 &&
                  offsetof(PktInfo, frame) == 40 && offsetof(PktInfo, frame_length) == 48 &&
                  sizeof(PktInfo) == 56,
              "PktInfo layout is shared between plug-ins");

} // namespace oru

#endif
