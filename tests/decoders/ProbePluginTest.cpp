// A plug-in attaches an inspector to a TCP port through the decoder's rule
// store, and the host sees its verdicts and its protocol on the stack.
#include "PluginFolder.h"
#include "tests/decoders/DecoderTestSupport.h"

#include <mutex>

namespace {

std::mutex g_lock;
std::vector<std::string> g_seen;

} // namespace

extern "C" __attribute__((visibility("default"))) void kest_test_probe_record(const char *data,
                                                                              unsigned length) {
  std::lock_guard<std::mutex> hold(g_lock);
  g_seen.emplace_back(data, length);
}

namespace {

int Record(kest_handle_t h, kest_result_t *result, int code, kest_conn_id_t, void *user, int) {
  static_cast<std::vector<std::string> *>(user)->push_back(kest_test::StackNames(h, *result) + " " +
                                                           std::to_string(code));
  return 0;
}

class ProbePluginTest : public kest_test::PluginFolderFixture {
protected:
  kest_conn_t Connect(kest_handle_t h, uint16_t port) {
    kest_endpoint_t src{KEST_FAMILY_IPV4, htons(40000), {10, 0, 0, 1}};
    kest_endpoint_t dst{KEST_FAMILY_IPV4, htons(port), {10, 0, 0, 2}};
    kest_conn_t conn = nullptr;
    EXPECT_EQ(kest_conn_create(h, &src, &dst, 6, &conn), 0);
    return conn;
  }
  std::string Classify(kest_handle_t h, kest_conn_t conn, int side, const std::string &payload) {
    std::vector<std::string> results;
    EXPECT_EQ(kest_classify(h, KEST_SELECTOR_CONN, payload.data(),
                            static_cast<uint16_t>(payload.size()), conn, side, Record, &results),
              0);
    return results.size() == 1 ? results[0] : "?";
  }
};

TEST_F(ProbePluginTest, InspectorOnAPortSeesItsConnectionsOnly) {
  const kest_handle_t h =
      kest_open(Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_PROBE_PLG}).c_str());
  ASSERT_GT(h, 0);
  ASSERT_EQ(kest_init(h), 0);
  g_seen.clear();

  kest_conn_t web = Connect(h, 8080);
  kest_conn_t other = Connect(h, 9090);
  kest_conn_t gives_up = Connect(h, 8080);
  struct Step {
    kest_conn_t conn;
    int side;
    const char *payload;
    const char *result;
  } steps[] = {
      {web, 0, "hello", "TCP/PROBE 1"},
      {other, 0, "hello", "TCP 1"},
      {web, 1, "reply", "TCP/PROBE 1"},
      {web, 0, "done", "TCP/PROBE 3"},
      // The chain is empty now: the transport has nothing more to say.
      {web, 1, "later", "TCP/PROBE 1"},
      {gives_up, 0, "abandon", "TCP/PROBE 3"},
      {gives_up, 0, "more", "TCP/PROBE 1"},
  };
  for (const Step &s : steps) {
    SCOPED_TRACE(s.payload);
    EXPECT_EQ(Classify(h, s.conn, s.side, s.payload), s.result);
  }
  EXPECT_EQ(g_seen, (std::vector<std::string>{"hello", "reply", "done", "abandon"}));
  EXPECT_EQ(kest_fini(h), 0);
  EXPECT_EQ(kest_close(h), 0);
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
}

} // namespace
