// The two randomness measures on inputs worked out by hand from their
// arithmetic.
#include "LeakCheck.h"

#include <kest/Entropy.h>
#include <kest/Monte.h>

#include <cmath>
#include <string>

namespace {

class RandomnessTest : public kest_test::LeakCheck {};

oru::Entropy Histogram(const std::string &bytes) {
  oru::Entropy e;
  for (unsigned char c : bytes) {
    ++e.counts[c];
    ++e.total;
  }
  return e;
}

oru::Monte Points(const std::string &bytes) {
  oru::Monte m;
  for (unsigned char c : bytes) {
    m += c;
  }
  return m;
}

TEST_F(RandomnessTest, EntropyBitsAndPercent) {
  std::string all;
  for (int i = 0; i < 256; ++i) {
    all += static_cast<char>(i);
  }
  // H = sum p * log2(1/p); the percentage is H / 8 * 100, cut toward zero.
  struct Row {
    std::string bytes;
    double bits;
    int percent;
  } rows[] = {
      {"", 0.0, 0},      {"aaaa", 0.0, 0},  {all, 8.0, 100}, {"abab", 1.0, 12}, // 1 / 8 = 12.5%
      {"abcd", 2.0, 25}, {"abcc", 1.5, 18}, // .25*2 + .25*2 + .5*1 = 1.5 bits: 18.75%
  };
  for (const Row &row : rows) {
    const oru::Entropy e = Histogram(row.bytes);
    EXPECT_NEAR(e.ID(), row.bits, 1e-12) << row.bytes;
    EXPECT_EQ(e.Randomness(), row.percent) << row.bytes;
  }
  EXPECT_EQ(oru::Entropy::PaninskiBias(1000.0), 0.0);
}

TEST_F(RandomnessTest, MonteCarloPiAndPercent) {
  // Points are (b0*256+b1, b2*256+b3); inside when x*x + y*y <= 65535^2.
  // Percent = 100 - 100 * |pi - PI()| / pi, as a 16-bit integer's low byte.
  const std::string zero4(4, '\0'), ones4(4, '\xff');
  struct Row {
    std::string bytes;
    int inside, total;
    double pi;
    int percent;
  } rows[] = {
      {zero4, 1, 4, 4.0, 72},                                  // 100 - 27.32
      {ones4, 0, 4, 0.0, 0},                                   // (65535, 65535): outside
      {std::string("\0\0\xff\xff", 4) + zero4, 2, 8, 4.0, 72}, // (0, 65535) is on the circle
      {ones4 + zero4, 1, 8, 2.0, 63},                          // 100 - 36.34
  };
  for (const Row &row : rows) {
    const oru::Monte m = Points(row.bytes);
    EXPECT_EQ(m.inside, row.inside);
    EXPECT_EQ(m.total, row.total);
    EXPECT_EQ(m.PI(), row.pi);
    EXPECT_EQ(m.Randomness(), row.percent);
  }
  // Three bytes: no point yet, and 0 / 0 is not a number, which reads 0.
  const oru::Monte three = Points("abc");
  EXPECT_EQ(three.index, 3u);
  EXPECT_EQ(three.inside, 0);
  EXPECT_TRUE(std::isnan(three.PI()));
  EXPECT_EQ(three.Randomness(), 0);
  // total wraps at 65536: 16383 points outside and 2 inside leave total 4,
  // so PI() is 8 and the percentage -54.6, whose low byte is 202.
  std::string wrapped;
  for (int i = 0; i < 16383; ++i) {
    wrapped += ones4;
  }
  const oru::Monte m = Points(wrapped + zero4 + zero4);
  EXPECT_EQ(m.total, 4);
  EXPECT_EQ(m.PI(), 8.0);
  EXPECT_EQ(m.Randomness(), 202);
  EXPECT_EQ(oru::PercentByte(1e9), 0);
  EXPECT_EQ(oru::PercentByte(-1.5), 255);
}

} // namespace
