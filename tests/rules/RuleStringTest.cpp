// Custom rule texts, parsed as the stores' owners parse them: the rows of
// rule_strings.txt, and addresses against the ipv4 reader.
#include "LeakCheck.h"
#include "TableFile.h"

#include <kest/IpPortRuleStore.h>
#include <kest/KeyValueRuleString.h>
#include <kest/ipv4.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <string>

namespace {

using oru::IpPortRuleString;
using Fields = std::vector<std::string>;

class RuleStringTest : public kest_test::LeakCheck {};

TEST_F(RuleStringTest, Rows) {
  std::ifstream in(kest_test::SourceFolder(__FILE__) / "rule_strings.txt");
  ASSERT_TRUE(in);
  int rows = 0;
  for (std::string line; std::getline(in, line);) {
    for (size_t at; (at = line.find("\\t")) != std::string::npos;) {
      line.replace(at, 2, "\t");
    }
    if (line.empty() || line[0] == '#') {
      continue;
    }
    Fields f;
    for (size_t start = 0, bar;; start = bar + 1) {
      bar = line.find('|', start);
      f.push_back(line.substr(start, bar - start));
      if (bar == std::string::npos) {
        break;
      }
    }
    SCOPED_TRACE(line);
    ++rows;
    const bool valid = f.at(2) == "1";
    if (f[0] == "ip") {
      const IpPortRuleString parsed(f[1].c_str());
      EXPECT_EQ(parsed.valid, valid);
      EXPECT_EQ(parsed.low, std::stoul(f.at(3), nullptr, 16));
      EXPECT_EQ(parsed.high, std::stoul(f.at(4), nullptr, 16));
      EXPECT_EQ(parsed.port, std::stoul(f.at(5)));
    } else if (f[0] == "kv") {
      const oru::KeyValueRuleString parsed(f[1].c_str());
      EXPECT_EQ(parsed.valid, valid);
      EXPECT_EQ(parsed.key.c_str(), f.at(3));
      EXPECT_EQ(parsed.value.c_str(), f.at(4));
    } else {
      ASSERT_EQ(f[0], "spec");
      oru::IpPortSpec spec;
      EXPECT_EQ(oru::IpPortSpec::FromRuleString(IpPortRuleString(f[1].c_str()), 6, spec), valid);
      EXPECT_EQ(spec.port, std::stoul(f.at(3)));
    }
  }
  EXPECT_GT(rows, 30);
}

// Against the ipv4 reader, which keeps the same number byte-swapped.
TEST_F(RuleStringTest, AddressesAgreeWithIpv4Reader) {
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
