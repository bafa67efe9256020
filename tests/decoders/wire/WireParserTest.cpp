// Whole packets in the three forms: what the parser finds in hand-made
// frames, and malformed input at every length.
#include "wire/WireParser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using kest_decoders::PacketForm;
using kest_decoders::ParsedPacket;
using kest_decoders::ParseResult;
using Bytes = std::vector<uint8_t>;

Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &p : parts) {
    out.insert(out.end(), p.begin(), p.end());
  }
  return out;
}

Bytes Ipv4(uint8_t protocol, const Bytes &l4, uint16_t fragment = 0) {
  const uint16_t total = static_cast<uint16_t>(20 + l4.size());
  return Cat({{0x45,
               0,
               static_cast<uint8_t>(total >> 8),
               static_cast<uint8_t>(total),
               0,
               1,
               static_cast<uint8_t>(fragment >> 8),
               static_cast<uint8_t>(fragment),
               64,
               protocol,
               0,
               0,
               10,
               0,
               0,
               1,
               10,
               0,
               0,
               2},
              l4});
}

Bytes Ipv6(uint8_t next, const Bytes &rest) {
  Bytes ip = {
      0x60, 0, 0, 0, static_cast<uint8_t>(rest.size() >> 8), static_cast<uint8_t>(rest.size()),
      next, 64};
  for (int i = 0; i < 16; ++i) {
    ip.push_back(i == 0 ? 0x20 : i == 15 ? 1 : 0);
  }
  for (int i = 0; i < 16; ++i) {
    ip.push_back(i == 0 ? 0x20 : i == 15 ? 2 : 0);
  }
  return Cat({ip, rest});
}

Bytes Tcp(uint8_t flags, const std::string &payload) {
  Bytes t = {0x9c, 0x40, 0, 80, 0, 0, 0, 7, 0, 0, 0, 0, 0x50, flags, 0xff, 0xff, 0, 0, 0, 0};
  t.insert(t.end(), payload.begin(), payload.end());
  return t;
}

Bytes Udp(const std::string &payload) {
  const uint16_t length = static_cast<uint16_t>(8 + payload.size());
  Bytes u = {0x13, 0x88, 0, 53, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length),
             0,    0};
  u.insert(u.end(), payload.begin(), payload.end());
  return u;
}

Bytes Ether(uint16_t type, const Bytes &payload, std::initializer_list<uint16_t> tags = {}) {
  Bytes e(12, 0xAA);
  for (uint16_t tag : tags) {
    e.insert(e.end(), {static_cast<uint8_t>(tag >> 8), static_cast<uint8_t>(tag), 0, 5});
  }
  e.insert(e.end(), {static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type)});
  return Cat({e, payload});
}

Bytes Sll(uint16_t type, const Bytes &payload) {
  Bytes s(14, 0);
  s.insert(s.end(), {static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type)});
  return Cat({s, payload});
}

TEST(WireParserTest, Frames) {
  const Bytes tcp4 = Ipv4(6, Tcp(0x18, "GET"));
  const Bytes udp6 = Ipv6(17, Udp("query"));
  struct Row {
    const char *name;
    PacketForm form;
    Bytes frame;
    ParseResult result;
    uint8_t protocol;
    uint16_t l3, l4, dst_port;
    std::string payload;
  } rows[] = {
      {"raw IPv4 TCP", PacketForm::kIp, tcp4, ParseResult::kOk, 6, 0, 20, 80, "GET"},
      {"Ethernet padding", PacketForm::kEthernet, Cat({Ether(0x0800, tcp4), Bytes(6, 0)}),
       ParseResult::kOk, 6, 14, 34, 80, "GET"},
      {"two tags", PacketForm::kEthernet, Ether(0x86DD, udp6, {0x88A8, 0x8100}), ParseResult::kOk,
       17, 22, 62, 53, "query"},
      {"PPPoE", PacketForm::kEthernet, Ether(0x8864, Cat({{0x11, 0, 0, 1, 0, 0, 0, 0x21}, tcp4})),
       ParseResult::kOk, 6, 22, 42, 80, "GET"},
      {"SLL with options", PacketForm::kLinuxSll,
       Sll(0x86DD, Ipv6(0, Cat({{17, 0, 0, 0, 0, 0, 0, 0}, Udp("q")}))), ParseResult::kOk, 17, 16,
       64, 53, "q"},
      {"two MPLS labels in a tag", PacketForm::kEthernet,
       Ether(0x8847, Cat({{0, 0, 0x10, 64, 0, 0, 0x21, 64}, tcp4}), {0x8100}), ParseResult::kOk, 6,
       26, 46, 80, "GET"},
      {"ARP", PacketForm::kEthernet, Ether(0x0806, Bytes(28, 0)), ParseResult::kNotIp, 0, 0, 0, 0,
       ""},
      {"IPv4 fragment", PacketForm::kIp, Ipv4(17, Udp("x"), 0x2000), ParseResult::kFragment, 17, 0,
       0, 0, ""},
      {"IPv6 fragment", PacketForm::kIp, Ipv6(44, Cat({{17, 0, 0, 1, 0, 0, 0, 9}, Udp("x")})),
       ParseResult::kFragment, 17, 0, 0, 0, ""},
      {"IPv6 atomic fragment", PacketForm::kIp,
       Ipv6(44, Cat({{17, 0, 0, 0, 0, 0, 0, 9}, Udp("x")})), ParseResult::kOk, 17, 0, 48, 53, "x"},
      {"GRE passes as a protocol", PacketForm::kIp, Ipv4(47, Bytes(8, 0)), ParseResult::kOk, 47, 0,
       20, 0, std::string(8, '\0')},
      {"version 5", PacketForm::kIp, Bytes{0x50, 0, 0, 0}, ParseResult::kMalformed, 0, 0, 0, 0, ""},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    ParsedPacket p;
    ASSERT_EQ(ParsePacket(row.form, row.frame.data(), static_cast<uint32_t>(row.frame.size()), p),
              row.result);
    EXPECT_EQ(p.protocol, row.protocol);
    if (row.result == ParseResult::kOk) {
      EXPECT_EQ(p.l3_offset, row.l3);
      EXPECT_EQ(p.l4_offset, row.l4);
      EXPECT_EQ(p.dst_port, row.dst_port);
      EXPECT_EQ(std::string(reinterpret_cast<const char *>(p.payload), p.payload_length),
                row.payload);
    }
  }
}

// Cut short anywhere, a frame is malformed (or, within a link header, not
// IP), never read past its end: each cut gets an allocation of its own size.
TEST(WireParserTest, EveryTruncationIsRefused) {
  const Bytes frames[] = {
      Ether(0x0800, Ipv4(6, Tcp(0x02, "abc"))),
      Ether(0x86DD, Ipv6(0, Cat({{6, 0, 0, 0, 0, 0, 0, 0}, Tcp(0x10, "d")})), {0x8100}),
      Sll(0x0800, Ipv4(17, Udp("e")))};
  for (const Bytes &frame : frames) {
    const PacketForm form =
        frame[12] == 0 && frame[13] == 0 ? PacketForm::kLinuxSll : PacketForm::kEthernet;
    for (size_t n = 0; n < frame.size(); ++n) {
      std::unique_ptr<uint8_t[]> cut(new uint8_t[n + 1]);
      std::copy(frame.begin(), frame.begin() + static_cast<long>(n), cut.get());
      ParsedPacket p;
      EXPECT_EQ(ParsePacket(form, cut.get(), static_cast<uint32_t>(n), p), ParseResult::kMalformed)
          << n;
    }
  }
  // A bad header length and a TCP offset below 5.
  Bytes bad = Ipv4(6, Tcp(0, ""));
  bad[0] = 0x44;
  ParsedPacket p;
  EXPECT_EQ(ParsePacket(PacketForm::kIp, bad.data(), static_cast<uint32_t>(bad.size()), p),
            ParseResult::kMalformed);
  bad[0] = 0x45;
  bad[32] = 0x40;
  EXPECT_EQ(ParsePacket(PacketForm::kIp, bad.data(), static_cast<uint32_t>(bad.size()), p),
            ParseResult::kMalformed);
}

} // namespace
