// A flow buffer's block bookkeeping (steps in flow_buffer_steps.txt), its
// statistics, and every read checked against a plain copy of what was written.
#include "InstanceFixture.h"
#include "TableFile.h"

#include <kest/FlowBuffer.h>
#include <kest/MemTag.h>
#include <kest/kit/FlowView.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <random>
#include <sstream>

namespace {

using kest_test::Heap;
using kest_test::LiveBlocks;
using oru::FlowBuffer;

char g_packet[256]; // what borrowed blocks point into
const uint64_t k4G = 0x100000000ull;

std::string Keys(const FlowBuffer &flow) {
  std::string out;
  for (auto it = flow.m_blocks.begin(); it != flow.m_blocks.end(); ++it) {
    out += (out.empty() ? "" : ",") + std::to_string(it->first);
    out += it->second.flags != 0 ? "/" + std::to_string(it->second.flags) : "";
  }
  return out.empty() ? "-" : out;
}

class FlowBufferTest : public kest_test::InstanceFixture {};

TEST_F(FlowBufferTest, StreamScenarios) {
  std::optional<FlowBuffer> flow;
  std::string name;
  long before = 0;
  for (const std::string &row : kest_test::TableRows(__FILE__, "flow_buffer_steps.txt")) {
    std::istringstream in(row);
    std::string op;
    in >> op;
    if (op == "case") {
      std::getline(in, name);
      before = LiveBlocks(Heap::Local);
      flow.emplace();
      continue;
    }
    SCOPED_TRACE(name + ": " + row);
    uint64_t a = 0, b = 0, flags = 0, begin = 0, size = 0, end = 0;
    std::string keys;
    long live = 0;
    in >> a >> b;
    if (op == "final") {
      EXPECT_EQ(flow->m_read_pos, a);
      EXPECT_EQ(flow->m_can_save, b != 0);
      flow.reset();
      EXPECT_EQ(LiveBlocks(Heap::Local), before) << "the destructor frees every block";
      continue;
    }
    in >> flags >> begin >> size >> end >> keys >> live;
    if (op == "add") {
      void *data = g_packet + a % 128;
      if (flags != 0) {
        data = std::memcpy(kest_malloc_local(b), data, b);
      }
      FlowBuffer::Block *block = flow->AddBlock(a, data, static_cast<uint16_t>(b), flags != 0);
      ASSERT_NE(block, nullptr);
      EXPECT_EQ(block->flags, flags != 0 ? FlowBuffer::BLOCK_SAVED : 0);
      EXPECT_EQ(block->data, data);
      block->flags = static_cast<uint16_t>(flags);
      EXPECT_EQ(flow->AddBlock(a, g_packet, 1, false), nullptr) << "keys are unique";
    } else if (op == "writer") {
      flow->m_next_pos = a;
      flow->m_last_start = b;
    } else if (op == "sync") {
      EXPECT_EQ(flow->Sync(), b != 0);
    } else {
      op == "flush" ? flow->Flush() : flow->Reset();
    }
    EXPECT_EQ(flow->Begin(), begin);
    EXPECT_EQ(flow->Size(), size);
    EXPECT_EQ(flow->End(), end);
    EXPECT_EQ(Keys(*flow), keys);
    EXPECT_EQ(LiveBlocks(Heap::Local) - before, live);
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
  FlowBuffer flow;
  for (const std::string &row : kest_test::TableRows(__FILE__, "flow_rows.txt", "stats")) {
    SCOPED_TRACE(row);
    std::istringstream in(row);
    uint64_t clock = 0;
    unsigned size = 0;
    uint32_t avg_payload = 0, max_payload = 0, avg_gap = 0, max_gap = 0, last_time = 0;
    in >> clock >> size >> avg_payload >> max_payload >> avg_gap >> max_gap >> last_time;
    kest_clock_set(h, clock);
    oru::Runtime::l_instance_id = h;
    flow.UpdateStats(size);
    oru::Runtime::l_instance_id = 0;
    EXPECT_EQ(flow.AvgPayloadSize(), avg_payload);
    EXPECT_EQ(flow.m_max_payload, max_payload);
    EXPECT_EQ(flow.AvgInterPayloadGap(), avg_gap);
    EXPECT_EQ(flow.m_max_gap, max_gap);
    EXPECT_EQ(flow.m_last_time, last_time);
  }
  flow.m_base_pos = 77;
  flow.Reset();
  EXPECT_EQ(flow.m_base_pos, 77u) << "the writer's position survives a reset";
  EXPECT_EQ(flow.AvgPayloadSize(), 585u) << "and so do the statistics";
  EXPECT_EQ(kest_fini(h), 0);
  for (const std::string &row : kest_test::TableRows(__FILE__, "flow_rows.txt", "rate")) {
    std::istringstream in(row);
    unsigned pkts = 0, bits = 0;
    in >> flow.m_avg_payload >> flow.m_avg_gap >> pkts >> bits;
    EXPECT_EQ(flow.AvgPktsPerSecond(), pkts) << row;
    EXPECT_EQ(flow.AvgBitsPerSecond(), bits) << row;
  }
}

// `bytes` held from position `base` in blocks of the given sizes, and `tail`
// as an out-of-order block `gap` bytes past the end.
struct Stream {
  Stream(std::string b, uint64_t base, const std::vector<size_t> &sizes, std::string t = "",
         uint64_t gap = 0)
      : bytes(std::move(b)), tail(std::move(t)) {
    uint64_t pos = base;
    for (size_t i = 0, done = 0; done < bytes.size(); ++i) {
      const size_t n = std::min(sizes[i % sizes.size()], bytes.size() - done);
      flow.AddBlock(pos, bytes.data() + done, static_cast<uint16_t>(n), false);
      flow.m_last_start = pos;
      pos += n;
      done += n;
    }
    flow.m_next_pos = pos;
    if (!tail.empty()) {
      flow.AddBlock(pos + gap, tail.data(), static_cast<uint16_t>(tail.size()), false);
    }
  }
  std::string bytes, tail; // what the blocks point into
  FlowBuffer flow;
};

// Data minus text at the first difference (from the back with `reverse`),
// unsigned, after folding with `fold`.
int Plain(const std::string &data, const std::string &text, bool fold, bool reverse = false) {
  for (size_t k = 0; k < text.size(); ++k) {
    const size_t i = reverse ? text.size() - 1 - k : k;
    int a = static_cast<unsigned char>(data[i]), b = static_cast<unsigned char>(text[i]);
    a = fold ? std::tolower(a) : a;
    b = fold ? std::tolower(b) : b;
    if (a != b) {
      return a - b;
    }
  }
  return 0;
}

int Sign(int x) {
  return (x > 0) - (x < 0);
}

// Every read at every position from below Begin() to past End() and every
// length up to 30, against the plain bytes, over random block splits from a
// fixed seed. Runs longer than 23 bytes are compared by kest_memcmp, whose
// answer counts by its sign only.
TEST_F(FlowBufferTest, ReadsAgreeWithAPlainCopy) {
  std::mt19937 random(11);
  int wholes = 0;
  for (int round = 0; round < 16; ++round) {
    std::string bytes(1 + random() % 80, '\0');
    for (char &c : bytes) {
      c = "abAB\r\n:x\xff"[random() % 9];
    }
    std::vector<size_t> sizes;
    for (int i = 0; i < 4; ++i) {
      sizes.push_back(1 + random() % (round % 3 == 0 ? 4 : 40));
    }
    const uint64_t base = round % 2 == 0 ? 100 : k4G - 7, end = base + bytes.size();
    const uint64_t gap = 1 + random() % 3;
    const Stream s(bytes, base, sizes, "zzzz", gap), other(bytes, 7, {3, 30});
    const FlowBuffer &f = s.flow;
    ASSERT_EQ(f.Begin(), base);
    ASSERT_EQ(f.End(), end);
    auto data = [&](uint64_t pos, size_t len) { return bytes.substr(pos - base, len); };
    for (uint64_t pos = base - 2; pos <= end + gap + 5; ++pos) {
      const bool in_tail = pos >= end + gap && pos < end + gap + 4;
      EXPECT_EQ(f.At(pos), pos >= base && pos < end ? bytes[pos - base] : in_tail ? 'z' : 0);
      // The kit's in-place view answers as the buffer wherever it takes.
      const oru::kit::FlowTail tail(f, pos);
      wholes += tail.Whole() ? 1 : 0;
      for (unsigned len = 0; len <= 30; ++len) {
        SCOPED_TRACE(::testing::Message()
                     << "round " << round << " at " << pos - base << " len " << len);
        const bool fits = pos >= base && pos + len <= end;
        std::string text = fits ? data(pos, len) : std::string(len, 'a');
        if (len != 0 && random() % 2 == 0) {
          text[random() % len] = "aBz\xff"[random() % 4];
        }
        const int low_end = static_cast<int>(static_cast<uint32_t>(end));
        const int r = f.Compare(pos, text.data(), len);
        const int want = pos < base ? low_end : !fits ? -1 : Plain(data(pos, len), text, false);
        EXPECT_EQ(fits && len > 23 ? Sign(r) : r, fits && len > 23 ? Sign(want) : want);
        EXPECT_EQ(f.CaseCompare(pos, text.data(), len), pos < base ? low_end
                                                        : !fits
                                                            ? -1
                                                            : Plain(data(pos, len), text, true));
        // Against another buffer, at an offset one before, at or after the same bytes.
        const uint64_t other_pos = pos - base + 6 + len % 3;
        const bool both = fits && other_pos >= 7 && other_pos + len <= 7 + bytes.size();
        const int r2 = f.Compare(pos, other.flow, other_pos, len);
        const int want2 =
            both ? Plain(data(pos, len), bytes.substr(other_pos - 7, len), false) : -1;
        EXPECT_EQ(len > 23 ? Sign(r2) : r2, len > 23 ? Sign(want2) : want2);
        // The run that ends at and includes pos.
        const bool behind = pos < end && (len == 0 || (len - 1 <= pos && pos + 1 - len >= base));
        EXPECT_EQ(f.ReverseCompare(pos, text.data(), len),
                  !behind    ? -1
                  : len == 0 ? 0
                             : Plain(data(pos + 1 - len, len), text, false, true));
        // Searches below a limit, which the end of the stream cuts.
        const char byte = len == 0 ? 'z' : text[0];
        for (const uint64_t limit :
             {pos + len - 1, pos + len, base + random() % (end - base + 9)}) {
          const uint64_t stop = std::min(limit, end);
          const std::string below = pos < base || stop < pos ? "" : data(pos, stop - pos);
          const size_t one = below.find(byte);
          EXPECT_EQ(f.Find(pos, byte, limit), one == std::string::npos ? end : pos + one);
          if (len != 0) {
            const size_t run = below.find(text);
            EXPECT_EQ(f.Find(pos, text.data(), len, limit),
                      run == std::string::npos ? end : pos + run);
          }
          if (tail.Whole()) {
            EXPECT_EQ(tail.At(pos), f.At(pos));
            EXPECT_EQ(tail.Compare(pos, text.data(), len) == 0, r == 0);
            EXPECT_EQ(tail.Find(pos, byte, limit), f.Find(pos, byte, limit));
            if (len != 0) {
              EXPECT_EQ(tail.Find(pos, text.data(), len, limit),
                        f.Find(pos, text.data(), len, limit));
            }
          }
        }
      }
    }
  }
  EXPECT_GT(wholes, 100) << "the in-place view was seldom taken";
}

// A hole inside the contiguous range: reads stop there.
TEST_F(FlowBufferTest, ReadsStopAtAHole) {
  Stream holed("abcdef", 0, {3});
  holed.flow.m_blocks.erase(holed.flow.m_blocks.find(uint64_t{3}));
  holed.flow.AddBlock(4, "ef", 2, false);
  holed.flow.m_last_start = 4;
  EXPECT_EQ(holed.flow.Compare(2, "cde", 3), -1);
  EXPECT_EQ(holed.flow.CaseCompare(2, "cde", 3), -'d') << "byte by byte, a hole reads as 0";
  EXPECT_EQ(holed.flow.ReverseCompare(4, "de", 2), -1);
  EXPECT_EQ(holed.flow.Find(0, 'e', 100), holed.flow.End());
  EXPECT_EQ(holed.flow.Find(0, "de", 2, 100), holed.flow.End());
}

#if defined(__x86_64__)
// Whether the upper halves of the YMM registers are in use (XINUSE bit 2),
// where the processor reports it; nullopt where it cannot tell.
std::optional<bool> UpperHalvesDirty() {
  unsigned eax, ebx, ecx, edx;
  __asm__ volatile("cpuid" : "=a"(eax), "=b"(ebx), "=c"(ecx), "=d"(edx) : "a"(1), "c"(0));
  const bool osxsave = (ecx >> 27 & 1) != 0;
  if (!osxsave) {
    return std::nullopt;
  }
  __asm__ volatile("cpuid" : "=a"(eax), "=b"(ebx), "=c"(ecx), "=d"(edx) : "a"(0xd), "c"(1));
  if ((eax >> 2 & 1) == 0) { // no XGETBV with ECX = 1
    return std::nullopt;
  }
  unsigned low, high;
  __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(1));
  return (low >> 2 & 1) != 0;
}

// A search leaves no dirty upper register halves behind, whatever the
// length: the host's legacy SSE code after it (libpcap's copies) would pay
// for them on every instruction.
TEST_F(FlowBufferTest, SearchesLeaveTheUpperRegisterHalvesClean) {
  Stream s(std::string(300, 'a') + "z", 0, {301});
  for (const uint64_t from : {0, 100, 200, 260, 280, 290, 299}) {
    SCOPED_TRACE(from);
    EXPECT_EQ(s.flow.Find(from, 'z', s.flow.End()), 300u);
    const std::optional<bool> dirty = UpperHalvesDirty();
    if (!dirty.has_value()) {
      GTEST_SKIP() << "the processor does not report which register state is in use";
    }
    EXPECT_FALSE(*dirty);
  }
}
#endif

TEST_F(FlowBufferTest, EntropyOfARange) {
  std::string all(256, '\0');
  for (int i = 0; i < 256; ++i) {
    all[i] = static_cast<char>(i);
  }
  Stream s(all, 0, {100});
  EXPECT_EQ(s.flow.Entropy(0, 0), 0);
  EXPECT_EQ(s.flow.Entropy(0, 256), 100);
  EXPECT_EQ(s.flow.Entropy(10, 11), 0);
  // Beyond the data every position counts as a zero byte: 257 zeros and 255
  // other bytes, one each.
  EXPECT_EQ(s.flow.Entropy(0, 512), 62); // 4.98 bits
}

} // namespace
