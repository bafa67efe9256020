// The packed TLS plug-in with the transports and the whole-packet decoder:
// the loopback capture, and hellos cut into TCP segments at every byte, from
// either side first, one side only, and non-TLS bytes on a TLS port.
#include "HelloSamples.h"

#include "PluginFolder.h"

#include <gtest/gtest.h>
#include <kest.h>
#include <map>
#include <string>
#include <vector>

#ifdef KEST_TEST_HAVE_PCAP
#include <pcap/pcap.h>
#endif

namespace {

using Bytes = std::vector<uint8_t>;
using Attrs = std::map<std::string, std::string>;

const char *const kNames[] = {"tls.server_name", "tls.alpn", "tls.version",
                              "tls.client_fingerprint"};

// Per connection number: its stack and what was published for it.
struct Seen {
  std::map<kest_conn_id_t, std::string> stacks;
  std::map<kest_conn_id_t, Attrs> attrs;
  std::map<int, std::string> key_names;
  // Values that came twice for one connection.
  int repeats = 0;
};

Seen *g_seen = nullptr;

int OnAttr(kest_handle_t, kest_conn_id_t id, int key, int length, const void *value, int packed,
           void *) {
  EXPECT_EQ(packed & 0xFFFF, 0) << "values come whole";
  auto name = g_seen->key_names.find(key);
  if (name == g_seen->key_names.end()) {
    return 0;
  }
  Attrs &attrs = g_seen->attrs[id];
  g_seen->repeats += attrs.count(name->second) != 0 ? 1 : 0;
  attrs[name->second] = std::string(static_cast<const char *>(value), static_cast<size_t>(length));
  return 0;
}

int OnResult(kest_handle_t h, kest_result_t *result, int, kest_conn_id_t id, void *, int) {
  std::string names;
  kest_result_t cursor = *result;
  for (kest_proto_first(h, &cursor); kest_proto_valid(h, &cursor) != 0;
       kest_proto_next(h, &cursor)) {
    char name[32];
    const char *got = kest_proto_get_name(h, kest_proto_get_index(h, &cursor), name, sizeof name);
    names += (names.empty() ? "" : "/") + std::string(got != nullptr ? got : "?");
  }
  g_seen->stacks[id] = names;
  return 0;
}

Bytes FromHex(const char *hex) {
  Bytes out;
  for (size_t i = 0; hex[i] != '\0' && hex[i + 1] != '\0'; i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex + i, 2), nullptr, 16)));
  }
  return out;
}

// One record around the message, as a TCP side sends it.
Bytes Record(const char *hex) {
  const Bytes m = FromHex(hex);
  // Sized first: GCC's bounds check misreads an insert behind a short list.
  Bytes out(5 + m.size());
  const uint8_t header[5] = {22, 3, 1, static_cast<uint8_t>(m.size() >> 8),
                             static_cast<uint8_t>(m.size())};
  std::copy(header, header + 5, out.begin());
  std::copy(m.begin(), m.end(), out.begin() + 5);
  return out;
}

class TlsPlugin : public kest_test::PluginFolderFixture {
protected:
  void SetUp() override {
    PluginFolderFixture::SetUp();
    g_seen = &seen;
    h = kest_open(
        Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG, KEST_TEST_TLS_PLG})
            .c_str());
    ASSERT_GT(h, 0);
    ASSERT_EQ(kest_init(h), 0);
    for (const char *name : kNames) {
      ASSERT_EQ(kest_attr_callback_set(h, name, OnAttr), 0) << name;
    }
    kest_idle(h);
    for (const char *name : kNames) {
      const int key = kest_attr_key_get(h, name);
      ASSERT_GT(key, 0) << name;
      seen.key_names[key] = name;
    }
  }
  void TearDown() override {
    if (h > 0) {
      EXPECT_EQ(kest_fini(h), 0);
      EXPECT_EQ(kest_close(h), 0);
      EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
    }
    g_seen = nullptr;
    PluginFolderFixture::TearDown();
  }

  void Classify(int form, const uint8_t *data, size_t n) {
    kest_classify(h, form, data, static_cast<uint16_t>(n), nullptr, 0, OnResult, nullptr);
  }

  // An IPv4 TCP segment of connection `client_port` <-> 10.0.0.2:`port`,
  // from the client (side 0) or the server. Sequence numbers start at 1000
  // on both sides.
  void Segment(int side, uint16_t client_port, uint16_t port, uint32_t offset, const uint8_t *data,
               size_t n) {
    const uint16_t total = static_cast<uint16_t>(40 + n);
    const uint16_t sport = side == 0 ? client_port : port, dport = side == 0 ? port : client_port;
    const uint32_t seq = 1000 + offset;
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
               static_cast<uint8_t>(side == 0 ? 2 : 1),
               static_cast<uint8_t>(sport >> 8),
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
               0x18,
               0xFF,
               0xFF,
               0,
               0,
               0,
               0};
    uint32_t sum = 0;
    for (size_t i = 0; i < 20; i += 2) {
      sum += static_cast<uint32_t>(p[i] << 8 | p[i + 1]);
    }
    while (sum >> 16) {
      sum = (sum & 0xFFFF) + (sum >> 16);
    }
    p[10] = static_cast<uint8_t>(~sum >> 8);
    p[11] = static_cast<uint8_t>(~sum);
    p.insert(p.end(), data, data + n);
    Classify(KEST_SELECTOR_IP, p.data(), p.size());
  }

  // Sends `stream` from `side` in pieces ending at `cuts`.
  void Send(int side, uint16_t client_port, uint16_t port, const Bytes &stream,
            const std::vector<size_t> &cuts) {
    size_t from = 0;
    for (size_t i = 0; i <= cuts.size(); ++i) {
      const size_t to = i < cuts.size() ? cuts[i] : stream.size();
      if (to > from) {
        Segment(side, client_port, port, static_cast<uint32_t>(from), stream.data() + from,
                to - from);
      }
      from = to;
    }
  }

  // The one connection whose stack is `stack`, with its attributes.
  std::vector<Attrs> WithStack(const std::string &stack) {
    std::vector<Attrs> out;
    for (const auto &[id, names] : seen.stacks) {
      if (names == stack) {
        auto it = seen.attrs.find(id);
        out.push_back(it != seen.attrs.end() ? it->second : Attrs());
      }
    }
    return out;
  }

  Seen seen;
  kest_handle_t h = -1;
};

const std::string kBrowserFingerprint = "t13d1517h2_8daaf6152771_b1ff8ab2d16f";

// The ClientHello cut at every byte into two segments, and at a spread of
// places into three, each on a connection of its own on a port no rule
// names: every one gives the same attributes and the stack TCP, TLS.
TEST_F(TlsPlugin, SplitInvariance) {
  const Bytes client = Record(tls_samples::kChromeClientHello);
  const Bytes server = Record(tls_samples::kServerHello13);
  const Attrs want = {{"tls.server_name", "cloudflare-ech.com"},
                      {"tls.alpn", "h2,http/1.1"},
                      {"tls.version", "1.3"},
                      {"tls.client_fingerprint", kBrowserFingerprint}};
  uint16_t port = 20000;
  size_t runs = 0;
  for (size_t i = 1; i < client.size(); ++i) {
    Send(0, port++, 4433, client, {i});
    Send(1, static_cast<uint16_t>(port - 1), 4433, server, {});
    ++runs;
  }
  for (size_t i = 1; i < client.size(); i += 13) {
    for (size_t j = i + 1; j < client.size(); j += 37) {
      Send(0, port++, 4433, client, {i, j});
      Send(1, static_cast<uint16_t>(port - 1), 4433, server, {j % 50 + 1});
      ++runs;
    }
  }
  const std::vector<Attrs> tls = WithStack("TCP/TLS");
  ASSERT_EQ(tls.size(), runs);
  for (const Attrs &attrs : tls) {
    ASSERT_EQ(attrs, want);
  }
  EXPECT_EQ(seen.repeats, 0);
}

TEST_F(TlsPlugin, EitherSideOrOneSide) {
  const Bytes client = Record(tls_samples::kCurlClientHello);
  const Bytes server = Record(tls_samples::kServerHello12);
  // The server's hello first, the client's after it.
  Send(1, 30000, 443, server, {7});
  Send(0, 30000, 443, client, {100});
  // Only the server's: its chosen ALPN stands in for the list.
  Send(1, 30001, 443, server, {});
  for (int i = 0; i < 6; ++i) {
    Segment(1, 30001, 443, static_cast<uint32_t>(server.size() + i), server.data(), 1);
  }
  // Only the client's: no version.
  Send(0, 30002, 8443, client, {});
  const std::vector<Attrs> tls = WithStack("TCP/TLS");
  ASSERT_EQ(tls.size(), 3u);
  const Attrs curl_client = {{"tls.server_name", "www.ntop.org"},
                             {"tls.alpn", "h2,http/1.1"},
                             {"tls.client_fingerprint", "t12d6707h2_2955a3196ffa_c83f907a73d3"}};
  Attrs both = curl_client;
  both["tls.version"] = "1.2";
  EXPECT_EQ(tls[0], both);
  EXPECT_EQ(tls[1], (Attrs{{"tls.alpn", "h2"}, {"tls.version", "1.2"}}));
  EXPECT_EQ(tls[2], curl_client);
  EXPECT_EQ(seen.repeats, 0);
}

// Other bytes on the TLS ports are not TLS, and a broken hello names nothing.
TEST_F(TlsPlugin, NotTls) {
  const std::string get = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";
  Send(0, 31000, 443, Bytes(get.begin(), get.end()), {});
  Bytes broken = Record(tls_samples::kChromeClientHello);
  broken[5 + 4] = 2; // hello version 2.x
  Send(0, 31001, 443, broken, {300});
  Bytes alert = {21, 3, 3, 0, 2, 2, 40};
  Send(0, 31002, 993, alert, {});
  EXPECT_TRUE(WithStack("TCP/TLS").empty());
  EXPECT_EQ(WithStack("TCP").size(), 3u);
  EXPECT_TRUE(seen.attrs.empty());
}

#ifdef KEST_TEST_HAVE_PCAP
TEST_F(TlsPlugin, LoopbackCapture) {
  char error[PCAP_ERRBUF_SIZE];
  pcap_t *pcap = pcap_open_offline(KEST_TEST_LOOPBACK_PCAP, error);
  ASSERT_NE(pcap, nullptr) << error;
  ASSERT_EQ(pcap_datalink(pcap), DLT_EN10MB);
  pcap_pkthdr *header;
  const u_char *data;
  while (pcap_next_ex(pcap, &header, &data) == 1) {
    // A copy of its own each, so that a read past a packet is caught.
    const Bytes copy(data, data + header->caplen);
    Classify(KEST_SELECTOR_ETHERNET, copy.data(), copy.size());
  }
  pcap_close(pcap);
  const std::vector<Attrs> tls = WithStack("TCP/TLS");
  ASSERT_EQ(tls.size(), 1u) << "only the connection on 4433 is TLS";
  const Attrs &attrs = tls[0];
  EXPECT_EQ(attrs.at("tls.server_name"), "example.test");
  EXPECT_EQ(attrs.at("tls.alpn"), "h2,http/1.1");
  EXPECT_EQ(attrs.at("tls.version"), "1.3");
  EXPECT_EQ(attrs.at("tls.client_fingerprint").size(), 36u);
  EXPECT_EQ(seen.repeats, 0);
}
#endif

} // namespace
