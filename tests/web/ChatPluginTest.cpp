// A plug-in derived from WebDpi inspects its protocol end to end through
// kest_classify, and its attributes reach the host's listener.
#include "PluginFolder.h"
#include "tests/decoders/DecoderTestSupport.h"

namespace {

std::vector<std::string> g_values;

int Listen(kest_handle_t, kest_conn_id_t, int, int length, const void *value, int, void *) {
  g_values.emplace_back(static_cast<const char *>(value), static_cast<size_t>(length));
  return 0;
}

int Record(kest_handle_t h, kest_result_t *result, int code, kest_conn_id_t, void *user, int) {
  static_cast<std::vector<std::string> *>(user)->push_back(kest_test::StackNames(h, *result) + " " +
                                                           std::to_string(code));
  return 0;
}

class ChatPluginTest : public kest_test::PluginFolderFixture {};

TEST_F(ChatPluginTest, MessagesAndAttributesThroughClassify) {
  const kest_handle_t h =
      kest_open(Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_CHAT_PLG}).c_str());
  ASSERT_GT(h, 0);
  ASSERT_EQ(kest_init(h), 0);
  for (const char *name : {"chat.request.uri", "chat.request.header.Nick", "chat.response.code",
                           "chat.response.body"}) {
    ASSERT_EQ(kest_attr_callback_set(h, name, Listen), 0) << name;
  }
  g_values.clear();
  kest_endpoint_t src{KEST_FAMILY_IPV4, htons(40000), {10, 0, 0, 1}};
  kest_endpoint_t dst{KEST_FAMILY_IPV4, htons(7000), {10, 0, 0, 2}};
  kest_conn_t chat = nullptr, other = nullptr;
  ASSERT_EQ(kest_conn_create(h, &src, &dst, 6, &chat), 0);
  ASSERT_EQ(kest_conn_create(h, &src, &dst, 6, &other), 0);
  std::vector<std::string> results;
  auto send = [&](kest_conn_t conn, int side, const std::string &bytes) {
    return kest_classify(h, KEST_SELECTOR_CONN, bytes.data(), static_cast<uint16_t>(bytes.size()),
                         conn, side, Record, &results);
  };
  EXPECT_EQ(send(chat, 0, "SAY /hello CHAT/1.0\r\nNick: bob\r\n\r\n"), 0);
  EXPECT_EQ(send(chat, 1, "CHAT/1.0 200 OK\r\nContent-Length: 4\r\n\r\nhi"), 0);
  EXPECT_EQ(send(chat, 1, "!!"), 0);
  EXPECT_EQ(send(other, 0, "hello there\r\n"), 0);
  // The launcher leaves the chain (code 3); then the message inspector answers
  // through its registrations, "nothing yet" (code 1). A line of another
  // protocol gives the connection back to TCP.
  EXPECT_EQ(results, (std::vector<std::string>{"TCP/CHAT 3", "TCP/CHAT 1", "TCP/CHAT 1", "TCP 3"}));
  EXPECT_EQ(g_values, (std::vector<std::string>{"/hello", "bob", "200", "hi", "!!"}));
  EXPECT_EQ(kest_fini(h), 0);
  EXPECT_EQ(kest_close(h), 0);
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
}

} // namespace
