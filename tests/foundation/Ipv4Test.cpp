#include "LeakCheck.h"

#include <gtest/gtest.h>
#include <kest/ipv4.h>

#include <string>
#include <vector>

namespace {

std::string Text(const oru::ipv4 &address) {
  char buf[16];
  EXPECT_EQ(address.to_str(buf), buf);
  return buf;
}

using Ipv4Test = kest_test::LeakCheck;

// Text and integers are stored byte-swapped and printed without swapping back,
// so the octets come out reversed. Text that does not parse, or reads zero, is
// the invalid address; from_str then leaves its output alone (except for zero,
// which parses), and an assignment of it leaves the value.
TEST_F(Ipv4Test, ParsesDottedTextAndPrintsItWithOctetsReversed) {
  struct Row {
    const char *text;
    unsigned int value = 0; // 0: invalid
    const char *printed = "0.0.0.0";
  };
  std::vector<Row> rows = {
      {"1.2.3.4", 0x04030201u, "4.3.2.1"},
      {"192.0.2.1", 0x010200c0u, "1.2.0.192"},
      {"255.255.255.255", 0xffffffffu, "255.255.255.255"},
      {"10.0.0.255", 0xff00000au, "255.0.0.10"},
      {"1.2.3.4 trailing text", 0x04030201u, "4.3.2.1"},
      {"1.2.3.4.5", 0x04030201u, "4.3.2.1"},
  };
  for (const char *invalid : {"1.2.3.256", "1.2.3", "bad", "", "256.0.0.1", "-1.2.3.4", "1..2.3",
                              "0.0.0.0", static_cast<const char *>(nullptr)}) {
    rows.push_back({invalid});
  }
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text == nullptr ? "(null)" : row.text);
    const oru::ipv4 address(row.text);
    EXPECT_EQ(address.get_value(), row.value);
    EXPECT_EQ(address.is_valid(), row.value != 0);
    EXPECT_EQ(Text(address), row.printed);
    if (row.text != nullptr) {
      unsigned int out = 0xdeadbeef;
      const bool parses = row.value != 0 || std::string(row.text) == "0.0.0.0";
      EXPECT_EQ(oru::ipv4::from_str(row.text, &out), parses);
      EXPECT_EQ(out, parses ? row.value : 0xdeadbeefu);
      oru::ipv4 assigned(0x01020304u);
      assigned = row.text;
      EXPECT_EQ(assigned.get_value(), parses ? row.value : 0x04030201u);
    }
  }
  EXPECT_EQ(Text(oru::ipv4(0xc0000201u)), "1.2.0.192");
  EXPECT_FALSE(oru::ipv4().is_valid());
  oru::ipv4 assigned;
  assigned = 0x09080706u;
  EXPECT_EQ(oru::ipv4(assigned).get_value(), 0x06070809u);
}

} // namespace
