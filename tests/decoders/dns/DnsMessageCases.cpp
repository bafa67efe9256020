// The DNS message reader as a pure function: real messages from captures
// and a few made by hand, each with what must come out; then properties
// that hold for any bytes (every cut and every byte changed).
#include "dns/DnsMessage.h"

#include <gtest/gtest.h>

#include <string.h>
#include <string>
#include <vector>

namespace {

using kest_dns::Verdict;
using Bytes = std::vector<uint8_t>;

Bytes Hex(const char *hex) {
  Bytes out;
  for (size_t i = 0; hex[i] != 0 && hex[i + 1] != 0; i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex + i, 2), nullptr, 16)));
  }
  return out;
}

struct Case {
  const char *what;
  const char *hex;
  Verdict verdict;
  const char *query;
  const char *qtype;
  const char *rcode; // null for a question
  const char *answers;
};

const Case kCases[] = {
    // dns_ambiguous_names.pcap: a query with an EDNS record.
    {"query",
     "5f97012000010000000000010767757a7a6f6e69056170706c6503636f6d00000100010000291000000000"
     "000000",
     Verdict::kDns, "guzzoni.apple.com", "A", nullptr, ""},
    // Its answer: a CNAME whose target ends in a pointer, then an A record
    // whose owner is a pointer into that target.
    {"cname and a",
     "5f97818000010002000000010767757a7a6f6e69056170706c6503636f6d0000010001c00c000500"
     "01000002b9001e1167757a7a6f6e692d6170706c652d636f6d0176076161706c696d67c01ac02f00"
     "0100010000012b0004118215050000290200000000000000",
     Verdict::kDns, "guzzoni.apple.com", "A", "NOERROR",
     "guzzoni-apple-com.v.aaplimg.com,17.130.21.5"},
    // dns_ambiguous_names.pcap: NXDOMAIN with the zone's SOA.
    {"nxdomain",
     "b56281830001000000010001012a057465616d73096d6963726f736f667403636f6d0000010001c014"
     "000600010000012b003e076e73312d32303509617a7572652d646e73c01e13617a757265646e732d68"
     "6f73746d6173746572c0140000000100000e100000012c0024ea000000012c0000290200000000000000",
     Verdict::kDns, "*.teams.microsoft.com", "A", "NXDOMAIN", ""},
    // dns_fragmented.pcap: two AAAA answers.
    {"aaaa",
     "8cec8180000100020000000106657266706f7002646500001c0001c00c001c00010000012c0010260647"
     "00003000000000000068186291c00c001c00010000012c00102606470000300000000000006818639100"
     "00290200000000000000",
     Verdict::kDns, "erfpop.de", "AAAA", "NOERROR",
     "2606:4700:30::6818:6291,2606:4700:30::6818:6391"},
    // wikipedia.pcap: an mDNS answer without a question, records with the
    // cache-flush bit.
    {"mdns answer",
     "0000840000000001000000040667656d696e69095f736674702d737368045f746370056c6f63616c"
     "000021800100000078000f0000000000160667656d696e69c022c039001c800100000078001"
     "0fe800000000000000217f2fffed7cf65c039000180010000007800048d8edc32c00c002f800100"
     "0000780009c00c00050000800040c039002f8001000000780008c039000440000008",
     Verdict::kDns, "", nullptr, "NOERROR", ""},
    // By hand: MX, NS and PTR answers; the extended code of EDNS (BADVERS).
    {"mx ns ptr",
     "00018180000100030000000101610000010001c00c000f00010000000000070005026d78c0"
     "0cc00c00020001000000000005026e73c00cc00c000c00010000000000030162000000290200010000000000",
     Verdict::kDns, "a", "A", "BADVERS", "mx.a,ns.a,b"},
    // The root, type ANY, class CH.
    {"root", "0002010000010000000000000000ff0003", Verdict::kDns, ".", "ANY", nullptr, ""},
    // Label bytes that need escaping, and a type without a name.
    {"escapes", "00030100000100000000000003612eff00006e0001", Verdict::kDns, "a\\.\\255", "110",
     nullptr, ""},
    // As in malformed_dns.pcap, a second question that points at itself: the
    // first question still stands.
    {"damaged",
     "84b481000002000000000000037777770278740363"
     "6f6d0000010001c01c00010001",
     Verdict::kDnsDamaged, "www.xt.com", "A", "NOERROR", ""},
    // A pointer to itself, a pointer forward, a label of kind 01.
    {"pointer loop", "000401000001000000000000c00c00010001", Verdict::kNotDns, "", nullptr, nullptr,
     ""},
    {"pointer ahead", "000501000001000000000000c01000010001000000", Verdict::kNotDns, "", nullptr,
     nullptr, ""},
    {"label kind", "00060100000100000000000041610000010001", Verdict::kNotDns, "", nullptr, nullptr,
     ""},
    // Counts that cannot fit, an opcode nobody uses, a question with a code.
    {"counts", "00070100000100050000000001610000010001", Verdict::kNotDns, "", nullptr, nullptr,
     ""},
    {"opcode", "00071800000100000000000001610000010001", Verdict::kNotDns, "", nullptr, nullptr,
     ""},
    {"question rcode", "00070103000100000000000001610000010001", Verdict::kNotDns, "", nullptr,
     nullptr, ""},
    // NetBIOS name service: DNS-shaped, but not DNS.
    {"netbios",
     "8003011000010000000000002045424544454a46504545455045"
     "4e45424a454f4341434143414341434241410000200001",
     Verdict::kNotDns, "", nullptr, nullptr, ""},
};

TEST(DnsMessage, Cases) {
  kest_dns::Summary s;
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.what);
    const Bytes m = Hex(c.hex);
    EXPECT_EQ(kest_dns::Parse(m.data(), m.size(), s), c.verdict);
    if (c.verdict == Verdict::kNotDns) {
      continue;
    }
    EXPECT_EQ(std::string(s.query, s.query_length), c.query);
    char word[16];
    if (c.qtype != nullptr) {
      ASSERT_TRUE(s.has_question);
      kest_dns::FormatType(s.qtype, word, sizeof word);
      EXPECT_STREQ(word, c.qtype);
    }
    EXPECT_EQ(s.response, c.rcode != nullptr);
    if (c.rcode != nullptr) {
      kest_dns::FormatRcode(s.rcode, word, sizeof word);
      EXPECT_STREQ(word, c.rcode);
    }
    EXPECT_EQ(std::string(s.answers, s.answers_length), c.answers);
  }
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
    EXPECT_EQ(kest_dns::FormatIpv6(a.data(), text, sizeof text), strlen(c.text));
    EXPECT_STREQ(text, c.text);
  }
}

// The reported texts are what their lengths say, within their buffers.
void ExpectSane(const kest_dns::Summary &s) {
  ASSERT_LT(s.query_length, sizeof s.query);
  ASSERT_LT(s.answers_length, sizeof s.answers);
  EXPECT_EQ(strlen(s.query), s.query_length);
  EXPECT_EQ(strlen(s.answers), s.answers_length);
}

// Any cut of a message and any single byte changed: the reader stays inside
// the bytes (the sanitizers watch), and its texts stay whole.
TEST(DnsMessage, CutsAndChangedBytes) {
  kest_dns::Summary s;
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.what);
    const Bytes whole = Hex(c.hex);
    for (size_t cut = 0; cut < whole.size(); ++cut) {
      // Copied, so that a read past the cut is a read past the block.
      const Bytes part(whole.begin(), whole.begin() + static_cast<long>(cut));
      kest_dns::Parse(part.data(), part.size(), s);
      ExpectSane(s);
    }
    for (size_t at = 0; at < whole.size(); ++at) {
      for (int value : {0x00, 0x3F, 0x40, 0xC0, 0xC1, 0xFF, whole[at] ^ 0x01}) {
        Bytes changed = whole;
        changed[at] = static_cast<uint8_t>(value);
        kest_dns::Parse(changed.data(), changed.size(), s);
        ExpectSane(s);
      }
    }
  }
}

} // namespace
