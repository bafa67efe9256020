// The packed QUIC plug-in on the road: the transports, the whole-packet
// decoder and quic.plg in one folder (with and without tls.plg, which owns
// the TLS attribute names when it is there), whole UDP packets through
// kest_classify, the stack and the attributes as a host sees them.
#include "PluginFolder.h"
#include "QuicBuild.h"
#include "QuicVectors.h"
#include "StackNames.h"

#include <gtest/gtest.h>
#include <kest.h>

#include <map>
#include <string>
#include <vector>

namespace {

using namespace quic_test;

const char *const kNames[] = {"quic.version", "tls.server_name", "tls.alpn"};

std::vector<std::string> g_values;
std::map<int, std::string> g_keys;

int Listen(kest_handle_t, kest_conn_id_t, int key, int length, const void *value, int, void *) {
  g_values.push_back(g_keys[key] + "=" +
                     std::string(static_cast<const char *>(value), static_cast<size_t>(length)));
  return 0;
}

using kest_test::LastStack;

// An IPv4 UDP packet; the decoders do not check sums.
Bytes Udp(uint8_t src_host, uint8_t dst_host, uint16_t sport, uint16_t dport,
          const Bytes &payload) {
  const size_t udp_length = 8 + payload.size();
  const size_t total = 20 + udp_length;
  Bytes p = {0x45,
             0,
             static_cast<uint8_t>(total >> 8),
             static_cast<uint8_t>(total),
             0,
             0,
             0x40,
             0,
             64,
             17,
             0,
             0,
             10,
             0,
             0,
             src_host,
             10,
             0,
             0,
             dst_host};
  const Bytes udp = {static_cast<uint8_t>(sport >> 8),
                     static_cast<uint8_t>(sport),
                     static_cast<uint8_t>(dport >> 8),
                     static_cast<uint8_t>(dport),
                     static_cast<uint8_t>(udp_length >> 8),
                     static_cast<uint8_t>(udp_length),
                     0,
                     0};
  p.insert(p.end(), udp.begin(), udp.end());
  p.insert(p.end(), payload.begin(), payload.end());
  return p;
}

class QuicPluginRuns : public kest_test::PluginFolderFixture,
                       public testing::WithParamInterface<bool> {
protected:
  kest_handle_t Open() {
    std::vector<const char *> files = {KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG,
                                       KEST_TEST_QUIC_PLG};
    const bool with_tls = GetParam();
    const kest_handle_t h =
        kest_open((with_tls ? Folder({files[0], files[1], files[2], files[3], KEST_TEST_TLS_PLG})
                            : Folder({files[0], files[1], files[2], files[3]}))
                      .c_str());
    EXPECT_GT(h, 0);
    EXPECT_EQ(kest_init(h), 0);
    for (const char *name : kNames) {
      EXPECT_EQ(kest_attr_callback_set(h, name, Listen), 0) << name;
    }
    kest_idle(h);
    g_keys.clear();
    for (const char *name : kNames) {
      g_keys[kest_attr_key_get(h, name)] = name;
    }
    g_values.clear();
    return h;
  }
  void Close(kest_handle_t h) {
    EXPECT_EQ(kest_fini(h), 0);
    EXPECT_EQ(kest_close(h), 0);
  }
  // Packets in order, each from its side's host and port; the stack after
  // the last one.
  std::string Run(kest_handle_t h, const std::vector<std::pair<int, Bytes>> &datagrams,
                  uint16_t server_port) {
    std::string stack;
    for (const auto &[side, payload] : datagrams) {
      const Bytes packet = side == 0 ? Udp(1, 2, 50123, server_port, payload)
                                     : Udp(2, 1, server_port, 50123, payload);
      kest_classify(h, KEST_SELECTOR_IP, packet.data(), static_cast<uint16_t>(packet.size()),
                    nullptr, 0, LastStack, &stack);
    }
    return stack;
  }
};

// The published client Initials, on a port of no meaning and on 443.
TEST_P(QuicPluginRuns, PublishedInitials) {
  const kest_handle_t h = Open();
  const struct {
    const char *packet;
    uint16_t port;
    const char *version;
  } runs[] = {{kV1ClientInitial, 4433, "1"}, {kV2ClientInitial, 443, "2"}};
  for (const auto &run : runs) {
    g_values.clear();
    EXPECT_EQ(Run(h, {{0, Hex(run.packet)}}, run.port), "UDP/QUIC");
    EXPECT_EQ(g_values, (std::vector<std::string>{std::string("quic.version=") + run.version,
                                                  "tls.server_name=example.com", "tls.alpn=alpn"}));
  }
  Close(h);
}

// A hello across two Initials sent in the wrong order, after a server
// packet that the client's keys do not open: read once both are in.
TEST_P(QuicPluginRuns, HelloAcrossPackets) {
  const kest_handle_t h = Open();
  const Bytes frame = Hex(kCryptoFrame);
  const Bytes hello(frame.begin() + 4, frame.end());
  const Bytes dcid = Hex("1122334455667788"), scid = Hex("01020304");
  const size_t cut = 77;
  const Bytes second =
      ClientInitial(1, dcid, scid, 1, CryptoFrame(cut, hello.data() + cut, hello.size() - cut));
  const Bytes first = ClientInitial(1, dcid, scid, 0, CryptoFrame(0, hello.data(), cut));
  // A server Initial under other keys (its own connection IDs).
  const Bytes server = ClientInitial(1, Hex("0a0b0c0d"), dcid, 0, Bytes{0x01}, 40);
  EXPECT_EQ(Run(h, {{0, second}}, 61000), "UDP/QUIC");
  EXPECT_EQ(g_values, (std::vector<std::string>{"quic.version=1"}));
  EXPECT_EQ(Run(h, {{1, server}, {0, first}}, 61000), "UDP/QUIC");
  EXPECT_EQ(g_values, (std::vector<std::string>{"quic.version=1", "tls.server_name=example.com",
                                                "tls.alpn=alpn"}));
  Close(h);
}

// Not named: short headers only, an unknown version, and noise on 443;
// named from the server's side alone by a version negotiation packet, and
// read on when the client tries again.
TEST_P(QuicPluginRuns, WhatIsAndIsNotNamed) {
  const kest_handle_t h = Open();
  Bytes short_header(60, 0x5a);
  short_header[0] = 0x41;
  EXPECT_EQ(Run(h, {{0, short_header}, {1, short_header}, {0, short_header}}, 443), "UDP");
  Bytes unknown = Hex(kV1ClientInitial);
  unknown[1] = 0x51; // a version number of the older Google protocol's kind
  EXPECT_EQ(Run(h, {{0, unknown}}, 8443), "UDP");
  EXPECT_EQ(Run(h, {{0, Hex("c000000001ff00")}}, 853), "UDP");
  EXPECT_EQ(g_values, std::vector<std::string>{});
  const Bytes negotiation = Hex("8a000000000401020304"
                                "04a1b2c3d4"
                                "000000016b3343cf");
  EXPECT_EQ(Run(h, {{1, negotiation}}, 784), "UDP/QUIC");
  EXPECT_EQ(g_values, (std::vector<std::string>{"quic.version=0x00000000"}));
  // The client's next try, in a version both speak, is still read.
  EXPECT_EQ(Run(h, {{0, Hex(kV1ClientInitial)}}, 784), "UDP/QUIC");
  EXPECT_EQ(g_values, (std::vector<std::string>{"quic.version=0x00000000", "quic.version=1",
                                                "tls.server_name=example.com", "tls.alpn=alpn"}));
  Close(h);
}

// Google's QUIC: a Q025 client packet of http_ipv6.pcap, its hash and
// hello up to the server name (the hello's later values cut off), on a port
// of no meaning; a Q046 long header; near misses, on a flow of their own,
// that are not named.
TEST_P(QuicPluginRuns, GoogleQuic) {
  const kest_handle_t h = Open();
  Bytes q025 = Hex("0d49bee2d3f0edccd6"
                   "51303235"
                   "01"
                   "d8697e21ab650d33f17a3cf3"
                   "00a0010004"
                   "43484c4f"
                   "0300"
                   "0000"
                   "50414400"
                   "04000000"
                   "534e4900"
                   "11000000"
                   "56455200"
                   "15000000"
                   "2d2d2d2d"
                   "7777772e676f6f676c652e6974");
  EXPECT_EQ(Run(h, {{0, q025}}, 61001), "UDP/QUIC");
  EXPECT_EQ(g_values,
            (std::vector<std::string>{"quic.version=Q025", "tls.server_name=www.google.it"}));
  g_values.clear();
  const Bytes q046 = Hex("c3"
                         "51303436"
                         "50"
                         "1122334455667788"
                         "00000001"
                         "c4c7f61ab7c2b6949c7fc5f0");
  EXPECT_EQ(Run(h, {{0, q046}}, 443), "UDP/QUIC");
  EXPECT_EQ(g_values, (std::vector<std::string>{"quic.version=Q046"}));
  g_values.clear();
  Bytes letters = q025;
  letters[11] = 'A';
  Bytes no_version = q025;
  no_version[0] = 0x0c;
  EXPECT_EQ(Run(h, {{0, letters}, {0, no_version}, {1, no_version}}, 8443), "UDP");
  EXPECT_EQ(g_values, std::vector<std::string>{});
  Close(h);
}

INSTANTIATE_TEST_SUITE_P(TlsPlugin, QuicPluginRuns, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool> &info) {
                           return info.param ? std::string("WithTls") : std::string("Alone");
                         });

} // namespace
