#include <kest.h>
#include <kest/Clock.h>
#include <kest/FlowBuffer.h>
#include <kest/MemTag.h>

namespace oru {

const char FlowBuffer::DUMMY_VAL = 0;

ThreadLocalKey FlowBuffer::l_reorder_window;

namespace {

SlotRegistration g_reorder_window_reg(FlowBuffer::l_reorder_window);

// One step of the smoothed averages: seven eighths of the old value plus one
// eighth of the sample, or the sample alone while the average is still 0.
uint32_t Smooth(uint32_t average, uint32_t sample) {
  return average != 0 ? (average * 7u + sample) >> 3 : sample;
}

} // namespace

FlowBuffer::FlowBuffer()
    : m_read_pos(0), m_base_pos(0), m_next_pos(0), m_last_start(0), m_can_save(true),
      m_last_time(0), m_avg_payload(0), m_max_payload(0), m_avg_gap(0), m_max_gap(0) {}

FlowBuffer::~FlowBuffer() {
  Reset();
}

uint64_t FlowBuffer::Begin() const {
  BlockMap::const_iterator first = m_blocks.begin();
  return first != m_blocks.end() ? first->first : m_next_pos;
}

uint32_t FlowBuffer::Size() const {
  if (m_blocks.empty() || m_blocks.find(m_last_start) == m_blocks.end()) {
    return 0;
  }
  return static_cast<uint32_t>(m_next_pos) - static_cast<uint32_t>(m_blocks.begin()->first);
}

uint64_t FlowBuffer::End() const {
  return Begin() + Size();
}

bool FlowBuffer::Sync() {
  if (!m_can_save) {
    return false;
  }
  BlockMap::iterator newest = m_blocks.find(m_last_start);
  if (newest == m_blocks.end()) {
    m_can_save = false;
    return false;
  }
  Block &block = newest->second;
  if ((block.flags & BLOCK_SAVED) != 0) {
    block.flags |= BLOCK_SYNCED;
    return true;
  }
  void *copy;
  {
    ScopedMemTag tag(ScopedMemTag::OBJECT, MemTag::OBJ_FLOWBUFFER_DATA);
    copy = kest_malloc_local(block.size);
  }
  if (copy == nullptr) {
    m_can_save = false;
    return false;
  }
  block.flags |= BLOCK_SAVED;
  kest_memcpy(copy, block.data, block.size);
  block.data = static_cast<char *>(copy);
  block.flags |= BLOCK_SYNCED;
  return true;
}

void FlowBuffer::Flush() {
  const uint64_t end = m_next_pos;
  // The first block is the lowest key: once it does not start before the end
  // of the contiguous stream, no block does.
  while (!m_blocks.empty()) {
    BlockMap::iterator first = m_blocks.begin();
    if (first->first >= end) {
      break;
    }
    EraseBlock(first);
  }
  m_read_pos = end;
}

void FlowBuffer::Reset() {
  while (!m_blocks.empty()) {
    EraseBlock(m_blocks.begin());
  }
  m_read_pos = 0;
  m_next_pos = 0;
  m_last_start = 0;
}

void FlowBuffer::EraseBlock(BlockMap::iterator it) {
  // Any flag at all marks owned data, not just BLOCK_SAVED: writers may set
  // their own bits on blocks they copied.
  if (it->second.flags != 0) {
    kest_free_local(it->second.data);
  }
  m_blocks.erase(it);
}

void FlowBuffer::UpdateStats(unsigned int size) {
  const uint32_t time = static_cast<uint32_t>(now());
  m_avg_payload = Smooth(m_avg_payload, size);
  if (m_avg_payload > m_max_payload) {
    m_max_payload = m_avg_payload;
  }
  const uint32_t gap = m_last_time != 0 ? time - m_last_time : 0;
  m_avg_gap = Smooth(m_avg_gap, gap);
  if (m_avg_gap > m_max_gap) {
    m_max_gap = m_avg_gap;
  }
  m_last_time = time;
}

unsigned int FlowBuffer::AvgPktsPerSecond() const {
  const unsigned int gap = AvgInterPayloadGap();
  return gap != 0 ? 1000u / gap : 0;
}

unsigned int FlowBuffer::AvgBitsPerSecond() const {
  return AvgPayloadSize() * AvgPktsPerSecond() * 8u;
}

FlowBuffer::Block *FlowBuffer::AddBlock(uint64_t pos, const void *data, uint16_t size, bool owned) {
  Block block;
  block.flags = owned ? BLOCK_SAVED : 0;
  block.size = size;
  // Borrowed packet bytes are never written through this pointer: only a block
  // with a flag set owns, and so may change or free, its data.
  block.data = static_cast<char *>(const_cast<void *>(data));
  BlockMap::iterator it;
  {
    ScopedMemTag tag(ScopedMemTag::OBJECT, MemTag::OBJ_FLOWBUFFER_BLOCK);
    it = m_blocks.insert(pos, block);
  }
  return it != m_blocks.end() ? &it->second : nullptr;
}

void FlowBuffer::Dump() const {
  for (BlockMap::const_iterator it = m_blocks.begin(); it != m_blocks.end(); ++it) {
    kest_printf("start: %llu, size: %d, data: %p, saved: %d\n",
                static_cast<unsigned long long>(it->first), static_cast<int>(it->second.size),
                static_cast<const void *>(it->second.data),
                static_cast<int>(it->second.flags & BLOCK_SAVED));
  }
}

} // namespace oru
