// Writes TCP segments into one side's FlowBuffer, in stream order.
//
// Positions start at 0 with the byte after the SYN (or with the first byte
// seen, when the connection was picked up without one); the sequence number
// of position 0 is kept in m_base_pos. A segment's 32-bit sequence number is
// taken to the 64-bit position nearest the end of the stream, so streams go
// on across the wrap at 2^32.
//
//  - In order: the bytes become a block borrowed from the packet (the
//    inspectors' Sync keeps it). When blocks held beyond it now follow
//    without a hole, they join the stream, and the new block owns a copy:
//    Sync saves only the newest block.
//  - Ahead of the stream, within the reorder window: an owned copy waits.
//  - Ahead beyond the window: the hole is given up; the stream goes on from
//    the segment, and inspection with it.
//  - Behind the stream or over bytes already held: the first bytes win; only
//    what is new is taken.
//  - A hole the receiver acknowledged, with bytes waiting beyond it: the
//    receiver got what the capture missed, and nothing will fill the hole.
//    It is given up at once, not a window later, and the waiting bytes
//    join the stream.
// Blocks never overlap, so every byte has one block.
#ifndef KEST_DECODERS_TCPSTREAM_H
#define KEST_DECODERS_TCPSTREAM_H

#include <kest/FlowBuffer.h>
#include <stdint.h>

namespace kest_decoders {

class TcpStream {
public:
  // The 64-bit position of sequence number `seq` in a stream whose position
  // 0 is `base`, nearest to `next`.
  static uint64_t Position(uint32_t seq, uint32_t base, uint64_t next);

  // Enters `length` bytes at `pos`. Returns the number of bytes by which the
  // contiguous stream grew; `from` is where that growth starts. Without
  // memory for an out-of-order copy the bytes are lost (the sender sends
  // them again).
  static uint32_t Insert(oru::FlowBuffer &flow, uint64_t pos, const uint8_t *data, uint32_t length,
                         uint32_t window, uint64_t &from);

  // The receiver acknowledged the stream up to position `acked`. Where bytes
  // wait beyond a hole that lies wholly below it, the hole is given up as
  // one too far ahead is (what was kept before it goes) and the waiting
  // bytes that follow it without a gap join the stream. Returns the number
  // of bytes joined, from `from`; 0 where nothing moved. A hole at a time:
  // the next acknowledgement gives up the next one. An acknowledgement
  // further ahead than any receive window is taken for one of bytes before
  // the stream's position 0.
  static uint32_t Acknowledged(oru::FlowBuffer &flow, uint64_t acked, uint64_t &from);
};

} // namespace kest_decoders

#endif
