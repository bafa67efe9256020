// The generated-name score against names.txt: every name asked in the
// shared captures stays clear, random names are flagged, and most of a
// thousand random draws are; and the tunnel rule's bounds.
#include "dns/DnsRisks.h"
#include "tests/support/TestHooks.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>

namespace {

// The score's logarithms go through the host's hooks.
class DnsRisks : public ::testing::Test {
protected:
  void SetUp() override { kest_test::InstallHooks(); }
};

TEST_F(DnsRisks, RealNamesStayClearAndRandomOnesAreFlagged) {
  std::ifstream in(KEST_TEST_DNS_NAMES);
  ASSERT_TRUE(in.good()) << KEST_TEST_DNS_NAMES;
  std::string line;
  int rows[2] = {};
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    const size_t space = line.find(' ');
    ASSERT_NE(space, std::string::npos) << line;
    const bool generated = line.compare(0, space, "generated") == 0;
    const std::string name = line.substr(space + 1);
    EXPECT_EQ(kest_dns::GeneratedName(name.data(), name.size()), generated) << name;
    ++rows[generated ? 1 : 0];
  }
  EXPECT_GT(rows[0], 100);
  EXPECT_GT(rows[1], 10);
}

// Random letters (and digits) of 12 to 24 bytes: the score is built to
// flag about two in three of them, and no name of names.txt's clear rows.
TEST_F(DnsRisks, MostRandomDrawsAreFlagged) {
  std::mt19937 rng(29);
  const std::string alphabets[] = {"abcdefghijklmnopqrstuvwxyz",
                                   "abcdefghijklmnopqrstuvwxyz0123456789"};
  for (const std::string &alphabet : alphabets) {
    int flagged = 0;
    for (int i = 0; i < 1000; ++i) {
      std::string name(12 + rng() % 13, 'a');
      for (char &c : name) {
        c = alphabet[rng() % alphabet.size()];
      }
      name += ".com";
      flagged += kest_dns::GeneratedName(name.data(), name.size()) ? 1 : 0;
    }
    EXPECT_GT(flagged, 600) << alphabet;
  }
}

TEST_F(DnsRisks, TunnelBounds) {
  const struct {
    std::string name;
    uint16_t qtype;
    bool tunnel;
  } cases[] = {
      {std::string(51, 'a') + ".example.com", 1, false},
      {std::string(52, 'a') + ".example.com", 1, true},
      {std::string(29, 'a') + ".example.com", 16, false},
      {std::string(30, 'a') + ".example.com", 16, true},
      {std::string(30, 'a') + ".example.com", 1, false},
      {"www.example.com", 10, true},
      {std::string(40, 'a') + "." + std::string(40, 'b') + "." + std::string(40, 'c') + "." +
           std::string(36, 'd') + ".com",
       1, true},
      {"_dmarc.example.com", 16, false},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(kest_dns::TunnelName(c.name.data(), c.name.size(), c.qtype), c.tunnel) << c.name;
  }
}

} // namespace
