#include "TestHooks.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <kest/IpPortRuleString.h>
#include <kest/ipv4.h>
#include <random>

namespace {

using oru::IpPortRuleString;

constexpr uint32_t A(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return a << 24 | b << 16 | c << 8 | d;
}

TEST(IpPortRuleStringTest, ParseTable) {
  kest_test::InstallHooks();
  const struct {
    const char *text;
    bool valid;
    uint32_t low, high, port;
  } rows[] = {
      {"10.0.0.1", true, A(10, 0, 0, 1), A(10, 0, 0, 1), 0},
      {"10.0.0.1 - 10.0.0.9 : 8080", true, A(10, 0, 0, 1), A(10, 0, 0, 9), 8080},
      {":80", true, 0, 0, 80},
      {"10.0.0.5-10.0.0.5", true, A(10, 0, 0, 5), A(10, 0, 0, 5), 0},
      {"10.0.0.1.5", true, A(10, 0, 0, 1), A(10, 0, 0, 1), 0},            // surplus group
      {"10.0.0.1-10.0.0.9-", true, A(10, 0, 0, 1), A(10, 0, 0, 9), 0},    // "-" passed over
      {"10.0.0.1:80 junk", true, A(10, 0, 0, 1), A(10, 0, 0, 1), 80},     // port ends at junk
      {":70000", true, 0, 0, 70000},                                      // no bound
      {"10.0.0.9-10.0.0.1:80", true, A(10, 0, 0, 9), A(10, 0, 0, 1), 80}, // no order test
      {"10.0.0.9-10.0.0.1", false, A(10, 0, 0, 9), A(10, 0, 0, 1), 0},
      {"10.0.0.1-10.0.0.9-1.2.3.4", false, A(10, 0, 0, 1), A(10, 0, 0, 9), 0},
      {"", false, 0, 0, 0},
      {"   ", false, 0, 0, 0},
      {" 10.0.0.1", false, 0, 0, 0},
      {":0", false, 0, 0, 0},
      {":abc", false, 0, 0, 0},
      {"0.0.0.0", false, 0, 0, 0},
      {"10.0.0.1-0.0.0.0", false, A(10, 0, 0, 1), 0, 0},
      {"256.0.0.1", false, 0, 0, 0},
      {"10.0.0", false, 0, 0, 0},
      {"10.0.0.1-:80", false, A(10, 0, 0, 1), 0, 0},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.text);
    const IpPortRuleString parsed(row.text);
    EXPECT_EQ(parsed.valid, row.valid);
    EXPECT_EQ(parsed.low, row.low);
    EXPECT_EQ(parsed.high, row.high);
    EXPECT_EQ(parsed.port, row.port);
  }
}

// Against the ipv4 reader, which keeps the same number byte-swapped.
TEST(IpPortRuleStringTest, AddressesAgreeWithIpv4Reader) {
  kest_test::InstallHooks();
  std::mt19937 random(20240611u);
  std::uniform_int_distribution<unsigned> octet(0, 255);
  for (int i = 0; i < 500; ++i) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", octet(random), octet(random), octet(random),
                  octet(random));
    unsigned int swapped = 0;
    ASSERT_TRUE(oru::ipv4::from_str(text, &swapped));
    const IpPortRuleString parsed(text);
    EXPECT_EQ(parsed.low, __builtin_bswap32(swapped)) << text;
    EXPECT_EQ(parsed.valid, swapped != 0) << text;
  }
}

} // namespace
