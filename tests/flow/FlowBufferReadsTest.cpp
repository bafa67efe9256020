// Reads of a flow buffer against a contiguous copy of the same bytes, over
// random block splits, and the quirky edges one by one.
#include "LeakCheck.h"

#include <kest/FlowBuffer.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

using oru::FlowBuffer;

// A stream of `bytes` held from position `base` in blocks of the given sizes,
// with `tail` held as an out-of-order block `gap` bytes past the end.
struct Stream {
  std::string bytes;
  uint64_t base;
  std::string tail;
  FlowBuffer flow;

  Stream(std::string b, uint64_t at, const std::vector<size_t> &sizes, std::string t = "",
         uint64_t gap = 0)
      : bytes(std::move(b)), base(at), tail(std::move(t)) {
    uint64_t pos = base;
    size_t done = 0;
    for (size_t i = 0; done < bytes.size(); ++i) {
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
  uint64_t End() const { return base + bytes.size(); }
};

int Sign(int x) {
  return (x > 0) - (x < 0);
}

// The plain answers, from the contiguous copy.
int PlainCompare(const std::string &data, size_t off, const std::string &text, bool fold) {
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char a = static_cast<unsigned char>(data[off + i]);
    unsigned char b = static_cast<unsigned char>(text[i]);
    if (fold) {
      a = static_cast<unsigned char>(std::tolower(a));
      b = static_cast<unsigned char>(std::tolower(b));
    }
    if (a != b) {
      return a < b ? -1 : 1;
    }
  }
  return 0;
}

// The same from the back: the last difference decides.
int PlainReverse(const std::string &data, size_t off, const std::string &text) {
  for (size_t i = text.size(); i-- > 0;) {
    const unsigned char a = static_cast<unsigned char>(data[off + i]);
    const unsigned char b = static_cast<unsigned char>(text[i]);
    if (a != b) {
      return a < b ? -1 : 1;
    }
  }
  return 0;
}

class FlowBufferReadsTest : public kest_test::LeakCheck {};

TEST_F(FlowBufferReadsTest, ReadsAgreeWithAContiguousCopy) {
  std::mt19937 random(11);
  auto pick = [&](uint64_t n) { return n == 0 ? 0 : static_cast<uint64_t>(random() % n); };
  for (int round = 0; round < 60; ++round) {
    std::string bytes(1 + pick(3000), '\0');
    for (char &c : bytes) {
      c = "abAB\r\n:x\xff"[pick(9)];
    }
    std::vector<size_t> sizes;
    for (int i = 0; i < 5; ++i) {
      sizes.push_back(1 + pick(round % 3 == 0 ? 4 : 1500));
    }
    const uint64_t base = pick(2) == 0 ? 0 : (1ull << 32) - 7;
    Stream s(bytes, base, sizes, "zzzz", 1 + pick(3));
    Stream other(bytes, 100, {7, 300});
    const FlowBuffer &f = s.flow;
    ASSERT_EQ(f.Begin(), base);
    ASSERT_EQ(f.End(), s.End());
    for (int q = 0; q < 200; ++q) {
      const uint64_t off = pick(bytes.size() + 2);
      const uint64_t pos = base + off;
      // A text from the stream itself, sometimes with one byte changed.
      const size_t len = static_cast<size_t>(pick(40));
      const size_t from = static_cast<size_t>(pick(bytes.size()));
      std::string text = bytes.substr(from, len);
      text.resize(len, 'a');
      if (len != 0 && pick(3) == 0) {
        text[pick(len)] = "aBz"[pick(3)];
      }
      SCOPED_TRACE(::testing::Message()
                   << "round " << round << " pos " << off << " text " << text.size());
      const bool fits = off + len <= bytes.size();
      const int plain = fits ? PlainCompare(bytes, off, text, false) : -1;
      const int r = f.Compare(pos, text.data(), static_cast<unsigned>(len));
      EXPECT_EQ(fits ? Sign(r) : r, plain);
      const int folded = f.CaseCompare(pos, text.data(), static_cast<unsigned>(len));
      EXPECT_EQ(fits ? Sign(folded) : folded, fits ? PlainCompare(bytes, off, text, true) : -1);
      if (fits && off + len <= bytes.size()) {
        EXPECT_EQ(Sign(f.Compare(pos, other.flow, 100 + off, static_cast<unsigned>(len))),
                  PlainCompare(bytes, off, bytes.substr(off, len), false));
      }
      // The run that ends at pos.
      const bool behind = off < bytes.size() && len <= off + 1;
      const int back = f.ReverseCompare(pos, text.data(), static_cast<unsigned>(len));
      EXPECT_EQ(behind ? Sign(back) : back, behind ? PlainReverse(bytes, off + 1 - len, text) : -1);
      // Searches below a limit, which the end of the stream cuts.
      const uint64_t limit = base + pick(bytes.size() + 10);
      const size_t stop = static_cast<size_t>(std::min<uint64_t>(limit, s.End()) - base);
      if (off <= bytes.size()) {
        const size_t at =
            off < stop ? bytes.find(text.empty() ? 'a' : text[0], off) : std::string::npos;
        EXPECT_EQ(f.Find(pos, text.empty() ? 'a' : text[0], limit),
                  at != std::string::npos && at < stop ? base + at : s.End());
        if (!text.empty()) {
          const size_t found = bytes.substr(0, stop).find(text, off);
          EXPECT_EQ(f.Find(pos, text.data(), static_cast<unsigned>(len), limit),
                    off <= stop && found != std::string::npos ? base + found : s.End());
        }
      }
    }
  }
}

// The edges where the stated answer is not the plain one.
TEST_F(FlowBufferReadsTest, Edges) {
  Stream s("0123456789", 100, {4, 6}, "xy", 5); // blocks 100-103, 104-109; 115-116 alone
  const FlowBuffer &f = s.flow;
  EXPECT_EQ(f.Compare(99, "0", 1), 110); // flushed: the low half of End()
  EXPECT_EQ(f.Compare(99, "", 0), 110);
  EXPECT_EQ(f.Compare(99, f, 100, 1), -1); // against a buffer: -1 instead
  EXPECT_EQ(f.Compare(105, "", 0), 0);
  EXPECT_EQ(f.Compare(108, "9x", 2), -1);  // one byte past End(), though 8 differs
  EXPECT_EQ(f.Compare(102, "2345", 4), 0); // across the block boundary
  EXPECT_EQ(f.Compare(102, "23X", 3), '4' - 'X');
  EXPECT_EQ(f.CaseCompare(108, "89x", 3), -1);
  EXPECT_EQ(f.CaseCompare(101, "1x", 2), '2' - 'x');
  EXPECT_EQ(f.ReverseCompare(110, "9", 1), -1);   // at End()
  EXPECT_EQ(f.ReverseCompare(109, "9", 1), 0);    // the last byte
  EXPECT_EQ(f.ReverseCompare(105, "2345", 4), 0); // across the boundary
  EXPECT_EQ(f.ReverseCompare(101, "x01", 3), -1); // longer than what lies before
  EXPECT_EQ(f.ReverseCompare(1, "0123", 4), -1);  // would start below 0
  EXPECT_EQ(f.Find(100, '5', 1000), 105u);
  EXPECT_EQ(f.Find(100, 'x', 1000), 110u);      // only beyond the hole
  EXPECT_EQ(f.Find(105, '5', 105), 110u);       // pos at limit
  EXPECT_EQ(f.Find(100, '7', 107), 110u);       // not found: End(), never limit
  EXPECT_EQ(f.Find(100, "56", 2, 107), 105u);   // ends exactly at limit
  EXPECT_EQ(f.Find(100, "67", 2, 107), 110u);   // one byte later
  EXPECT_EQ(f.Find(100, "3456", 4, 200), 103u); // across the boundary
  EXPECT_EQ(f.At(103), '3');
  EXPECT_EQ(f.At(112), 0);   // the hole
  EXPECT_EQ(f.At(115), 'x'); // out of order, still a byte
  EXPECT_EQ(f.At(99), 0);
  // A hole inside the contiguous range: reads stop there.
  Stream holed("abcdef", 0, {3});
  holed.flow.m_blocks.erase(holed.flow.m_blocks.find(uint64_t{3}));
  holed.flow.AddBlock(4, "ef", 2, false);
  holed.flow.m_last_start = 4;
  EXPECT_EQ(holed.flow.Compare(2, "cde", 3), -1);
  EXPECT_EQ(holed.flow.Find(0, 'e', 100), holed.flow.End());
}

TEST_F(FlowBufferReadsTest, EntropyOfARange) {
  std::string all(256, '\0');
  for (int i = 0; i < 256; ++i) {
    all[i] = static_cast<char>(i);
  }
  Stream s(all, 0, {100});
  EXPECT_EQ(s.flow.Entropy(0, 0), 0);
  EXPECT_EQ(s.flow.Entropy(0, 256), 100);
  EXPECT_EQ(s.flow.Entropy(10, 11), 0);
  // Beyond the data every position counts as a zero byte: 0 once from the
  // data, then 256 more zeros.
  EXPECT_EQ(s.flow.Entropy(0, 512), s.flow.Entropy(0, 512));
  EXPECT_LT(s.flow.Entropy(0, 512), 100);
}

} // namespace
