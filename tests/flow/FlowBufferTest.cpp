#include "InstanceFixture.h"

#include <kest/FlowBuffer.h>
#include <kest/MemTag.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using kest_test::Heap;
using kest_test::LiveBlocks;
using oru::FlowBuffer;

// The packet that borrowed blocks point into: byte i is i.
struct Packet {
  Packet() {
    for (int i = 0; i < 256; ++i) {
      bytes[i] = static_cast<char>(i);
    }
  }
  char bytes[256];
};
const Packet g_packet;

// One step of a stream scenario: what the writer or the inspector does, then
// what the buffer must look like.
enum class Op {
  Add,    // writer enters [pos, pos + size); flags 0 borrows, else owns a copy
  Writer, // writer moves m_next_pos to `pos` and m_last_start to `last`
  Sync,   // inspector keeps the newest block; `ok` is the expected result
  Flush,  // inspector drops what it consumed
  Reset,
};

struct Step {
  Op op;
  uint64_t pos;
  uint16_t size; // Add only
  uint16_t flags;
  uint64_t last; // Writer only
  bool ok;       // Sync only
  // Expected afterwards.
  uint64_t begin;
  uint32_t length;
  uint64_t end;
  const char *keys; // ascending, comma-separated
  long live;        // blocks the buffer holds: nodes plus owned data
};

struct Scenario {
  const char *name;
  std::vector<Step> steps;
  uint64_t read_pos;
  bool can_save;
};

std::string Keys(const FlowBuffer &flow) {
  std::string out;
  for (auto it = flow.m_blocks.begin(); it != flow.m_blocks.end(); ++it) {
    out += (out.empty() ? "" : ",") + std::to_string(it->first);
  }
  return out;
}

class FlowBufferTest : public kest_test::InstanceFixture {};

// Add: pos size flags; Writer: pos=next, last; expectations: begin length end
// keys live.
const Scenario kScenarios[] = {
    {"a new buffer is empty and cannot sync",
     {{Op::Sync, 0, 0, 0, 0, false, 0, 0, 0, "", 0}},
     0,
     false},
    {"in-order stream, flushed whole",
     {{Op::Add, 100, 10, 0, 0, false, 100, 0, 100, "100", 1},
      {Op::Writer, 110, 0, 0, 100, false, 100, 10, 110, "100", 1},
      {Op::Add, 110, 20, 0, 0, false, 100, 10, 110, "100,110", 2},
      {Op::Writer, 130, 0, 0, 110, false, 100, 30, 130, "100,110", 2},
      {Op::Flush, 0, 0, 0, 0, false, 130, 0, 130, "", 0}},
     130,
     true},
    {"a hole: the readable end stops before it, flush keeps what lies beyond",
     {{Op::Add, 0, 10, 0, 0, false, 0, 0, 0, "0", 1},
      {Op::Writer, 10, 0, 0, 0, false, 0, 10, 10, "0", 1},
      {Op::Add, 20, 10, 1, 0, false, 0, 10, 10, "0,20", 3},
      {Op::Flush, 0, 0, 0, 0, false, 20, 0, 20, "20", 2}},
     10,
     true},
    {"all blocks beyond the contiguous end: flush frees nothing",
     {{Op::Add, 50, 10, 1, 0, false, 50, 0, 50, "50", 2},
      {Op::Add, 70, 10, 1, 0, false, 50, 0, 50, "50,70", 4},
      {Op::Writer, 40, 0, 0, 0, false, 50, 0, 50, "50,70", 4},
      {Op::Flush, 0, 0, 0, 0, false, 50, 0, 50, "50,70", 4}},
     40,
     true},
    {"a block that straddles the contiguous end goes whole",
     {{Op::Add, 0, 30, 1, 0, false, 0, 0, 0, "0", 2},
      {Op::Writer, 10, 0, 0, 0, false, 0, 10, 10, "0", 2},
      {Op::Flush, 0, 0, 0, 0, false, 10, 0, 10, "", 0}},
     10,
     true},
    {"any flag marks owned data, not only the saved bit",
     {{Op::Add, 0, 10, FlowBuffer::BLOCK_SYNCED, 0, false, 0, 0, 0, "0", 2},
      {Op::Add, 10, 10, 0x8000, 0, false, 0, 0, 0, "0,10", 4},
      {Op::Writer, 20, 0, 0, 10, false, 0, 20, 20, "0,10", 4},
      {Op::Flush, 0, 0, 0, 0, false, 20, 0, 20, "", 0}},
     20,
     true},
    {"sync copies the newest block once, then flush frees the copy",
     {{Op::Add, 0, 10, 0, 0, false, 0, 0, 0, "0", 1},
      {Op::Writer, 10, 0, 0, 0, false, 0, 10, 10, "0", 1},
      {Op::Sync, 0, 0, 0, 0, true, 0, 10, 10, "0", 2},
      {Op::Sync, 0, 0, 0, 0, true, 0, 10, 10, "0", 2},
      {Op::Add, 10, 5, 0, 0, false, 0, 10, 10, "0,10", 3},
      {Op::Writer, 15, 0, 0, 10, false, 0, 15, 15, "0,10", 3},
      {Op::Sync, 0, 0, 0, 0, true, 0, 15, 15, "0,10", 4},
      {Op::Flush, 0, 0, 0, 0, false, 15, 0, 15, "", 0}},
     15,
     true},
    {"sync without the newest block fails for good, also after a reset",
     {{Op::Add, 0, 10, 0, 0, false, 0, 0, 0, "0", 1},
      {Op::Writer, 10, 0, 0, 5, false, 0, 0, 0, "0", 1},
      {Op::Sync, 0, 0, 0, 0, false, 0, 0, 0, "0", 1},
      {Op::Reset, 0, 0, 0, 0, false, 0, 0, 0, "", 0},
      {Op::Add, 0, 10, 0, 0, false, 0, 0, 0, "0", 1},
      {Op::Writer, 10, 0, 0, 0, false, 0, 10, 10, "0", 1},
      {Op::Sync, 0, 0, 0, 0, false, 0, 10, 10, "0", 1}},
     0,
     false},
    {"size counts in 32 bits across the 4 GiB line",
     {{Op::Add, 0xFFFFFFF0ull, 0x20, 1, 0, false, 0xFFFFFFF0ull, 0, 0xFFFFFFF0ull, "4294967280", 2},
      {Op::Writer, 0x100000010ull, 0, 0, 0xFFFFFFF0ull, false, 0xFFFFFFF0ull, 0x20, 0x100000010ull,
       "4294967280", 2}},
     0,
     true},
    {"reset drops owned and borrowed blocks and the positions",
     {{Op::Add, 0, 10, 1, 0, false, 0, 0, 0, "0", 2},
      {Op::Add, 10, 10, 0, 0, false, 0, 0, 0, "0,10", 3},
      {Op::Writer, 20, 0, 0, 10, false, 0, 20, 20, "0,10", 3},
      {Op::Reset, 0, 0, 0, 0, false, 0, 0, 0, "", 0}},
     0,
     true},
};

TEST_F(FlowBufferTest, StreamScenarios) {
  for (const Scenario &scenario : kScenarios) {
    SCOPED_TRACE(scenario.name);
    const long before = LiveBlocks(Heap::Local);
    {
      FlowBuffer flow;
      for (size_t i = 0; i < scenario.steps.size(); ++i) {
        const Step &step = scenario.steps[i];
        SCOPED_TRACE("step " + std::to_string(i));
        switch (step.op) {
        case Op::Add: {
          const char *bytes = g_packet.bytes + step.pos % 128;
          const void *data = bytes;
          if (step.flags != 0) {
            void *copy = kest_malloc_local(step.size);
            ASSERT_NE(copy, nullptr);
            std::memcpy(copy, bytes, step.size);
            data = copy;
          }
          FlowBuffer::Block *block = flow.AddBlock(step.pos, data, step.size, step.flags != 0);
          ASSERT_NE(block, nullptr);
          EXPECT_EQ(block->flags, step.flags != 0 ? FlowBuffer::BLOCK_SAVED : 0);
          EXPECT_EQ(block->size, step.size);
          EXPECT_EQ(block->data, data);
          if (step.flags != 0) {
            block->flags = step.flags;
          }
          break;
        }
        case Op::Writer:
          flow.m_next_pos = step.pos;
          flow.m_last_start = step.last;
          break;
        case Op::Sync:
          EXPECT_EQ(flow.Sync(), step.ok);
          break;
        case Op::Flush:
          flow.Flush();
          break;
        case Op::Reset:
          flow.Reset();
          break;
        }
        EXPECT_EQ(flow.Begin(), step.begin);
        EXPECT_EQ(flow.Size(), step.length);
        EXPECT_EQ(flow.End(), step.end);
        EXPECT_EQ(Keys(flow), step.keys);
        EXPECT_EQ(LiveBlocks(Heap::Local) - before, step.live);
      }
      EXPECT_EQ(flow.m_read_pos, scenario.read_pos);
      EXPECT_EQ(flow.m_can_save, scenario.can_save);
    }
    EXPECT_EQ(LiveBlocks(Heap::Local), before) << "the destructor frees every block";
  }
}

TEST_F(FlowBufferTest, SyncMakesAnOwnedCopyOfTheNewestBlockOnly) {
  FlowBuffer flow;
  ASSERT_NE(flow.AddBlock(0, g_packet.bytes, 16, false), nullptr);
  ASSERT_NE(flow.AddBlock(16, g_packet.bytes + 16, 8, false), nullptr);
  flow.m_next_pos = 24;
  flow.m_last_start = 16;
  kest_test::ResetCounts();
  ASSERT_TRUE(flow.Sync());
  EXPECT_EQ(kest_test::AllocationCount(), 1);
  const FlowBuffer::Block &older = flow.m_blocks.find(0ull)->second;
  const FlowBuffer::Block &newest = flow.m_blocks.find(16ull)->second;
  EXPECT_EQ(older.flags, 0) << "only the newest block is copied";
  EXPECT_EQ(older.data, g_packet.bytes);
  EXPECT_EQ(newest.flags, FlowBuffer::BLOCK_SAVED | FlowBuffer::BLOCK_SYNCED);
  EXPECT_NE(newest.data, g_packet.bytes + 16);
  EXPECT_EQ(std::memcmp(newest.data, g_packet.bytes + 16, 8), 0);

  // A block the writer saved is only marked.
  void *owned = kest_malloc_local(4);
  ASSERT_NE(flow.AddBlock(24, owned, 4, true), nullptr);
  flow.m_next_pos = 28;
  flow.m_last_start = 24;
  kest_test::ResetCounts();
  ASSERT_TRUE(flow.Sync());
  EXPECT_EQ(kest_test::AllocationCount(), 0);
  EXPECT_EQ(flow.m_blocks.find(24ull)->second.data, owned);
  EXPECT_EQ(flow.m_blocks.find(24ull)->second.flags,
            FlowBuffer::BLOCK_SAVED | FlowBuffer::BLOCK_SYNCED);
}

TEST_F(FlowBufferTest, FailedSyncLeavesTheBlockAndStaysFailed) {
  const long before = LiveBlocks(Heap::Local);
  {
    FlowBuffer flow;
    ASSERT_NE(flow.AddBlock(0, g_packet.bytes, 10, false), nullptr);
    flow.m_next_pos = 10;
    kest_test::FailNthAllocation(1);
    EXPECT_FALSE(flow.Sync());
    kest_test::FailNthAllocation(0);
    EXPECT_FALSE(flow.m_can_save);
    const FlowBuffer::Block &block = flow.m_blocks.find(0ull)->second;
    EXPECT_EQ(block.flags, 0);
    EXPECT_EQ(block.data, g_packet.bytes);
    EXPECT_EQ(LiveBlocks(Heap::Local) - before, 1);

    kest_test::ResetCounts();
    EXPECT_FALSE(flow.Sync()) << "memory is back, but the buffer gave up saving";
    EXPECT_EQ(kest_test::AllocationCount(), 0);
    flow.Reset();
    EXPECT_FALSE(flow.m_can_save);
  }
  EXPECT_EQ(LiveBlocks(Heap::Local), before);
}

TEST_F(FlowBufferTest, AddBlockRefusesATakenKeyAndAFailedNode) {
  const long before = LiveBlocks(Heap::Local);
  {
    FlowBuffer flow;
    ASSERT_NE(flow.AddBlock(5, g_packet.bytes, 3, false), nullptr);
    EXPECT_EQ(flow.AddBlock(5, g_packet.bytes + 1, 1, false), nullptr);
    EXPECT_EQ(flow.m_blocks.find(5ull)->second.size, 3) << "the first block stays";
    kest_test::FailNthAllocation(1);
    EXPECT_EQ(flow.AddBlock(6, g_packet.bytes, 1, false), nullptr);
    kest_test::FailNthAllocation(0);
    EXPECT_EQ(Keys(flow), "5");
  }
  EXPECT_EQ(LiveBlocks(Heap::Local), before);
}

// Records the tag word that each local allocation is made under.
std::vector<int> g_tags;
void *(*g_next_malloc_local)(size_t) = nullptr;
void *TaggingMallocLocal(size_t size) {
  g_tags.push_back(oru::MemTag::l_mem_tag);
  return g_next_malloc_local(size);
}

TEST_F(FlowBufferTest, NodesAndCopiesAreTaggedAndTheTagIsRestored) {
  g_tags.clear();
  g_next_malloc_local = kest_malloc_local;
  kest_malloc_local = TaggingMallocLocal;
  const int outer = 0x0009ABCD; // some object 9 on behalf of context 0xABCD
  oru::MemTag::l_mem_tag = outer;
  {
    FlowBuffer flow;
    ASSERT_NE(flow.AddBlock(0, g_packet.bytes, 10, false), nullptr);
    EXPECT_EQ(oru::MemTag::l_mem_tag, outer);
    flow.m_next_pos = 10;
    kest_test::FailNthAllocation(1);
    EXPECT_FALSE(flow.Sync());
    kest_test::FailNthAllocation(0);
    EXPECT_EQ(oru::MemTag::l_mem_tag, outer) << "restored after a failed copy";
    flow.m_can_save = true;
    EXPECT_TRUE(flow.Sync());
    EXPECT_EQ(oru::MemTag::l_mem_tag, outer);
  }
  oru::MemTag::l_mem_tag = 0;
  kest_malloc_local = g_next_malloc_local;
  EXPECT_EQ(g_tags, (std::vector<int>{0x0003ABCD, 0x0004ABCD, 0x0004ABCD}));
}

TEST_F(FlowBufferTest, StatisticsFollowTheThreadClock) {
  const kest_handle_t h = Open();
  ASSERT_GT(h, 0);
  ASSERT_EQ(kest_init(h), 0);
  kest_clock_set_mode(h, 1);
  struct Row {
    uint64_t clock;
    unsigned size;
    uint32_t avg_payload, max_payload, avg_gap, max_gap, last_time;
  };
  const Row rows[] = {
      // A last time of 0 means "no payload yet": no gap, even 100 ms later.
      {0, 800, 800, 800, 0, 0, 0},
      {100, 160, 720, 800, 0, 0, 100},
      {200, 160, 650, 800, 100, 100, 200},
      // Same clock: gap 0, and the average falls to seven eighths.
      {200, 160, 588, 800, 87, 100, 200},
      // Only the low 32 bits of the clock count.
      {0x100000258ull, 2000, 764, 800, 126, 126, 600},
      // The clock's low word went back: the gap wraps.
      {0x100000000ull, 0, 668, 800, 35, 126, 0},
      // The last time is 0 again, so the gap counts as 0 and the average decays.
      {0x100000064ull, 8, 585, 800, 30, 126, 100},
  };
  FlowBuffer flow;
  for (const Row &row : rows) {
    SCOPED_TRACE(row.clock);
    kest_clock_set(h, row.clock);
    oru::Runtime::l_instance_id = h;
    flow.UpdateStats(row.size);
    oru::Runtime::l_instance_id = 0;
    EXPECT_EQ(flow.m_avg_payload, row.avg_payload);
    EXPECT_EQ(flow.m_max_payload, row.max_payload);
    EXPECT_EQ(flow.m_avg_gap, row.avg_gap);
    EXPECT_EQ(flow.m_max_gap, row.max_gap);
    EXPECT_EQ(flow.m_last_time, row.last_time);
  }
  EXPECT_EQ(flow.AvgPayloadSize(), 585u);
  EXPECT_EQ(flow.AvgInterPayloadGap(), 30u);

  flow.m_base_pos = 77;
  flow.Reset();
  EXPECT_EQ(flow.m_base_pos, 77u) << "the writer's position survives a reset";
  EXPECT_EQ(flow.m_avg_payload, 585u) << "so do the statistics";
  EXPECT_EQ(flow.m_max_gap, 126u);
  EXPECT_EQ(kest_fini(h), 0);
}

TEST_F(FlowBufferTest, RatesFromTheAverages) {
  struct Row {
    uint32_t avg_payload, avg_gap;
    unsigned pkts, bits;
  };
  const Row rows[] = {
      {100, 0, 0, 0},        {100, 1, 1000, 800000},
      {100, 3, 333, 266400}, {1500, 1000, 1, 12000},
      {1500, 1001, 0, 0},    {600000000, 1, 1000, 2521530368u}, // wraps in 32 bits
  };
  for (const Row &row : rows) {
    FlowBuffer flow;
    flow.m_avg_payload = row.avg_payload;
    flow.m_avg_gap = row.avg_gap;
    EXPECT_EQ(flow.AvgPktsPerSecond(), row.pkts) << row.avg_gap;
    EXPECT_EQ(flow.AvgBitsPerSecond(), row.bits) << row.avg_payload << "/" << row.avg_gap;
  }
}

TEST_F(FlowBufferTest, DumpPrintsOneLinePerBlockInOrder) {
  FlowBuffer flow;
  void *owned = kest_malloc_local(4);
  void *synced = kest_malloc_local(2);
  ASSERT_NE(flow.AddBlock(20, owned, 4, true), nullptr);
  ASSERT_NE(flow.AddBlock(5, g_packet.bytes, 3, false), nullptr);
  FlowBuffer::Block *block = flow.AddBlock(0x123456789ull, synced, 65535, true);
  ASSERT_NE(block, nullptr);
  block->flags = FlowBuffer::BLOCK_SYNCED; // owned, yet not "saved"
  kest_test::TakePrinted();
  flow.Dump();
  char expected[512];
  std::snprintf(expected, sizeof expected,
                "start: 5, size: 3, data: %p, saved: 0\n"
                "start: 20, size: 4, data: %p, saved: 1\n"
                "start: 4886718345, size: 65535, data: %p, saved: 0\n",
                static_cast<const void *>(g_packet.bytes), owned, synced);
  EXPECT_EQ(kest_test::TakePrinted(), expected);
}

TEST_F(FlowBufferTest, DummyByteIsZero) {
  EXPECT_EQ(FlowBuffer::DUMMY_VAL, 0);
}

} // namespace
