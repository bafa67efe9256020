// The packed decoders end to end on the project's loopback capture: whole
// Ethernet frames through kest_classify, the HTTP connections named on their
// bytes and their messages published as attributes.
#include "PluginFolder.h"
#include "tests/decoders/DecoderTestSupport.h"

#include <map>
#include <pcap/pcap.h>
#include <set>
#include <string>
#include <vector>

namespace {

struct Seen {
  // Per connection: the stacks reported, and the attribute values by name.
  std::map<kest_conn_id_t, std::set<std::string>> stacks;
  std::map<kest_conn_id_t, std::map<std::string, std::vector<std::string>>> attrs;
  std::map<int, std::string> names;
  std::string pending;
};
Seen *g_seen = nullptr;

int OnResult(kest_handle_t h, kest_result_t *result, int, kest_conn_id_t id, void *, int) {
  g_seen->stacks[id].insert(kest_test::StackNames(h, *result));
  return 0;
}

int OnAttr(kest_handle_t, kest_conn_id_t id, int key, int length, const void *value, int more,
           void *) {
  g_seen->pending.append(static_cast<const char *>(value), static_cast<size_t>(length));
  if ((more & 1) == 0) {
    g_seen->attrs[id][g_seen->names[key]].push_back(g_seen->pending);
    g_seen->pending.clear();
  }
  return 0;
}

class HttpLoopbackTest : public kest_test::PluginFolderFixture {};

TEST_F(HttpLoopbackTest, StackAndAttributes) {
  Seen seen;
  g_seen = &seen;
  const kest_handle_t h = kest_open(
      Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG, KEST_TEST_HTTP_PLG})
          .c_str());
  ASSERT_GT(h, 0);
  ASSERT_EQ(kest_init(h), 0);
  for (const char *name : {"http.request.method", "http.request.uri", "http.request.header.host",
                           "http.response.code"}) {
    ASSERT_EQ(kest_attr_callback_set(h, name, OnAttr), 0) << name;
  }
  // Listeners and identifiers reach the thread in its idle pass.
  kest_idle(h);
  for (const char *name : {"http.request.method", "http.request.uri", "http.request.header.host",
                           "http.response.code"}) {
    seen.names[kest_attr_key_get(h, name)] = name;
  }
  char error[PCAP_ERRBUF_SIZE];
  pcap_t *pcap = pcap_open_offline(KEST_TEST_LOOPBACK_PCAP, error);
  ASSERT_NE(pcap, nullptr) << error;
  ASSERT_EQ(pcap_datalink(pcap), DLT_EN10MB);
  pcap_pkthdr *header;
  const u_char *data;
  while (pcap_next_ex(pcap, &header, &data) == 1) {
    std::vector<uint8_t> frame(data, data + header->caplen);
    kest_classify(h, KEST_SELECTOR_ETHERNET, frame.data(), static_cast<uint16_t>(frame.size()),
                  nullptr, 0, OnResult, nullptr);
  }
  pcap_close(pcap);
  EXPECT_EQ(kest_fini(h), 0);
  EXPECT_EQ(kest_close(h), 0);
  g_seen = nullptr;

  // Every connection that published HTTP attributes is TCP/HTTP, and only
  // those are.
  std::multiset<std::string> methods;
  int with_host = 0;
  for (const auto &[id, stacks] : seen.stacks) {
    const bool http = stacks.count("TCP/HTTP") != 0;
    EXPECT_EQ(http, seen.attrs.count(id) != 0) << "connection " << id;
    if (!http) {
      continue;
    }
    const auto &attrs = seen.attrs[id];
    const auto method = attrs.find("http.request.method");
    ASSERT_NE(method, attrs.end()) << "connection " << id;
    methods.insert(method->second.begin(), method->second.end());
    const auto uri = attrs.find("http.request.uri");
    ASSERT_NE(uri, attrs.end());
    EXPECT_EQ(uri->second.size(), method->second.size());
    for (const std::string &u : uri->second) {
      EXPECT_EQ(u.substr(0, 1), "/");
    }
    const auto codes = attrs.find("http.response.code");
    ASSERT_NE(codes, attrs.end());
    EXPECT_EQ(codes->second, std::vector<std::string>(method->second.size(), "200"));
    const auto host = attrs.find("http.request.header.host");
    if (host != attrs.end() && host->second.front() == "example.test:8080") {
      ++with_host;
    }
  }
  EXPECT_EQ(methods.count("GET"), 3u);
  EXPECT_EQ(methods.count("HEAD"), 1u);
  EXPECT_GE(with_host, 1);
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
}

} // namespace

namespace {

int OnStack(kest_handle_t h, kest_result_t *result, int, kest_conn_id_t, void *user, int) {
  *static_cast<std::string *>(user) = kest_test::StackNames(h, *result);
  return 0;
}

// Host-made connections on ports HTTP is not known on: the bytes decide.
class HttpConnTest : public kest_test::PluginFolderFixture {
protected:
  void SetUp() override {
    PluginFolderFixture::SetUp();
    h = kest_open(Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_HTTP_PLG}).c_str());
    ASSERT_GT(h, 0);
    ASSERT_EQ(kest_init(h), 0);
  }
  void TearDown() override {
    EXPECT_EQ(kest_fini(h), 0);
    EXPECT_EQ(kest_close(h), 0);
    PluginFolderFixture::TearDown();
  }
  // The stack after each payload, side by side.
  std::vector<std::string> Run(uint16_t port, const std::vector<std::pair<int, std::string>> &talk,
                               bool chameleon = false) {
    kest_endpoint_t src{KEST_FAMILY_IPV4, htons(40000), {10, 0, 0, 1}};
    kest_endpoint_t dst{KEST_FAMILY_IPV4, htons(port), {10, 0, 0, 2}};
    // The policy of new connections follows the setting from the next idle
    // pass on.
    EXPECT_EQ(kest_config_set(h, "conn.default_policy.chameleon", chameleon ? "1" : "0"), 0);
    kest_idle(h);
    kest_conn_t conn = nullptr;
    EXPECT_EQ(kest_conn_create(h, &src, &dst, 6, &conn), 0);
    std::vector<std::string> stacks;
    for (const auto &[side, bytes] : talk) {
      std::string stack;
      kest_classify(h, KEST_SELECTOR_CONN, bytes.data(), static_cast<uint16_t>(bytes.size()), conn,
                    side, OnStack, &stack);
      stacks.push_back(stack);
    }
    kest_conn_destroy(h, conn);
    return stacks;
  }
  kest_handle_t h = -1;
};

TEST_F(HttpConnTest, AnyPortEitherSideFirst) {
  // A request line split over three segments, on 8081.
  EXPECT_EQ(Run(8081, {{0, "GE"}, {0, "T /x HT"}, {0, "TP/1.1\r\n\r\n"}}),
            (std::vector<std::string>{"TCP", "TCP", "TCP/HTTP"}));
  // The response first, then the next request on the same connection.
  EXPECT_EQ(Run(5555, {{1, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi"},
                       {0, "GET /next HTTP/1.1\r\n\r\n"}}),
            (std::vector<std::string>{"TCP/HTTP", "TCP/HTTP"}));
  // A malformed request that the server answers with a status line.
  EXPECT_EQ(Run(5555, {{0, "GET/ HTTP/1.1\r\n\r\n"}, {1, "HTTP/1.0 400 Bad Request\r\n\r\n"}}),
            (std::vector<std::string>{"TCP", "TCP/HTTP"}));
  // Neither side speaks HTTP.
  EXPECT_EQ(Run(80, {{0, "GETX / HTTP/1.1\r\n"}, {1, "SSH-2.0-x\r\n"}, {0, "more"}}),
            (std::vector<std::string>{"TCP", "TCP", "TCP"}));
  EXPECT_EQ(Run(8080, {{0, std::string("\x16\x03\x01\x00\x05hello", 10)}}),
            (std::vector<std::string>{"TCP"}));
}

TEST_F(HttpConnTest, UpgradeAndConnect) {
  EXPECT_EQ(
      Run(9000, {{0, "GET /chat HTTP/1.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n\r\n"},
                 {1, "HTTP/1.1 101 Switching Protocols\r\nUpgrade: WebSocket\r\n\r\n"},
                 {1, std::string("\x81\x02hi", 4)}}),
      (std::vector<std::string>{"TCP/HTTP", "TCP/HTTP/WebSocket", "TCP/HTTP/WebSocket"}));
  // Behind a CONNECT the connection is no longer read as HTTP; with the
  // chameleon policy the transport's other inspectors get the bytes (here
  // none is loaded, so the tunnel ends at once).
  for (bool chameleon : {false, true}) {
    const std::vector<std::string> stacks =
        Run(3128,
            {{0, "CONNECT example.test:443 HTTP/1.1\r\nHost: example.test:443\r\n\r\n"},
             {1, "HTTP/1.1 200 Connection established\r\n\r\n"},
             {0, std::string("\x16\x03\x01\x00\x05hello", 10)},
             {0, "GET / HTTP/1.1\r\n\r\n"}},
            chameleon);
    EXPECT_EQ(stacks[0], "TCP/HTTP");
    EXPECT_EQ(stacks[1], "TCP/HTTP");
  }
}

} // namespace

namespace {

// A host's rule on the HTTP module names a custom protocol by a header.
TEST_F(HttpConnTest, CustomRuleByHeader) {
  const int app = kest_proto_add(h, "EXAPP", 0);
  ASSERT_GT(app, 0);
  ASSERT_EQ(kest_rule_add(h, app, "HTTP", "Host = *.example.com"), 0);
  kest_idle(h);
  EXPECT_EQ(Run(8000, {{0, "GET / HTTP/1.1\r\nHost: api.example.com\r\n\r\n"},
                       {1, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"},
                       {0, "GET /2 HTTP/1.1\r\nHost: api.example.com\r\n\r\n"}}),
            (std::vector<std::string>{"TCP/HTTP/EXAPP", "TCP/HTTP/EXAPP", "TCP/HTTP/EXAPP"}));
  EXPECT_EQ(Run(8000, {{0, "GET / HTTP/1.1\r\nHost: example.org\r\n\r\n"}}),
            (std::vector<std::string>{"TCP/HTTP"}));
  // A host's rule on the transport names the connection before HTTP is
  // recognised: that name stays.
  ASSERT_EQ(kest_rule_add(h, app, "TCP", ":8088"), 0);
  kest_idle(h);
  EXPECT_EQ(Run(8088, {{0, "GET / HTTP/1.1\r\nHost: example.org\r\n\r\n"}}),
            (std::vector<std::string>{"TCP/EXAPP"}));
}

} // namespace
