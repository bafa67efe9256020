// The two randomness measures on inputs worked out by hand from their
// arithmetic (rows in flow_rows.txt).
#include "LeakCheck.h"
#include "TableFile.h"

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
  for (const std::string &row : kest_test::TableRows(__FILE__, "flow_rows.txt", "entropy")) {
    std::istringstream in(row);
    std::string bytes;
    double bits = 0;
    int percent = 0;
    in >> bytes >> bits >> percent;
    const oru::Entropy e = Histogram(kest_test::Field(bytes));
    EXPECT_NEAR(e.ID(), bits, 1e-12) << row;
    EXPECT_EQ(e.Randomness(), percent) << row;
  }
  std::string all;
  for (int i = 0; i < 256; ++i) {
    all += static_cast<char>(i);
  }
  EXPECT_NEAR(Histogram(all).ID(), 8.0, 1e-12);
  EXPECT_EQ(Histogram(all).Randomness(), 100);
  EXPECT_EQ(oru::Entropy::PaninskiBias(1000.0), 0.0);
}

TEST_F(RandomnessTest, MonteCarloPiAndPercent) {
  for (const std::string &row : kest_test::TableRows(__FILE__, "flow_rows.txt", "monte")) {
    std::istringstream in(row);
    std::string bytes;
    int inside = 0, total = 0, percent = 0;
    double pi = 0;
    in >> bytes >> inside >> total >> pi >> percent;
    const oru::Monte m = Points(kest_test::Field(bytes));
    EXPECT_EQ(m.inside, inside) << row;
    EXPECT_EQ(m.total, total) << row;
    EXPECT_EQ(m.PI(), pi) << row;
    EXPECT_EQ(m.Randomness(), percent) << row;
  }
  const std::string zero4(4, '\0'), ones4(4, '\xff');
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
