// Whole packets, from the rows of packets.txt: what the parser finds in
// hand-made frames and in every cut of them; and through wire.plg and the
// transports, one conversation in the three forms (both directions on one
// connection, inspectors fed the reassembled stream), fragments, tunnels
// and custom rules.
#include "tests/decoders/DataRows.h"
#include "tests/decoders/wire/WireTestSupport.h"

#include "wire/WireParser.h"

#include <arpa/inet.h>
#include <cstring>
#include <map>

namespace {

using kest_decoders::PacketForm;
using kest_decoders::ParsedPacket;
using kest_decoders::ParseResult;
using kest_test::Bytes;

Bytes Hex(const std::string &hex) {
  return kest_test::HexBytes(hex);
}

std::vector<std::vector<std::string>> Rows(const std::string &kind) {
  return kest_test::DataRows(KEST_TEST_WIRE_PACKETS, kind);
}

std::vector<Bytes> Packets(const std::string &kind) {
  std::vector<Bytes> out;
  for (const auto &row : Rows(kind)) {
    out.push_back(Hex(row[0]));
  }
  return out;
}

const std::map<std::string, PacketForm> kForms = {
    {"ip", PacketForm::kIp}, {"ethernet", PacketForm::kEthernet}, {"sll", PacketForm::kLinuxSll}};

TEST(WireParserTest, Frames) {
  const std::map<std::string, ParseResult> results = {{"ok", ParseResult::kOk},
                                                      {"not-ip", ParseResult::kNotIp},
                                                      {"fragment", ParseResult::kFragment},
                                                      {"malformed", ParseResult::kMalformed}};
  for (const auto &row : Rows("frame")) {
    SCOPED_TRACE(row[7]);
    const Bytes frame = Hex(row[7]);
    ParsedPacket p;
    ASSERT_EQ(ParsePacket(kForms.at(row[0]), frame.data(), static_cast<uint32_t>(frame.size()), p),
              results.at(row[1]));
    const auto field = [&](size_t i, unsigned value) {
      if (row[i] != "-") {
        EXPECT_EQ(value, std::stoul(row[i])) << i;
      }
    };
    field(2, p.protocol);
    field(3, p.l3_offset);
    field(4, p.l4_offset);
    field(5, p.dst_port);
    if (row[6] != "-" || row[1] == "ok") {
      EXPECT_EQ(Bytes(p.payload, p.payload + p.payload_length), Hex(row[6]));
    }
  }
}

// Each cut gets an allocation of its own size, so that a read past it is
// caught.
TEST(WireParserTest, EveryTruncationIsRefused) {
  for (const auto &row : Rows("truncated")) {
    const Bytes frame = Hex(row[1]);
    for (size_t n = 0; n < frame.size(); ++n) {
      std::unique_ptr<uint8_t[]> cut(new uint8_t[n + 1]);
      std::copy(frame.begin(), frame.begin() + static_cast<long>(n), cut.get());
      ParsedPacket p;
      EXPECT_EQ(ParsePacket(kForms.at(row[0]), cut.get(), static_cast<uint32_t>(n), p),
                ParseResult::kMalformed)
          << row[1] << " cut at " << n;
    }
  }
}

using kest_test::Record;
using kest_test::Result;

class WirePackets : public kest_test::WirePluginTest {
protected:
  // The transports and wire.plg, with the probe plug-in's inspector or not.
  kest_handle_t Open(bool probe = true, const char *tunnels = "1") {
    const kest_handle_t h =
        kest_open((probe ? Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG,
                                   KEST_TEST_PROBE_PLG})
                         : Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG}))
                      .c_str());
    EXPECT_GT(h, 0);
    EXPECT_EQ(kest_config_set(h, "conn.default_policy.tunnels", tunnels), 0);
    return h;
  }
  void Close(kest_handle_t h) {
    EXPECT_EQ(kest_fini(h), 0);
    EXPECT_EQ(kest_close(h), 0);
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
  }
  // Raw IP packets; each answer recorded.
  std::vector<Result> Send(kest_handle_t h, const std::vector<Bytes> &packets) {
    std::vector<Result> results;
    for (const Bytes &p : packets) {
      EXPECT_EQ(kest_classify(h, KEST_SELECTOR_IP, p.data(), static_cast<uint16_t>(p.size()),
                              nullptr, 0, Record, &results),
                0);
    }
    return results;
  }
};

// An IP packet in a link frame: Ethernet with one VLAN tag, or Linux
// cooked capture.
Bytes Framed(int selector, const Bytes &ip) {
  Bytes out;
  if (selector == KEST_SELECTOR_ETHERNET) {
    out.assign(12, 0x02);
    out.insert(out.end(), {0x81, 0x00, 0x00, 0x07, 0x08, 0x00});
  } else if (selector == KEST_SELECTOR_LINUX_SLL) {
    out.assign(14, 0);
    out.insert(out.end(), {0x08, 0x00});
  }
  if ((ip[0] >> 4) == 6 && selector != KEST_SELECTOR_IP) {
    out[out.size() - 2] = 0x86;
    out[out.size() - 1] = 0xDD;
  }
  out.insert(out.end(), ip.begin(), ip.end());
  return out;
}

TEST_F(WirePackets, OneConversationInEveryForm) {
  const kest_handle_t h = Open();
  ASSERT_EQ(kest_init(h), 0);
  std::map<int, std::vector<std::string>> outcome;
  for (int run = 0; run < 6; ++run) {
    const int selector = KEST_SELECTOR_IP + run % 3;
    SCOPED_TRACE(run);
    std::vector<Result> results;
    for (const Bytes &ip : Packets(run < 3 ? "conv4" : "conv6")) {
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
  const Bytes syn = Packets("tcp")[0];
  int app = -1;
  EXPECT_EQ(kest_classify_simple(h, syn.data(), static_cast<uint16_t>(syn.size()), &app), 0);
  EXPECT_EQ(app, kest_proto_find_index(h, "TCP"));
  Close(h);
}

// A datagram in two fragments, the second first: the first to arrive waits
// (code 0); the datagram is classified with the last. One that never
// completes goes after its time, on a quiet thread too.
TEST_F(WirePackets, FragmentsMakeOneDatagram) {
  const kest_handle_t h = Open();
  ASSERT_EQ(kest_init(h), 0);
  const std::vector<Bytes> fragments = Packets("fragment");
  const std::vector<Result> results = Send(h, fragments);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0].code, 0);
  EXPECT_EQ(results[1].stack, "UDP");
  EXPECT_NE(results[1].id, 0u);
  kest_clock_set_mode(h, 1);
  kest_clock_set(h, 1000);
  kest_idle(h);
  const long before = kest_test::LiveBlocks(kest_test::Heap::Local);
  Send(h, {fragments[1]});
  EXPECT_GT(kest_test::LiveBlocks(kest_test::Heap::Local), before);
  for (const uint64_t at : {31000, 31001}) {
    kest_clock_set(h, at);
    kest_idle(h);
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local) == before, at == 31001) << at;
  }
  Close(h);
}

// Tunnels: the inner connection is classified, the tunnel under its
// transport; with the tunnel policy off, the outer packet is what it is.
TEST_F(WirePackets, TunnelsOpenWithTheirPolicy) {
  for (bool tunnels : {true, false}) {
    SCOPED_TRACE(tunnels);
    const kest_handle_t h = Open(true, tunnels ? "1" : "0");
    ASSERT_EQ(kest_init(h), 0);
    const std::vector<Bytes> packets = Packets("tunnel");
    std::vector<std::string> stacks;
    for (size_t at = 0; at < packets.size(); at += 3) {
      // The SYN and the data; the RST ends the inner flow, which comes next
      // through the other tunnel.
      const std::vector<Result> results = Send(h, {packets[at], packets[at + 1], packets[at + 2]});
      stacks.push_back(results[1].stack + " " + std::to_string(results[1].code));
    }
    EXPECT_EQ(stacks, tunnels ? (std::vector<std::string>{"IPIP/TCP/PROBE 1", "GTP/TCP/PROBE 1",
                                                          "Teredo/TCP/PROBE 1", "UDP 1"})
                              : (std::vector<std::string>{" 0", "UDP 1", "UDP 1", "UDP 1"}));
    Close(h);
    dir.clear();
  }
}

// What the host reads back of each packet instead of parsing it again: the
// connection, direction, payload and end points of the conversation in
// every form; fragments that wait, then the datagram with its count; the
// outermost tunnel. The shard key is the same both ways, in every form, for
// fragments and for everything one tunnel carries; frames without room for
// addresses have key 0.
TEST_F(WirePackets, PacketFactsForTheHost) {
  const kest_handle_t h = Open();
  ASSERT_EQ(kest_init(h), 0);
  kest_packet_facts_t f;
  EXPECT_EQ(kest_packet_facts_get(h, &f), -1);
  EXPECT_EQ(kest_errno, KEST_ENOENT);
  EXPECT_EQ(kest_packet_facts_get(h, nullptr), -1);
  EXPECT_EQ(kest_errno, KEST_EINVAL);
  const std::vector<int> sides = {0, 1, 0, 0, 1, 0, 1};
  const std::vector<uint32_t> payloads = {0, 0, 3, 2, 5, 0, 0};
  const std::vector<Bytes> conv = Packets("conv6");
  for (int selector : {KEST_SELECTOR_IP, KEST_SELECTOR_ETHERNET, KEST_SELECTOR_LINUX_SLL}) {
    std::vector<Result> results;
    for (size_t i = 0; i < conv.size(); ++i) {
      const Bytes frame = Framed(selector, conv[i]);
      kest_classify(h, selector, frame.data(), static_cast<uint16_t>(frame.size()), nullptr, 0,
                    Record, &results);
      ASSERT_EQ(kest_packet_facts_get(h, &f), 0);
      EXPECT_EQ(f.status, KEST_PACKET_OK);
      EXPECT_EQ(f.conn_id, results.back().id);
      EXPECT_EQ(f.direction, sides[i]) << i;
      EXPECT_EQ(f.payload_length, payloads[i]) << i;
      EXPECT_EQ(f.fragments, 1u);
      EXPECT_EQ(f.protocol, 6);
      EXPECT_EQ(f.src.family, KEST_FAMILY_IPV6);
      EXPECT_EQ(f.client.port, htons(40000));
      EXPECT_EQ(0, std::memcmp(sides[i] == 0 ? &f.client : &f.server, &f.src, sizeof f.src));
      EXPECT_EQ(kest_packet_shard(selector, frame.data(), static_cast<uint32_t>(frame.size())),
                kest_packet_shard(KEST_SELECTOR_IP, conv[0].data(),
                                  static_cast<uint32_t>(conv[0].size())));
    }
  }
  const std::vector<Bytes> fragments = Packets("fragment");
  Send(h, {fragments[0]});
  ASSERT_EQ(kest_packet_facts_get(h, &f), 0);
  EXPECT_EQ(f.status, KEST_PACKET_FRAGMENT);
  EXPECT_EQ(f.conn_id, 0u);
  EXPECT_EQ(f.fragments, 0u);
  Send(h, {fragments[1]});
  ASSERT_EQ(kest_packet_facts_get(h, &f), 0);
  EXPECT_EQ(f.status, KEST_PACKET_OK);
  EXPECT_NE(f.conn_id, 0u);
  EXPECT_EQ(f.fragments, 2u);
  EXPECT_EQ(f.payload_length, 32u);
  EXPECT_EQ(f.src.port, htons(5000));
  const std::vector<Bytes> tunnels = Packets("tunnel");
  const uint8_t kinds[] = {KEST_TUNNEL_IPIP, KEST_TUNNEL_GTP, KEST_TUNNEL_TEREDO, KEST_TUNNEL_NONE};
  for (size_t i = 0; i < tunnels.size(); ++i) {
    Send(h, {tunnels[i]});
    ASSERT_EQ(kest_packet_facts_get(h, &f), 0);
    EXPECT_EQ(f.tunnel, kinds[i / 3]) << i;
    EXPECT_EQ(f.outer_src.family, f.tunnel != 0 ? KEST_FAMILY_IPV4 : KEST_FAMILY_NONE) << i;
    EXPECT_EQ(f.src.port, htons(40000)) << i;
  }
  const uint32_t shard = kest_packet_shard(KEST_SELECTOR_IP, fragments[0].data(), 20);
  EXPECT_NE(shard, 0u);
  EXPECT_EQ(kest_packet_shard(KEST_SELECTOR_IP, fragments[1].data(), 20), shard);
  for (const Bytes &t : tunnels) {
    EXPECT_EQ(kest_packet_shard(KEST_SELECTOR_IP, t.data(), static_cast<uint32_t>(t.size())),
              kest_packet_shard(KEST_SELECTOR_IP, tunnels[0].data(), 20));
  }
  const Bytes ether = Framed(KEST_SELECTOR_ETHERNET, fragments[0]);
  for (uint32_t n = 0; n < 14 + 4 + 20; ++n) {
    EXPECT_EQ(kest_packet_shard(KEST_SELECTOR_ETHERNET, ether.data(), n), 0u) << n;
  }
  EXPECT_EQ(kest_packet_shard(KEST_SELECTOR_CONN, ether.data(), 64), 0u);
  // A frame without IP.
  const Bytes arp = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 2, 2, 2, 2, 2, 2, 0x08, 0x06, 0, 1};
  kest_classify(h, KEST_SELECTOR_ETHERNET, arp.data(), static_cast<uint16_t>(arp.size()), nullptr,
                0, nullptr, nullptr);
  ASSERT_EQ(kest_packet_facts_get(h, &f), 0);
  EXPECT_EQ(f.status, KEST_PACKET_NOT_IP);
  Close(h);
}

// Every IP packet belongs to a flow: ICMP echoes pair by identifier,
// errors join the flow they quote, the other protocols keep flows by
// address pair (and SCTP ports, ESP SPI, protocol number). Without ip.plg
// only TCP and UDP are classified.
TEST_F(WirePackets, EveryIpPacketInAFlow) {
  const auto rows = Rows("ipflow");
  for (bool with_ip : {true, false}) {
    SCOPED_TRACE(with_ip);
    const kest_handle_t h = kest_open(
        (with_ip
             ? Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG, KEST_TEST_IP_PLG})
             : Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG}))
            .c_str());
    ASSERT_GT(h, 0);
    ASSERT_EQ(kest_init(h), 0);
    std::map<std::string, kest_conn_id_t> flows;
    for (const auto &row : rows) {
      SCOPED_TRACE(row[2]);
      const std::vector<Result> results = Send(h, {Hex(row[2])});
      ASSERT_EQ(results.size(), 1u);
      const bool transport = row[1] == "TCP" || row[1] == "UDP";
      if (row[0] == "-" || (!with_ip && !transport)) {
        EXPECT_EQ(results[0].id, 0u);
        continue;
      }
      EXPECT_EQ(results[0].stack, row[1]);
      EXPECT_NE(results[0].id, 0u);
      const auto [at, made] = flows.emplace(row[0], results[0].id);
      EXPECT_EQ(at->second, results[0].id) << "flow " << row[0];
      for (const auto &[letter, id] : flows) {
        EXPECT_TRUE(letter == row[0] || id != results[0].id) << row[0] << " is " << letter;
      }
    }
    Close(h);
    dir.clear();
  }
}

// A host's custom rule on the TCP module names its connections: here the
// server 10.0.0.2 on port 8080.
TEST_F(WirePackets, CustomRulesNameConnections) {
  const kest_handle_t h = Open(false);
  const int myapp = kest_proto_add(h, "MYAPP", 0);
  ASSERT_GT(myapp, 0);
  ASSERT_EQ(kest_rule_add(h, myapp, "TCP", "10.0.0.2:8080"), 0);
  EXPECT_EQ(kest_rule_add(h, myapp, "TCP", ":70000"), 0); // written, refused by each thread
  ASSERT_EQ(kest_init(h), 0);
  const std::vector<Bytes> tcp = Packets("tcp");
  EXPECT_EQ(Send(h, {tcp[0], tcp[1], tcp[2]})[1].stack, "TCP/MYAPP");
  // Once removed, new connections are plain TCP again.
  ASSERT_EQ(kest_rule_remove(h, myapp, "TCP", "10.0.0.2:8080"), 0);
  kest_idle(h);
  EXPECT_EQ(Send(h, {tcp[0], tcp[1]})[1].stack, "TCP");
  Close(h);
}

} // namespace
