#include <kest.h>
#include <kest/Clock.h>
#include <kest/Entropy.h>
#include <kest/FlowBuffer.h>
#include <kest/MemTag.h>
#include <kest/Runtime.h>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// Block map nodes freed on this thread, waiting for the next block; all of
// one size. Bounded, so that a burst of held blocks goes back to the heap.
struct SpareNode {
  SpareNode *next;
};
struct SpareNodes {
  SpareNode *first;
  uint32_t count;
  uint32_t size;
};
constexpr uint32_t kMaxSpareNodes = 1024;
KEST_THREAD_WORD __thread SpareNodes t_spare_nodes;

// Whether the calling thread works in an instance with a context: only such
// a thread's kest_fini() empties the list again.
bool InContext() {
  const int instance = Runtime::l_instance_id;
  return instance > 0 && instance < kInstanceRows && t_thread_base[instance] != nullptr;
}

} // namespace

void *TakeBlockNode(size_t size) {
  SpareNodes &spare = t_spare_nodes;
  if (spare.first != nullptr && spare.size == size) {
    SpareNode *node = spare.first;
    spare.first = node->next;
    --spare.count;
    return node;
  }
  return kest_malloc_local(size);
}

void GiveBlockNode(void *node, size_t size) {
  SpareNodes &spare = t_spare_nodes;
  if (size < sizeof(SpareNode) || spare.count >= kMaxSpareNodes || !InContext() ||
      (spare.first != nullptr && spare.size != size)) {
    kest_free_local(node);
    return;
  }
  SpareNode *spare_node = static_cast<SpareNode *>(node);
  spare_node->next = spare.first;
  spare.first = spare_node;
  spare.size = static_cast<uint32_t>(size);
  ++spare.count;
}

void ReleaseBlockNodes() {
  SpareNodes &spare = t_spare_nodes;
  while (spare.first != nullptr) {
    SpareNode *node = spare.first;
    spare.first = node->next;
    kest_free_local(node);
  }
  spare.count = 0;
}

FlowBuffer::FlowBuffer()
    : m_read_pos(0), m_base_pos(0), m_next_pos(0), m_last_start(0), m_can_save(true),
      m_last_time(0), m_avg_payload(0), m_max_payload(0), m_avg_gap(0), m_max_gap(0) {}

FlowBuffer::~FlowBuffer() {
  Reset();
  // A connection that ends leaves no spare nodes behind it: the list serves
  // the streams that go on, and what a thread holds matches its connections.
  ReleaseBlockNodes();
}

namespace {

// End() once the first block, `first`, is known.
uint64_t EndFrom(const FlowBuffer &flow, FlowBuffer::BlockMap::const_iterator first) {
  // Most buffers hold one block, which is then the newest: no search.
  if (first->first != flow.m_last_start &&
      flow.m_blocks.find(flow.m_last_start) == flow.m_blocks.end()) {
    return first->first;
  }
  return first->first +
         (static_cast<uint32_t>(flow.m_next_pos) - static_cast<uint32_t>(first->first));
}

} // namespace

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
  // Begin() + Size() with one walk to the first block: every reader asks.
  BlockMap::const_iterator first = m_blocks.begin();
  return first != m_blocks.end() ? EndFrom(*this, first) : m_next_pos;
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

namespace oru {

namespace {

// Runs longer than this go to the hook; shorter ones are compared in line.
constexpr uint64_t kMemcmpAbove = 23;

int ByteDifference(char a, char b) {
  return static_cast<int>(static_cast<unsigned char>(a)) -
         static_cast<int>(static_cast<unsigned char>(b));
}

int CompareRun(const char *data, const char *text, uint64_t n) {
  if (n > kMemcmpAbove) {
    return kest_memcmp(data, text, n);
  }
  for (uint64_t i = 0; i < n; ++i) {
    if (data[i] != text[i]) {
      return ByteDifference(data[i], text[i]);
    }
  }
  return 0;
}

char FoldCase(char c) {
  const int u = static_cast<unsigned char>(c);
  return kest_isupper(u) != 0 ? static_cast<char>(kest_tolower(u)) : c;
}

// The first `byte` in [p, p + n), or null: 64 bytes a step where the
// machine has SSE2, which every x86-64 has.
const char *ScanByteSse2(const char *p, uint64_t n, char byte) {
  uint64_t i = 0;
#if defined(__SSE2__)
  const __m128i wanted = _mm_set1_epi8(byte);
  auto match = [&](uint64_t at) {
    return _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p + at)), wanted);
  };
  for (; i + 64 <= n; i += 64) {
    const __m128i a = match(i), b = match(i + 16), c = match(i + 32), d = match(i + 48);
    if (_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, d))) != 0) {
      break;
    }
  }
  for (; i + 16 <= n; i += 16) {
    const int mask = _mm_movemask_epi8(match(i));
    if (mask != 0) {
      return p + i + __builtin_ctz(static_cast<unsigned>(mask));
    }
  }
#endif
  for (; i < n; ++i) {
    if (p[i] == byte) {
      return p + i;
    }
  }
  return nullptr;
}

#if defined(__x86_64__)
// The same, 128 bytes a step, for machines with AVX2. The tail goes to the
// SSE2 scan only after vzeroupper: legacy SSE code run with the upper
// halves of the YMM registers dirty pays for it on every instruction, in
// this scan and in whatever the caller runs next (the host's packet
// copies included), until something clears them.
__attribute__((target("avx2"))) const char *ScanByteAvx2(const char *p, uint64_t n, char byte) {
  if (n < 32) {
    return ScanByteSse2(p, n, byte);
  }
  uint64_t i = 0;
  const __m256i wanted = _mm256_set1_epi8(byte);
  auto match = [&](uint64_t at) __attribute__((target("avx2"))) {
    return _mm256_cmpeq_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(p + at)), wanted);
  };
  for (; i + 128 <= n; i += 128) {
    const __m256i a = match(i), b = match(i + 32), c = match(i + 64), d = match(i + 96);
    if (_mm256_movemask_epi8(_mm256_or_si256(_mm256_or_si256(a, b), _mm256_or_si256(c, d))) != 0) {
      break;
    }
  }
  for (; i + 32 <= n; i += 32) {
    const int mask = _mm256_movemask_epi8(match(i));
    if (mask != 0) {
      return p + i + __builtin_ctz(static_cast<unsigned>(mask));
    }
  }
  _mm256_zeroupper();
  return ScanByteSse2(p + i, n - i, byte);
}
#endif

using ScanFunction = const char *(*)(const char *, uint64_t, char);

// The widest scan the processor runs, chosen once.
ScanFunction ChooseScan() {
#if defined(__x86_64__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2")) {
    return ScanByteAvx2;
  }
#endif
  return ScanByteSse2;
}

const ScanFunction g_scan = ChooseScan();

const char *ScanByte(const char *p, uint64_t n, char byte) {
  return g_scan(p, n, byte);
}

} // namespace

const FlowBuffer::Block *FlowBuffer::GetBlock(unsigned long long pos,
                                              unsigned long long &start) const {
  const BlockMap::const_iterator it = m_blocks.at_or_before(pos);
  if (it != m_blocks.end() && pos < it->first + it->second.size) {
    start = it->first;
    return &it->second;
  }
  return nullptr;
}

int FlowBuffer::Compare(unsigned long long pos, const char *text, unsigned int len) const {
  if (Begin() > pos) {
    return static_cast<int>(static_cast<uint32_t>(End()));
  }
  if (pos + len > End()) {
    return -1;
  }
  const unsigned long long stop = pos + len;
  if (pos >= stop) {
    return 0;
  }
  while (true) {
    unsigned long long start;
    const Block *block = GetBlock(pos, start);
    if (block == nullptr) {
      return -1;
    }
    const uint64_t in_block = start + block->size - pos;
    const uint64_t n = stop - pos < in_block ? stop - pos : in_block;
    const int r = CompareRun(block->data + (pos - start), text, n);
    if (r != 0) {
      return r;
    }
    pos += n;
    text += n;
    if (pos == stop) {
      return 0;
    }
  }
}

int FlowBuffer::Compare(unsigned long long pos, const FlowBuffer &other,
                        unsigned long long other_pos, unsigned int len) const {
  if (Begin() > pos || pos + len > End() || other.Begin() > other_pos ||
      other_pos + len > other.End()) {
    return -1;
  }
  uint64_t left = len;
  while (left != 0) {
    unsigned long long start, other_start;
    const Block *mine = GetBlock(pos, start);
    const Block *theirs = other.GetBlock(other_pos, other_start);
    if (mine == nullptr || theirs == nullptr) {
      return -1;
    }
    uint64_t n = left;
    n = start + mine->size - pos < n ? start + mine->size - pos : n;
    n = other_start + theirs->size - other_pos < n ? other_start + theirs->size - other_pos : n;
    const int r =
        CompareRun(mine->data + (pos - start), theirs->data + (other_pos - other_start), n);
    if (r != 0) {
      return r;
    }
    pos += n;
    other_pos += n;
    left -= n;
  }
  return 0;
}

int FlowBuffer::CaseCompare(unsigned long long pos, const char *text, unsigned int len) const {
  if (Begin() > pos) {
    return static_cast<int>(static_cast<uint32_t>(End()));
  }
  if (pos + len > End()) {
    return -1;
  }
  // Byte by byte as At() reads them, but with one block look-up per run of
  // bytes that the same block answers: a run ends at its block's end or at
  // the next block's key, whichever comes first.
  unsigned int i = 0;
  while (i < len) {
    unsigned long long start;
    const Block *block = GetBlock(pos + i, start);
    unsigned int run = 1;
    if (block != nullptr) {
      uint64_t stop = start + block->size;
      BlockMap::const_iterator next = m_blocks.lower_bound(start + 1);
      if (next != m_blocks.end() && next->first < stop) {
        stop = next->first;
      }
      const uint64_t left = stop - (pos + i);
      run = left < len - i ? static_cast<unsigned int>(left) : len - i;
    }
    for (unsigned int k = 0; k < run; ++k, ++i) {
      const char raw = block != nullptr ? block->data[pos + i - start] : DUMMY_VAL;
      // Equal bytes fold alike: only a difference needs the case hooks.
      if (raw == text[i]) {
        continue;
      }
      const char a = FoldCase(raw);
      const char b = FoldCase(text[i]);
      if (a != b) {
        return ByteDifference(a, b);
      }
    }
  }
  return 0;
}

int FlowBuffer::ReverseCompare(unsigned long long pos, const char *text, unsigned int len) const {
  if (End() <= pos) {
    return -1;
  }
  // The run starts at pos - (len - 1); a run longer than the stream before
  // it would wrap below 0, and is as short of data as one below Begin().
  if (len != 0 && (len - 1u > pos || pos - (len - 1u) < Begin())) {
    return -1;
  }
  uint64_t left = len;
  while (left != 0) {
    unsigned long long start;
    const Block *block = GetBlock(pos, start);
    if (block == nullptr) {
      return -1;
    }
    const uint64_t off = pos - start;
    const uint64_t n = off + 1 < left ? off + 1 : left;
    for (uint64_t i = 0; i < n; ++i) {
      const char a = block->data[off - i];
      const char b = text[left - 1 - i];
      if (a != b) {
        return ByteDifference(a, b);
      }
    }
    if (left == n) {
      return 0;
    }
    left -= n;
    pos -= n;
  }
  return 0;
}

unsigned long long FlowBuffer::Find(unsigned long long pos, char byte,
                                    unsigned long long limit) const {
  // Begin() and End() from one walk to the first block: the line readers ask
  // many times a message, most often from the first block on.
  const BlockMap::const_iterator first = m_blocks.begin();
  if (first == m_blocks.end()) {
    return m_next_pos;
  }
  const unsigned long long begin = first->first;
  const unsigned long long end = EndFrom(*this, first);
  if (begin > pos) {
    return end;
  }
  if (end < limit) {
    limit = end;
  }
  // The block after the one scanned last, once known.
  BlockMap::const_iterator next = first;
  ++next;
  // The first block answers for `pos` as a look-up would when no later block
  // starts at or before `pos`.
  bool in_first = pos - begin < first->second.size && (next == m_blocks.end() || next->first > pos);
  bool have_next = in_first;
  while (pos < limit) {
    // The block that follows the one just scanned answers for `pos` when
    // its key is `pos`, as a look-up would; otherwise look it up.
    unsigned long long start;
    const Block *block;
    if (in_first) {
      start = begin;
      block = &first->second;
      in_first = false;
    } else if (have_next && next != m_blocks.end() && next->first == pos) {
      start = pos;
      block = &next->second;
      ++next;
    } else {
      block = GetBlock(pos, start);
      if (block == nullptr) {
        return end;
      }
      have_next = false;
    }
    const unsigned long long block_end = start + block->size;
    const unsigned long long stop = block_end < limit ? block_end : limit;
    const char *hit = ScanByte(block->data + (pos - start), stop - pos, byte);
    if (hit != nullptr) {
      return start + static_cast<unsigned long long>(hit - block->data);
    }
    pos = stop;
    // Most searches end in their first block; the next one is found only
    // when the search goes on.
    if (pos < limit && !have_next) {
      next = m_blocks.find(start);
      ++next;
      have_next = true;
    }
  }
  return end;
}

unsigned long long FlowBuffer::Find(unsigned long long pos, const char *text, unsigned int len,
                                    unsigned long long limit) const {
  const unsigned long long end = End();
  if (Begin() > pos) {
    return end;
  }
  if (end < limit) {
    limit = end;
  }
  while (true) {
    if (pos + len > limit) {
      return end;
    }
    const unsigned long long found = Find(pos, text[0], limit);
    if (found == end || found + len > limit) {
      return end;
    }
    if (Compare(found, text, len) == 0) {
      return found;
    }
    pos = found + 1;
  }
}

unsigned char FlowBuffer::Entropy(unsigned long long start, unsigned long long end) const {
  oru::Entropy histogram;
  for (unsigned long long pos = start; pos != end; ++pos) {
    ++histogram.counts[static_cast<unsigned char>(At(pos))];
    ++histogram.total;
  }
  return histogram.Randomness();
}

} // namespace oru
