// One direction of a connection's byte stream, held as blocks keyed by the
// stream position of their first byte.
//
// The stream-carrying plug-in is the writer: it enters blocks, keeps them
// unique by key, and moves m_next_pos (one past the contiguous data) and
// m_last_start (the key of the block that ends the contiguous data). How it
// treats retransmissions, overlaps and holes is its own policy. Inspectors then
// ask where the stream begins and ends, keep the newest block alive beyond the
// packet (Sync), drop what they consumed (Flush) and read.
//
// Layout fixed: plug-ins read and write the fields directly.
#ifndef KEST_FLOWBUFFER_H
#define KEST_FLOWBUFFER_H

#include <kest/Export.h>
#include <kest/Runtime.h>
#include <kest/fdt/map.h>
#include <stddef.h>
#include <stdint.h>

namespace oru {

// The nodes of the block maps come from the host's local heap, but a node
// freed on a thread with a context waits on a short list of that thread for
// the next block: a stream takes a block and drops it again on nearly every
// packet, and should not go to the heap each time. A flow buffer's end (its
// connection's) and kest_fini() hand the waiting nodes back to the heap. Any node may be freed
// either way: all are blocks of kest_malloc_local.
KEST_API void *TakeBlockNode(size_t size);
KEST_API void GiveBlockNode(void *node, size_t size);
// Frees the nodes waiting on the calling thread's list.
KEST_API void ReleaseBlockNodes();

template <class T> struct KEST_API block_node_alloc {
  using value_type = T;
  static constexpr bool is_shared = false;

  template <class U> struct rebind { using other = block_node_alloc<U>; };

  static T *allocate(size_t n) {
    return n == 1 ? static_cast<T *>(TakeBlockNode(sizeof(T))) : nullptr;
  }
  static void deallocate(T *p, size_t /*n*/) {
    if (p != nullptr) {
      GiveBlockNode(p, sizeof(T));
    }
  }
};

class KEST_API FlowBuffer {
public:
  // Bits of Block::flags.
  enum : uint16_t {
    // data is memory owned by the block, from kest_malloc_local.
    BLOCK_SAVED = 1,
    // Sync has visited the block.
    BLOCK_SYNCED = 2,
  };

  // Layout fixed: flags, size, data. A block with flags clear points into the
  // packet being processed and is only valid while that packet is. A block
  // with any flag set owns data: it is freed with the block.
  struct Block {
    uint16_t flags;
    uint16_t size;
    char *data;
  };

  using BlockMap =
      fdt::map<uint64_t, Block, fdt::less<uint64_t>, block_node_alloc<fdt::pair<uint64_t, Block>>>;

  // The byte that reads give for a position no block covers.
  static const char DUMMY_VAL;

  // This thread's "flow.reorder_window", a 32-bit value in the low word of
  // the cell, kept current by the configuration. The library never reads it:
  // it is for writers to bound how far ahead of m_next_pos they hold blocks.
  static ThreadLocalKey l_reorder_window;

  FlowBuffer();
  ~FlowBuffer();
  // Blocks may own their data: a copy would free it twice.
  FlowBuffer(const FlowBuffer &) = delete;
  FlowBuffer &operator=(const FlowBuffer &) = delete;

  // The key of the first block; m_next_pos when there is none.
  uint64_t Begin() const;
  // Bytes from Begin() to m_next_pos (low 32 bits of each), or 0 when the
  // block under m_last_start is gone: nothing past a hole is readable.
  uint32_t Size() const;
  // Begin() + Size().
  uint64_t End() const;

  // Makes the newest block (the one under m_last_start) outlive the packet by
  // copying its bytes if it does not own them yet. False if there is no such
  // block or the copy cannot be allocated; after that every Sync fails at
  // once, until the buffer is made anew (Reset keeps it).
  bool Sync();
  // Drops every block that starts before m_next_pos, whole, and moves
  // m_read_pos there. Blocks beyond a hole stay.
  void Flush();
  // Drops all blocks and the positions; m_base_pos, m_can_save and the
  // statistics stay.
  void Reset();

  // The writer calls this once per payload with its size in bytes.
  void UpdateStats(unsigned int size);
  unsigned int AvgPayloadSize() const { return m_avg_payload; }
  // In units of oru::now(), milliseconds.
  unsigned int AvgInterPayloadGap() const { return m_avg_gap; }
  unsigned int AvgPktsPerSecond() const;
  // Wraps in 32 bits.
  unsigned int AvgBitsPerSecond() const;

  // For writers: enters a block at `pos` with its map node tagged as
  // "flowbuffer.block". With `owned`, `data` must come from kest_malloc_local
  // and passes to the buffer (BLOCK_SAVED); otherwise it is borrowed from the
  // packet. Positions are not touched: the writer sets m_next_pos and
  // m_last_start by its own policy. Null, with `data` still the caller's, when
  // the key is taken or memory runs out.
  Block *AddBlock(uint64_t pos, const void *data, uint16_t size, bool owned);

  // Prints one line per block through kest_printf. A debugging aid.
  void Dump() const;

  // Reads. Positions are absolute stream positions. None changes the buffer,
  // allocates or reports an error; a byte no block covers reads as
  // DUMMY_VAL, and nothing past a hole counts as data (End()).

  // The block that covers `pos`, with its key in `start`; null in a hole,
  // before the first block or past the last. Only the nearest block at or
  // before `pos` is looked at.
  const Block *GetBlock(unsigned long long pos, unsigned long long &start) const;
  // The byte at `pos`, or DUMMY_VAL (0) where no block covers it.
  char At(unsigned long long pos) const {
    unsigned long long start;
    const Block *block = GetBlock(pos, start);
    return block != nullptr ? block->data[pos - start] : DUMMY_VAL;
  }

  // The `len` bytes at `pos` against `text`: 0 when equal (also for `len`
  // 0), -1 when the data ends before `pos` + `len` or a hole is met, else the
  // first difference as data byte minus text byte (both unsigned), or
  // kest_memcmp's answer for runs above 23 bytes. A `pos` already flushed
  // (below Begin()) answers the low 32 bits of End(): unequal, though not -1.
  // Test the result for zero only: -1 is also a byte difference.
  int Compare(unsigned long long pos, const char *text, unsigned int len) const;
  // The same against `len` bytes of another buffer at `other_pos`; here a
  // position below either Begin() answers -1.
  int Compare(unsigned long long pos, const FlowBuffer &other, unsigned long long other_pos,
              unsigned int len) const;
  // As Compare, with both sides folded to lower case (kest_isupper,
  // kest_tolower), reading byte by byte.
  int CaseCompare(unsigned long long pos, const char *text, unsigned int len) const;
  // The `len` bytes that end at and include `pos` against `text`, compared
  // from the back: -1 when `pos` is not below End() or the run would start
  // below Begin(), 0 when equal or `len` is 0, else data byte minus text
  // byte at the last difference.
  int ReverseCompare(unsigned long long pos, const char *text, unsigned int len) const;
  // The first position at or after `pos` and below `limit` (cut to End())
  // that holds `byte`; End() when there is none, when `pos` is below Begin()
  // or a hole comes first. Never `limit`.
  unsigned long long Find(unsigned long long pos, char byte, unsigned long long limit) const;
  // The first position of `text` (`len` bytes, at least 1) lying wholly
  // between `pos` and `limit` (cut to End()); End() when there is none.
  unsigned long long Find(unsigned long long pos, const char *text, unsigned int len,
                          unsigned long long limit) const;
  // The randomness percentage (oru::Entropy) of the bytes from `start` up to
  // `end` (exclusive, positions compared for equality, wrapping), with
  // uncovered positions counted as zero bytes; 0 for an empty range.
  unsigned char Entropy(unsigned long long start, unsigned long long end) const;

  BlockMap m_blocks;
  uint64_t m_read_pos;
  // The writer's own; nothing here reads or writes it.
  uint64_t m_base_pos;
  uint64_t m_next_pos;
  uint64_t m_last_start;
  bool m_can_save;
  // Low 32 bits of oru::now() at the last UpdateStats.
  uint32_t m_last_time;
  uint32_t m_avg_payload;
  uint32_t m_max_payload;
  uint32_t m_avg_gap;
  uint32_t m_max_gap;

private:
  void EraseBlock(BlockMap::iterator it);
};

static_assert(sizeof(FlowBuffer::BlockMap) == sizeof(void *), "the block map is one pointer");
static_assert(offsetof(FlowBuffer::Block, flags) == 0, "Block layout is shared with plug-ins");
static_assert(offsetof(FlowBuffer::Block, size) == 2, "Block layout is shared with plug-ins");
static_assert(offsetof(FlowBuffer::Block, data) == 8, "Block layout is shared with plug-ins");
static_assert(sizeof(FlowBuffer::Block) == 16, "Block layout is shared with plug-ins");
static_assert(offsetof(FlowBuffer, m_blocks) == 0, "FlowBuffer layout is shared with plug-ins");
static_assert(offsetof(FlowBuffer, m_read_pos) == 8, "FlowBuffer layout is shared with plug-ins");
static_assert(offsetof(FlowBuffer, m_base_pos) == 16, "FlowBuffer layout is shared with plug-ins");
static_assert(offsetof(FlowBuffer, m_next_pos) == 24, "FlowBuffer layout is shared with plug-ins");
static_assert(offsetof(FlowBuffer, m_last_start) == 32,
              "FlowBuffer layout is shared with plug-ins");
static_assert(offsetof(FlowBuffer, m_can_save) == 40, "FlowBuffer layout is shared with plug-ins");
static_assert(offsetof(FlowBuffer, m_last_time) == 44, "FlowBuffer layout is shared with plug-ins");
static_assert(offsetof(FlowBuffer, m_avg_payload) == 48,
              "FlowBuffer layout is shared with plug-ins");
static_assert(offsetof(FlowBuffer, m_max_payload) == 52,
              "FlowBuffer layout is shared with plug-ins");
static_assert(offsetof(FlowBuffer, m_avg_gap) == 56, "FlowBuffer layout is shared with plug-ins");
static_assert(offsetof(FlowBuffer, m_max_gap) == 60, "FlowBuffer layout is shared with plug-ins");
static_assert(sizeof(FlowBuffer) == 64, "FlowBuffer layout is shared with plug-ins");

} // namespace oru

#endif
