#include "InstanceFixture.h"

#include <kest/FlowBuffer.h>
#include <kest/MemTag.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using kest_test::Heap;
using kest_test::LiveBlocks;
using oru::FlowBuffer;

char g_packet[256]; // what borrowed blocks point into

// Add: a = position, b = size, flags 0 borrows from the packet, else owns a
// copy and then carries exactly these flags. Writer: a = m_next_pos, b =
// m_last_start. Sync: b = the expected result.
enum class Op { Add, Writer, Sync, Flush, Reset };
struct Step {
  Op op;
  uint64_t a, b;
  uint16_t flags;
  // Afterwards: Begin, Size, End, the keys, and blocks held (nodes and data).
  uint64_t begin;
  uint32_t size;
  uint64_t end;
  const char *keys;
  long live;
};
struct Scenario {
  const char *name;
  uint64_t read_pos; // at the end
  bool can_save;
  std::vector<Step> steps;
};

const uint64_t k4G = 0x100000000ull;
// clang-format off
const Scenario kScenarios[] = {
    {"new buffer", 0, false, {{Op::Sync, 0, 0, 0, 0, 0, 0, "", 0}}},
    {"straddling block goes whole, what lies beyond the hole stays", 10, true, {
     {Op::Add, 0, 30, 1,            0, 0, 0, "0", 2},
     {Op::Writer, 10, 0, 0,         0, 10, 10, "0", 2},
     {Op::Add, 40, 10, 0,           0, 10, 10, "0,40", 3},
     {Op::Flush, 0, 0, 0,           40, 0, 40, "40", 1}}},
    {"none before the contiguous end: flush frees nothing", 50, true, {
     {Op::Add, 50, 10, 1,           50, 0, 50, "50", 2},
     {Op::Add, 70, 10, 1,           50, 0, 50, "50,70", 4},
     {Op::Writer, 50, 0, 0,         50, 0, 50, "50,70", 4},
     {Op::Flush, 0, 0, 0,           50, 0, 50, "50,70", 4}}},
    {"any flag means owned data", 0, true, {
     {Op::Add, 0, 10, FlowBuffer::BLOCK_SYNCED, 0, 0, 0, "0", 2},
     {Op::Add, 10, 10, 0x8000,      0, 0, 0, "0,10", 4},
     {Op::Reset, 0, 0, 0,           0, 0, 0, "", 0}}},
    {"sync copies the newest block, once; flush drops the copies", 0, true, {
     {Op::Add, 0, 10, 0,            0, 0, 0, "0", 1},
     {Op::Writer, 10, 0, 0,         0, 10, 10, "0", 1},
     {Op::Sync, 0, 1, 0,            0, 10, 10, "0", 2},
     {Op::Sync, 0, 1, 0,            0, 10, 10, "0", 2},
     {Op::Add, 10, 5, 0,            0, 10, 10, "0,10", 3},
     {Op::Writer, 15, 10, 0,        0, 15, 15, "0,10", 3},
     {Op::Sync, 0, 1, 0,            0, 15, 15, "0,10", 4},
     {Op::Flush, 0, 0, 0,           15, 0, 15, "", 0},
     {Op::Reset, 0, 0, 0,           0, 0, 0, "", 0}}},
    {"sync without the newest block fails for good, also after reset", 0, false, {
     {Op::Add, 0, 10, 0,            0, 0, 0, "0", 1},
     {Op::Writer, 10, 5, 0,         0, 0, 0, "0", 1},
     {Op::Sync, 0, 0, 0,            0, 0, 0, "0", 1},
     {Op::Reset, 0, 0, 0,           0, 0, 0, "", 0},
     {Op::Add, 0, 10, 0,            0, 0, 0, "0", 1},
     {Op::Writer, 10, 0, 0,         0, 10, 10, "0", 1},
     {Op::Sync, 0, 0, 0,            0, 10, 10, "0", 1}}},
    {"size in 32 bits across 4 GiB", 0, true, {
     {Op::Add, k4G - 16, 32, 1,     k4G - 16, 0, k4G - 16, "4294967280", 2},
     {Op::Writer, k4G + 16, k4G - 16, 0, k4G - 16, 32, k4G + 16, "4294967280", 2}}},
};
// clang-format on

std::string Keys(const FlowBuffer &flow) {
  std::string out;
  for (auto it = flow.m_blocks.begin(); it != flow.m_blocks.end(); ++it) {
    out += (out.empty() ? "" : ",") + std::to_string(it->first);
  }
  return out;
}

class FlowBufferTest : public kest_test::InstanceFixture {};

TEST_F(FlowBufferTest, StreamScenarios) {
  for (const Scenario &scenario : kScenarios) {
    SCOPED_TRACE(scenario.name);
    const long before = LiveBlocks(Heap::Local);
    {
      FlowBuffer flow;
      for (const Step &step : scenario.steps) {
        SCOPED_TRACE(&step - scenario.steps.data());
        if (step.op == Op::Add) {
          void *data = g_packet + step.a % 128;
          if (step.flags != 0) {
            data = std::memcpy(kest_malloc_local(step.b), data, step.b);
          }
          FlowBuffer::Block *block = flow.AddBlock(step.a, data, step.b, step.flags != 0);
          ASSERT_NE(block, nullptr);
          EXPECT_EQ(block->flags, step.flags != 0 ? FlowBuffer::BLOCK_SAVED : 0);
          EXPECT_EQ(block->data, data);
          block->flags = step.flags;
          EXPECT_EQ(flow.AddBlock(step.a, g_packet, 1, false), nullptr) << "keys are unique";
        } else if (step.op == Op::Writer) {
          flow.m_next_pos = step.a;
          flow.m_last_start = step.b;
        } else if (step.op == Op::Sync) {
          EXPECT_EQ(flow.Sync(), step.b != 0);
        } else {
          step.op == Op::Flush ? flow.Flush() : flow.Reset();
        }
        EXPECT_EQ(flow.Begin(), step.begin);
        EXPECT_EQ(flow.Size(), step.size);
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

// Records the tag word of each local allocation.
std::vector<int> g_tags;
void *(*g_next_malloc_local)(size_t) = nullptr;
void *TaggingMallocLocal(size_t size) {
  g_tags.push_back(oru::MemTag::l_mem_tag);
  return g_next_malloc_local(size);
}

TEST_F(FlowBufferTest, FailedSyncKeepsTheBlockAndTheTagsAreRestored) {
  g_tags.clear();
  g_next_malloc_local = kest_malloc_local;
  kest_malloc_local = TaggingMallocLocal;
  const int outer = 0x0009ABCD; // object 9 for context 0xABCD
  oru::MemTag::l_mem_tag = outer;
  FlowBuffer flow;
  ASSERT_NE(flow.AddBlock(0, g_packet, 10, false), nullptr);
  flow.m_next_pos = 10;
  kest_test::FailNthAllocation(1);
  EXPECT_FALSE(flow.Sync());
  kest_test::FailNthAllocation(0);
  EXPECT_EQ(oru::MemTag::l_mem_tag, outer);
  EXPECT_FALSE(flow.m_can_save);
  EXPECT_EQ(flow.m_blocks.begin()->second.flags, 0);
  EXPECT_EQ(flow.m_blocks.begin()->second.data, g_packet);
  EXPECT_FALSE(flow.Sync()) << "memory is back, but the buffer gave up";
  flow.m_can_save = true;
  EXPECT_TRUE(flow.Sync());
  EXPECT_EQ(oru::MemTag::l_mem_tag, outer);
  EXPECT_EQ(g_tags, (std::vector<int>{0x0003ABCD, 0x0004ABCD, 0x0004ABCD}));
  oru::MemTag::l_mem_tag = 0;
}

TEST_F(FlowBufferTest, StatisticsFollowTheThreadClock) {
  const kest_handle_t h = Open();
  ASSERT_EQ(kest_init(h), 0);
  kest_clock_set_mode(h, 1);
  struct Row {
    uint64_t clock;
    unsigned size;
    uint32_t avg_payload, max_payload, avg_gap, max_gap, last_time;
  };
  const Row rows[] = {
      {0, 800, 800, 800, 0, 0, 0},     // a last time of 0 means no payload yet,
      {100, 160, 720, 800, 0, 0, 100}, // so no gap here
      {200, 160, 650, 800, 100, 100, 200},
      {200, 160, 588, 800, 87, 100, 200},         // same clock: the gap average decays
      {k4G + 600, 2000, 764, 800, 126, 126, 600}, // low 32 bits only
      {k4G, 0, 668, 800, 35, 126, 0},             // clock went back: the gap wraps
      {k4G + 100, 8, 585, 800, 30, 126, 100},     // last time 0 again: gap 0
  };
  FlowBuffer flow;
  for (const Row &row : rows) {
    SCOPED_TRACE(row.clock);
    kest_clock_set(h, row.clock);
    oru::Runtime::l_instance_id = h;
    flow.UpdateStats(row.size);
    oru::Runtime::l_instance_id = 0;
    EXPECT_EQ(flow.AvgPayloadSize(), row.avg_payload);
    EXPECT_EQ(flow.m_max_payload, row.max_payload);
    EXPECT_EQ(flow.AvgInterPayloadGap(), row.avg_gap);
    EXPECT_EQ(flow.m_max_gap, row.max_gap);
    EXPECT_EQ(flow.m_last_time, row.last_time);
  }
  flow.m_base_pos = 77;
  flow.Reset();
  EXPECT_EQ(flow.m_base_pos, 77u) << "the writer's position survives a reset";
  EXPECT_EQ(flow.AvgPayloadSize(), 585u) << "and so do the statistics";
  EXPECT_EQ(kest_fini(h), 0);
}

TEST_F(FlowBufferTest, RatesFromTheAverages) {
  struct Row {
    uint32_t payload, gap;
    unsigned pkts, bits;
  } rows[] = {{100, 0, 0, 0},
              {100, 3, 333, 266400},
              {1500, 1000, 1, 12000},
              {1500, 1001, 0, 0},
              {600000000, 1, 1000, 2521530368u}}; // the last wraps
  for (const Row &row : rows) {
    FlowBuffer flow;
    flow.m_avg_payload = row.payload;
    flow.m_avg_gap = row.gap;
    EXPECT_EQ(flow.AvgPktsPerSecond(), row.pkts) << row.gap;
    EXPECT_EQ(flow.AvgBitsPerSecond(), row.bits) << row.payload << "/" << row.gap;
  }
}

} // namespace
