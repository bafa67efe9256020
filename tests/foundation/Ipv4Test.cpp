#include "TestHooks.h"

#include <gtest/gtest.h>
#include <kest/ipv4.h>

#include <string>

namespace {

class Ipv4Test : public ::testing::Test {
protected:
  void SetUp() override { kest_test::InstallHooks(); }

  static std::string Text(const oru::ipv4 &address) {
    char buf[16];
    return address.to_str(buf);
  }
};

TEST_F(Ipv4Test, ParsesDottedTextAndPrintsItWithOctetsReversed) {
  struct Row {
    const char *text;
    unsigned int value;
    const char *printed;
  };
  const Row rows[] = {
      {"1.2.3.4", 0x04030201u, "4.3.2.1"},
      {"192.0.2.1", 0x010200c0u, "1.2.0.192"},
      {"255.255.255.255", 0xffffffffu, "255.255.255.255"},
      {"10.0.0.255", 0xff00000au, "255.0.0.10"},
      {"1.2.3.4 trailing text", 0x04030201u, "4.3.2.1"},
      {"1.2.3.4.5", 0x04030201u, "4.3.2.1"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    const oru::ipv4 address(row.text);
    EXPECT_EQ(address.get_value(), row.value);
    EXPECT_TRUE(address.is_valid());
    EXPECT_EQ(Text(address), row.printed);
  }
}

TEST_F(Ipv4Test, TextThatDoesNotParseOrReadsZeroGivesTheInvalidAddress) {
  const char *const texts[] = {"1.2.3.256", "1.2.3",   "bad",    "",     "256.0.0.1",
                               "-1.2.3.4",  "0.0.0.0", "1..2.3", nullptr};
  for (const char *text : texts) {
    SCOPED_TRACE(text == nullptr ? "(null)" : text);
    const oru::ipv4 address(text);
    EXPECT_EQ(address.get_value(), 0u);
    EXPECT_FALSE(address.is_valid());
    EXPECT_EQ(Text(address), "0.0.0.0");
  }
}

TEST_F(Ipv4Test, FromStrLeavesTheOutputAloneOnFailure) {
  unsigned int out = 0xdeadbeef;
  EXPECT_FALSE(oru::ipv4::from_str("1.2.3.256", &out));
  EXPECT_FALSE(oru::ipv4::from_str("1.2.3", &out));
  EXPECT_EQ(out, 0xdeadbeefu);
  EXPECT_TRUE(oru::ipv4::from_str("0.0.0.0", &out));
  EXPECT_EQ(out, 0u);
  EXPECT_TRUE(oru::ipv4::from_str("1.2.3.4", &out));
  EXPECT_EQ(out, 0x04030201u);
}

// An integer is stored byte-swapped; text replaces the value only when it
// parses.
TEST_F(Ipv4Test, IntegersAreStoredByteSwappedAndBadTextAssignsNothing) {
  const oru::ipv4 address(0xc0000201u);
  EXPECT_EQ(address.get_value(), 0x010200c0u);
  EXPECT_EQ(Text(address), "1.2.0.192");
  char buf[16];
  EXPECT_EQ(address.to_str(buf), buf);

  oru::ipv4 assigned;
  EXPECT_FALSE(assigned.is_valid());
  assigned = 0x01020304u;
  EXPECT_EQ(assigned.get_value(), 0x04030201u);
  for (const char *bad : {"bad", "1.2.3.256"}) {
    assigned = bad;
    EXPECT_EQ(assigned.get_value(), 0x04030201u) << bad;
  }
  assigned = "9.8.7.6";
  EXPECT_EQ(oru::ipv4(assigned).get_value(), 0x06070809u);
}

} // namespace
