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
      Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_PACKET_PLG, KEST_TEST_HTTP_PLG})
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
