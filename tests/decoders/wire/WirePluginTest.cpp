// Whole packets through wire.plg and the transports: one conversation in
// the three forms, both directions on one connection, inspectors fed the
// reassembled stream; fragments; custom rules.
#include "tests/decoders/DecoderTestSupport.h"

#include "tests/decoders/wire/WireTestSupport.h"

#include <map>

namespace {

using kest_test::Record;
using kest_test::Result;
using kest_test::WirePluginTest;
using Bytes = std::vector<uint8_t>;

uint16_t Sum(const Bytes &b, size_t from, size_t to) {
  uint32_t sum = 0;
  for (size_t i = from; i + 1 < to; i += 2) {
    sum += static_cast<uint32_t>(b[i] << 8 | b[i + 1]);
  }
  while (sum >> 16) {
    sum = (sum & 0xFFFF) + (sum >> 16);
  }
  return static_cast<uint16_t>(~sum);
}

// An IPv4 TCP packet from 10.0.0.1:40000 (side 0) or 10.0.0.2:8080.
Bytes TcpPacket(int side, uint8_t flags, uint32_t seq, const std::string &payload) {
  const uint16_t total = static_cast<uint16_t>(40 + payload.size());
  Bytes p = {0x45,
             0,
             static_cast<uint8_t>(total >> 8),
             static_cast<uint8_t>(total),
             0,
             0,
             0x40,
             0,
             64,
             6,
             0,
             0,
             10,
             0,
             0,
             static_cast<uint8_t>(side == 0 ? 1 : 2),
             10,
             0,
             0,
             static_cast<uint8_t>(side == 0 ? 2 : 1)};
  const uint16_t sport = side == 0 ? 40000 : 8080, dport = side == 0 ? 8080 : 40000;
  Bytes tcp = {static_cast<uint8_t>(sport >> 8),
               static_cast<uint8_t>(sport),
               static_cast<uint8_t>(dport >> 8),
               static_cast<uint8_t>(dport),
               static_cast<uint8_t>(seq >> 24),
               static_cast<uint8_t>(seq >> 16),
               static_cast<uint8_t>(seq >> 8),
               static_cast<uint8_t>(seq),
               0,
               0,
               0,
               0,
               0x50,
               flags,
               0xFF,
               0xFF,
               0,
               0,
               0,
               0};
  const uint16_t check = Sum(p, 0, 20);
  p[10] = static_cast<uint8_t>(check >> 8);
  p[11] = static_cast<uint8_t>(check);
  p.insert(p.end(), tcp.begin(), tcp.end());
  p.insert(p.end(), payload.begin(), payload.end());
  return p;
}

// The same over IPv6: 2001:db8::1 and 2001:db8::2.
Bytes Tcp6Packet(int side, uint8_t flags, uint32_t seq, const std::string &payload) {
  const Bytes v4 = TcpPacket(side, flags, seq, payload);
  const Bytes tcp(v4.begin() + 20, v4.end());
  Bytes p = {0x60, 0, 0, 0, static_cast<uint8_t>(tcp.size() >> 8), static_cast<uint8_t>(tcp.size()),
             6,    64};
  for (int end = 0; end < 2; ++end) {
    const uint8_t last = static_cast<uint8_t>((end == 0) == (side == 0) ? 1 : 2);
    const Bytes addr = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, last};
    p.insert(p.end(), addr.begin(), addr.end());
  }
  p.insert(p.end(), tcp.begin(), tcp.end());
  return p;
}

Bytes Framed(int selector, const Bytes &ip) {
  Bytes out;
  if (selector == KEST_SELECTOR_ETHERNET) {
    out.assign(12, 0x02);
    out.insert(out.end(), {0x81, 0x00, 0x00, 0x07, 0x08, 0x00}); // one VLAN tag
  } else if (selector == KEST_SELECTOR_LINUX_SLL) {
    out.assign(14, 0);
    out.insert(out.end(), {0x08, 0x00});
  }
  if (!ip.empty() && (ip[0] >> 4) == 6 && selector != KEST_SELECTOR_IP) {
    out[out.size() - 2] = 0x86; // the IPv6 ether type
    out[out.size() - 1] = 0xDD;
  }
  out.insert(out.end(), ip.begin(), ip.end());
  return out;
}

TEST_F(WirePluginTest, OneConversationInEveryForm) {
  const kest_handle_t h = OpenAll();
  std::map<int, std::vector<std::string>> outcome;
  for (int run = 0; run < 6; ++run) {
    const int selector = KEST_SELECTOR_IP + run % 3;
    const auto make = run < 3 ? TcpPacket : Tcp6Packet;
    SCOPED_TRACE(run);
    const Bytes packets[] = {make(0, 0x02, 100, ""),      make(1, 0x12, 900, ""),
                             make(0, 0x10, 101, "hel"),   make(0, 0x10, 104, "lo"),
                             make(1, 0x10, 901, "world"), make(0, 0x11, 106, ""),
                             make(1, 0x11, 906, "")};
    std::vector<Result> results;
    for (const Bytes &ip : packets) {
      const Bytes frame = Framed(selector, ip);
      EXPECT_EQ(kest_classify(h, selector, frame.data(), static_cast<uint16_t>(frame.size()),
                              nullptr, 0, Record, &results),
                0);
    }
    ASSERT_EQ(results.size(), 7u);
    for (const Result &r : results) {
      EXPECT_EQ(r.id, results[0].id) << "both directions, one connection";
      outcome[run].push_back(r.stack + " " + std::to_string(r.code));
    }
  }
  EXPECT_EQ(outcome[0], (std::vector<std::string>{"TCP 1", "TCP 1", "TCP/PROBE 1", "TCP/PROBE 1",
                                                  "TCP/PROBE 1", "TCP/PROBE 1", "TCP/PROBE 1"}));
  for (int run = 1; run < 6; ++run) {
    EXPECT_EQ(outcome[run], outcome[0]) << "IPv" << (run < 3 ? 4 : 6) << " run " << run;
  }

  // Not IP: code 0 on connection 0, no error.
  std::vector<Result> results;
  const Bytes arp = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 2, 2, 2, 2, 2, 2, 0x08, 0x06, 0, 1};
  EXPECT_EQ(kest_classify(h, KEST_SELECTOR_ETHERNET, arp.data(), static_cast<uint16_t>(arp.size()),
                          nullptr, 0, Record, &results),
            0);
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0].code, 0);
  EXPECT_EQ(results[0].id, 0u);
  // The simple call takes raw IP.
  const Bytes syn = TcpPacket(0, 0x02, 7, "");
  int app = -1;
  EXPECT_EQ(kest_classify_simple(h, syn.data(), static_cast<uint16_t>(syn.size()), &app), 0);
  EXPECT_EQ(app, kest_proto_find_index(h, "TCP"));
  EXPECT_EQ(kest_fini(h), 0);
  EXPECT_EQ(kest_close(h), 0);
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
}

// An IPv4 UDP datagram in two fragments, the second first: the first to
// arrive waits (code 0); the datagram is classified with the last.
TEST_F(WirePluginTest, FragmentsMakeOneDatagram) {
  const kest_handle_t h = OpenAll();
  const std::string data = "0123456789abcdef0123456789abcdef";
  Bytes udp = {0x13, 0x88, 0x00, 0x35, 0, static_cast<uint8_t>(8 + data.size()), 0, 0};
  udp.insert(udp.end(), data.begin(), data.end());
  auto fragment = [&](size_t from, size_t to, bool more) {
    const uint16_t total = static_cast<uint16_t>(20 + to - from);
    const uint16_t field = static_cast<uint16_t>((more ? 0x2000 : 0) | (from / 8));
    Bytes ip = {0x45,
                0,
                static_cast<uint8_t>(total >> 8),
                static_cast<uint8_t>(total),
                0x12,
                0x34,
                static_cast<uint8_t>(field >> 8),
                static_cast<uint8_t>(field),
                64,
                17,
                0,
                0,
                10,
                0,
                0,
                1,
                10,
                0,
                0,
                2};
    ip.insert(ip.end(), udp.begin() + static_cast<long>(from), udp.begin() + static_cast<long>(to));
    return ip;
  };
  std::vector<Result> results;
  for (const Bytes &p : {fragment(16, udp.size(), false), fragment(0, 16, true)}) {
    ASSERT_EQ(kest_classify(h, KEST_SELECTOR_IP, p.data(), static_cast<uint16_t>(p.size()), nullptr,
                            0, Record, &results),
              0);
  }
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0].code, 0);
  EXPECT_EQ(results[1].stack, "UDP");
  EXPECT_NE(results[1].id, 0u);
  // A datagram that never completes goes after its time, on a quiet thread
  // too.
  kest_clock_set_mode(h, 1);
  kest_clock_set(h, 1000);
  kest_idle(h);
  const long before = kest_test::LiveBlocks(kest_test::Heap::Local);
  const Bytes lone = fragment(0, 16, true);
  kest_classify(h, KEST_SELECTOR_IP, lone.data(), static_cast<uint16_t>(lone.size()), nullptr, 0,
                Record, &results);
  EXPECT_GT(kest_test::LiveBlocks(kest_test::Heap::Local), before);
  for (const uint64_t at : {31000, 31001}) {
    kest_clock_set(h, at);
    kest_idle(h);
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local) == before, at == 31001) << at;
  }
  EXPECT_EQ(kest_fini(h), 0);
  EXPECT_EQ(kest_close(h), 0);
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
}

// Wraps an IPv4 packet in an outer IPv4 header (protocol 4) or in GTP-U over
// UDP port 2152.
Bytes Wrap(const Bytes &inner, bool gtp) {
  Bytes payload;
  if (gtp) {
    const uint16_t udp_length = static_cast<uint16_t>(8 + 8 + inner.size());
    payload = {0x08,
               0x68,
               0x08,
               0x68,
               static_cast<uint8_t>(udp_length >> 8),
               static_cast<uint8_t>(udp_length),
               0,
               0,
               0x30,
               0xFF,
               static_cast<uint8_t>(inner.size() >> 8),
               static_cast<uint8_t>(inner.size()),
               0,
               0,
               0,
               1};
  }
  payload.insert(payload.end(), inner.begin(), inner.end());
  const uint16_t total = static_cast<uint16_t>(20 + payload.size());
  Bytes outer = {0x45,
                 0,
                 static_cast<uint8_t>(total >> 8),
                 static_cast<uint8_t>(total),
                 0,
                 0,
                 0x40,
                 0,
                 64,
                 static_cast<uint8_t>(gtp ? 17 : 4),
                 0,
                 0,
                 192,
                 168,
                 0,
                 1,
                 192,
                 168,
                 0,
                 2};
  outer.insert(outer.end(), payload.begin(), payload.end());
  return outer;
}

// Tunnels: the inner connection is classified, the tunnel under its
// transport; with the tunnel policy off, the outer packet is what it is.
TEST_F(WirePluginTest, TunnelsOpenWithTheirPolicy) {
  for (bool tunnels : {true, false}) {
    SCOPED_TRACE(tunnels);
    const kest_handle_t h = kest_open(
        Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG, KEST_TEST_PROBE_PLG})
            .c_str());
    ASSERT_GT(h, 0);
    ASSERT_EQ(kest_config_set(h, "conn.default_policy.tunnels", tunnels ? "1" : "0"), 0);
    ASSERT_EQ(kest_init(h), 0);
    std::vector<std::string> stacks;
    for (bool gtp : {false, true}) {
      std::vector<Result> results;
      for (const Bytes &p : {TcpPacket(0, 0x02, 1, ""), TcpPacket(0, 0x10, 2, "data")}) {
        const Bytes outer = Wrap(p, gtp);
        ASSERT_EQ(kest_classify(h, KEST_SELECTOR_IP, outer.data(),
                                static_cast<uint16_t>(outer.size()), nullptr, 0, Record, &results),
                  0);
      }
      ASSERT_EQ(results.size(), 2u);
      stacks.push_back(results[1].stack + " " + std::to_string(results[1].code));
      // The same inner flow comes next through the other tunnel: end it.
      const Bytes rst = Wrap(TcpPacket(0, 0x04, 6, ""), gtp);
      kest_classify(h, KEST_SELECTOR_IP, rst.data(), static_cast<uint16_t>(rst.size()), nullptr, 0,
                    Record, &results);
    }
    EXPECT_EQ(stacks, tunnels ? (std::vector<std::string>{"IPIP/TCP/PROBE 1", "GTP/TCP/PROBE 1"})
                              : (std::vector<std::string>{" 0", "UDP 1"}));
    EXPECT_EQ(kest_fini(h), 0);
    EXPECT_EQ(kest_close(h), 0);
    dir.clear();
  }
}

// A host's custom rule on the TCP module names its connections: here the
// server 10.0.0.2 on port 8080.
TEST_F(WirePluginTest, CustomRulesNameConnections) {
  const kest_handle_t h =
      kest_open(Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG}).c_str());
  ASSERT_GT(h, 0);
  const int myapp = kest_proto_add(h, "MYAPP", 0);
  ASSERT_GT(myapp, 0);
  ASSERT_EQ(kest_rule_add(h, myapp, "TCP", "10.0.0.2:8080"), 0);
  EXPECT_EQ(kest_rule_add(h, myapp, "TCP", ":70000"), 0); // written, refused by each thread
  ASSERT_EQ(kest_init(h), 0);
  std::vector<Result> results;
  for (const Bytes &p : {TcpPacket(0, 0x02, 1, ""), TcpPacket(0, 0x10, 2, "x")}) {
    ASSERT_EQ(kest_classify(h, KEST_SELECTOR_IP, p.data(), static_cast<uint16_t>(p.size()), nullptr,
                            0, Record, &results),
              0);
  }
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[1].stack, "TCP/MYAPP");
  // Once removed, new connections are plain TCP again.
  ASSERT_EQ(kest_rule_remove(h, myapp, "TCP", "10.0.0.2:8080"), 0);
  kest_idle(h);
  const Bytes rst = TcpPacket(0, 0x04, 3, "");
  kest_classify(h, KEST_SELECTOR_IP, rst.data(), static_cast<uint16_t>(rst.size()), nullptr, 0,
                Record, &results);
  results.clear();
  for (const Bytes &p : {TcpPacket(0, 0x02, 1, ""), TcpPacket(0, 0x10, 2, "x")}) {
    kest_classify(h, KEST_SELECTOR_IP, p.data(), static_cast<uint16_t>(p.size()), nullptr, 0,
                  Record, &results);
  }
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[1].stack, "TCP");
  EXPECT_EQ(kest_fini(h), 0);
  EXPECT_EQ(kest_close(h), 0);
}

} // namespace
