#include "transport/TcpStream.h"

#include <kest.h>
#include <kest/MemTag.h>

namespace kest_decoders {

namespace {

constexpr uint32_t kMaxBlock = 0xFFFF;

// Moves the end of the contiguous stream over the blocks that follow it.
void Absorb(oru::FlowBuffer &flow) {
  for (;;) {
    oru::FlowBuffer::BlockMap::iterator next = flow.m_blocks.find(flow.m_next_pos);
    if (next == flow.m_blocks.end()) {
      return;
    }
    flow.m_last_start = next->first;
    flow.m_next_pos = next->first + next->second.size;
  }
}

} // namespace

uint64_t TcpStream::Position(uint32_t seq, uint32_t base, uint64_t next) {
  const uint32_t offset = seq - base;
  uint64_t pos = (next & ~0xFFFFFFFFull) | offset;
  if (pos + 0x80000000ull < next) {
    pos += 0x100000000ull;
  } else if (pos > next + 0x80000000ull && pos >= 0x100000000ull) {
    pos -= 0x100000000ull;
  }
  return pos;
}

uint32_t TcpStream::Insert(oru::FlowBuffer &flow, uint64_t pos, const uint8_t *data,
                           uint32_t length, uint32_t window, uint64_t &from) {
  from = flow.m_next_pos;
  if (length == 0 || length > kMaxBlock) {
    return 0;
  }
  uint64_t next = flow.m_next_pos;
  if (pos + length <= next) {
    return 0; // all of it is there already
  }
  if (pos < next) {
    const uint64_t skip = next - pos;
    data += skip;
    length -= static_cast<uint32_t>(skip);
    pos = next;
  }
  if (pos > next && pos - next > window) {
    // Too far ahead: the hole is given up, and what waited before it goes.
    flow.m_next_pos = pos;
    flow.Flush();
    next = pos;
    from = pos;
  }
  // Bytes held already win: cut at the next block, and behind the block
  // before.
  oru::FlowBuffer::BlockMap::iterator after = flow.m_blocks.lower_bound(pos);
  if (after != flow.m_blocks.end() && after->first == pos) {
    if (pos > next) {
      return 0;
    }
  }
  if (after != flow.m_blocks.end() && after->first < pos + length) {
    length = static_cast<uint32_t>(after->first - pos);
  }
  if (pos > next && after != flow.m_blocks.begin()) {
    oru::FlowBuffer::BlockMap::iterator before = after == flow.m_blocks.end()
                                                     ? flow.m_blocks.last()
                                                     : oru::FlowBuffer::BlockMap::prev(after);
    const uint64_t before_end = before->first + before->second.size;
    if (before_end > pos) {
      if (before_end >= pos + length) {
        return 0;
      }
      data += before_end - pos;
      length -= static_cast<uint32_t>(before_end - pos);
      pos = before_end;
    }
  }
  if (length == 0) {
    return 0;
  }
  if (pos == next && flow.m_blocks.find(pos + length) == flow.m_blocks.end()) {
    // The newest block of the stream: borrowed from the packet, and saved
    // by the inspectors' Sync if they need it later.
    if (flow.AddBlock(pos, data, static_cast<uint16_t>(length), false) == nullptr) {
      return 0;
    }
    flow.m_last_start = pos;
    flow.m_next_pos = pos + length;
    return length;
  }
  // A block that waits, or one that blocks held beyond it will follow: only
  // the newest block is ever saved by Sync, so these own a copy.
  void *copy;
  {
    oru::ScopedMemTag tag(oru::ScopedMemTag::OBJECT, oru::MemTag::OBJ_FLOWBUFFER_DATA);
    copy = kest_malloc_local(length);
  }
  if (copy == nullptr) {
    return 0;
  }
  kest_memcpy(copy, data, length);
  if (flow.AddBlock(pos, copy, static_cast<uint16_t>(length), true) == nullptr) {
    kest_free_local(copy);
    return 0;
  }
  if (pos != next) {
    return 0;
  }
  flow.m_last_start = pos;
  flow.m_next_pos = pos + length;
  Absorb(flow);
  return static_cast<uint32_t>(flow.m_next_pos - from);
}

uint32_t TcpStream::Acknowledged(oru::FlowBuffer &flow, uint64_t acked, uint64_t &from) {
  // The largest receive window TCP can scale to.
  constexpr uint64_t kMaxWindow = 1ull << 30;
  from = flow.m_next_pos;
  if (acked <= flow.m_next_pos || acked - flow.m_next_pos > kMaxWindow) {
    return 0;
  }
  oru::FlowBuffer::BlockMap::iterator waiting = flow.m_blocks.lower_bound(flow.m_next_pos);
  if (waiting == flow.m_blocks.end() || waiting->first > acked) {
    return 0;
  }
  flow.m_next_pos = waiting->first;
  flow.Flush();
  from = flow.m_next_pos;
  Absorb(flow);
  return static_cast<uint32_t>(flow.m_next_pos - from);
}

} // namespace kest_decoders
