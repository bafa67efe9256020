#include "TestHooks.h"

#include <gtest/gtest.h>
#include <kest/IpPortRuleString.h>
#include <kest/ipv4.h>

#include <cstdio>
#include <random>

namespace {

using oru::IpPortRuleString;

class IpPortRuleStringTest : public ::testing::Test {
protected:
  void SetUp() override { kest_test::InstallHooks(); }
};

constexpr uint32_t Addr(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return a << 24 | b << 16 | c << 8 | d;
}

TEST_F(IpPortRuleStringTest, ValidTextsKeepTheirParts) {
  struct Row {
    const char *text;
    uint32_t low, high, port;
  };
  const Row rows[] = {
      {"10.0.0.1", Addr(10, 0, 0, 1), Addr(10, 0, 0, 1), 0},
      {"10.0.0.1-10.0.0.9", Addr(10, 0, 0, 1), Addr(10, 0, 0, 9), 0},
      {"10.0.0.1 - 10.0.0.9 : 8080", Addr(10, 0, 0, 1), Addr(10, 0, 0, 9), 8080},
      {"10.0.0.1:80", Addr(10, 0, 0, 1), Addr(10, 0, 0, 1), 80},
      {":443", 0, 0, 443},
      {":80", 0, 0, 80},
      {"10.0.0.5-10.0.0.5", Addr(10, 0, 0, 5), Addr(10, 0, 0, 5), 0},
      // Surplus groups vanish; a "-" behind the second address is passed over.
      {"10.0.0.1.5", Addr(10, 0, 0, 1), Addr(10, 0, 0, 1), 0},
      {"10.0.0.1-10.0.0.9-", Addr(10, 0, 0, 1), Addr(10, 0, 0, 9), 0},
      // The port ends at the first non-digit and has no upper bound.
      {"10.0.0.1:80 junk", Addr(10, 0, 0, 1), Addr(10, 0, 0, 1), 80},
      {":70000", 0, 0, 70000},
      {":-5", 0, 0, static_cast<uint32_t>(-5)},
      // Without a port the order is tested; with one it is not.
      {"10.0.0.9-10.0.0.1:80", Addr(10, 0, 0, 9), Addr(10, 0, 0, 1), 80},
      {"255.255.255.255", 0xffffffffu, 0xffffffffu, 0},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    const IpPortRuleString parsed(row.text);
    EXPECT_TRUE(parsed.valid);
    EXPECT_EQ(parsed.low, row.low);
    EXPECT_EQ(parsed.high, row.high);
    EXPECT_EQ(parsed.port, row.port);
  }
}

TEST_F(IpPortRuleStringTest, InvalidTexts) {
  const char *const texts[] = {
      "",           "   ",
      " 10.0.0.1", // a leading space is no digit, nor ":"
      ":0",         ":abc",      "0.0.0.0",           "10.0.0.1-0.0.0.0",
      "256.0.0.1",  "10.0.0",    "10.0.0.9-10.0.0.1", "10.0.0.1-10.0.0.9-1.2.3.4",
      "10.0.0.1 x", "10.0.0.1-", "10.0.0.1-:80",      "10.0.0.1:",
      "x10.0.0.1",
  };
  for (const char *text : texts) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(IpPortRuleString(text).valid);
  }
}

// The octet arithmetic against the library's own address reader, which keeps
// the same number byte-swapped.
TEST_F(IpPortRuleStringTest, AddressesAgreeWithIpv4Reader) {
  std::mt19937 random(20240611u);
  std::uniform_int_distribution<unsigned> octet(0, 255);
  for (int i = 0; i < 500; ++i) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", octet(random), octet(random), octet(random),
                  octet(random));
    SCOPED_TRACE(text);
    unsigned int swapped = 0;
    ASSERT_TRUE(oru::ipv4::from_str(text, &swapped));
    const IpPortRuleString parsed(text);
    EXPECT_EQ(parsed.valid, swapped != 0);
    if (parsed.valid) {
      EXPECT_EQ(parsed.low, __builtin_bswap32(swapped));
      EXPECT_EQ(parsed.high, parsed.low);
    }
  }
}

TEST_F(IpPortRuleStringTest, ValidatorJudgesTheRuleTextInsideTheKey) {
  const struct {
    const char *key;
    const char *value;
    bool valid;
  } rows[] = {
      {"customrule.mod.10.0.0.1-10.0.0.9:80", "5", true},
      {"customrule.mod.:443", "", true},
      {"customrule.mod.10.0.0", "5", false},
      {"customrule.mod", "5", false}, // the whole key is then the rule
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.key);
    EXPECT_EQ(IpPortRuleString::ValidateRule(row.key, "junk", row.value), row.valid);
  }
}

} // namespace
