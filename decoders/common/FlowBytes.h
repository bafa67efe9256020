// Reads a flow's bytes one position at a time, looking a block up only when
// the position leaves the block read last: a byte-wise scan costs one tree
// search per block instead of one per byte. Reads give what
// oru::FlowBuffer::At gives, DUMMY_VAL where no block covers the position.
#ifndef KEST_DECODERS_FLOWBYTES_H
#define KEST_DECODERS_FLOWBYTES_H

#include <kest/FlowBuffer.h>
#include <stdint.h>

namespace kest_decoders {

class FlowBytes {
public:
  explicit FlowBytes(const oru::FlowBuffer &flow) : m_flow(&flow) {}

  char At(uint64_t pos) {
    // Below m_start the difference wraps and is above any block's size.
    if (pos - m_start >= m_size) {
      unsigned long long start = 0;
      const oru::FlowBuffer::Block *block = m_flow->GetBlock(pos, start);
      if (block == nullptr || block->data == nullptr) {
        return oru::FlowBuffer::DUMMY_VAL;
      }
      m_data = block->data;
      m_start = start;
      m_size = block->size;
    }
    return m_data[pos - m_start];
  }

  const oru::FlowBuffer &Flow() const { return *m_flow; }

private:
  const oru::FlowBuffer *m_flow;
  const char *m_data = nullptr;
  uint64_t m_start = 0;
  uint64_t m_size = 0;
};

} // namespace kest_decoders

#endif
