// The DNS reader's address texts: the shortest form, with the longest run
// of zero groups folded. What the reader makes of whole messages is in
// dns.conv.
#include "dns/DnsMessage.h"

#include <gtest/gtest.h>

#include <string.h>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Hex(const char *hex) {
  Bytes out;
  for (size_t i = 0; hex[i] != 0 && hex[i + 1] != 0; i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex + i, 2), nullptr, 16)));
  }
  return out;
}

TEST(DnsMessage, Ipv6Text) {
  const struct {
    const char *hex;
    const char *text;
  } cases[] = {
      {"20010db8000000000000000000000001", "2001:db8::1"},
      {"20010db8000000010000000000000001", "2001:db8:0:1::1"},
      {"20010db8000000000001000000000001", "2001:db8::1:0:0:1"},
      {"20010db8000100010001000100010001", "2001:db8:1:1:1:1:1:1"},
      {"00000000000000000000000000000000", "::"},
      {"00000000000000000000ffffc0000201", "::ffff:192.0.2.1"},
      {"fe800000000000000000000000000000", "fe80::"},
  };
  for (const auto &c : cases) {
    char text[46];
    const Bytes a = Hex(c.hex);
    EXPECT_EQ(kest_dns::FormatIpv6(a.data(), text), strlen(c.text));
    EXPECT_STREQ(text, c.text);
  }
}

} // namespace
