// FTP's announced data connections through the packed line-dialogue
// plug-ins: the connections themselves, which the conversation tables
// (banners.conv) cannot express. Side 0 is the client.
#include "tests/support/LeakCheck.h"
#include "tests/support/PluginFolder.h"

#include <arpa/inet.h>
#include <map>
#include <string.h>
#include <string>
#include <utility>
#include <vector>

namespace {

using Steps = std::vector<std::pair<int, std::string>>;
using Attrs = std::map<std::string, std::string>;

const char *const kNames[] = {"ftp.user"};

struct Conversation {
  const char *what;
  uint16_t port;
  Steps steps;
  const char *app;
  Attrs attrs;
  // The connection's policy lets it change protocol.
  bool chameleon = true;
};

Attrs g_attrs;
std::map<int, std::string> g_keys;

int Listen(kest_handle_t, kest_conn_id_t, int key, int length, const void *value, int, void *) {
  g_attrs[g_keys[key]].append(static_cast<const char *>(value), static_cast<size_t>(length));
  return 0;
}

int Record(kest_handle_t h, kest_result_t *result, int, kest_conn_id_t, void *user, int) {
  std::string names;
  for (kest_proto_first(h, result); kest_proto_valid(h, result) != 0; kest_proto_next(h, result)) {
    char name[32];
    const char *got = kest_proto_get_name(h, kest_proto_get_index(h, result), name, sizeof name);
    names += (names.empty() ? "" : "/") + std::string(got != nullptr ? got : "?");
  }
  *static_cast<std::string *>(user) = names;
  return 0;
}

class BannerConversations : public kest_test::PluginFolderFixture {
protected:
  void SetUp() override {
    PluginFolderFixture::SetUp();
    h = kest_open(Folder({KEST_TEST_BANNER_PLGS}).c_str());
    ASSERT_GT(h, 0);
    ASSERT_EQ(kest_init(h), 0);
    for (const char *name : kNames) {
      ASSERT_EQ(kest_attr_callback_set(h, name, Listen), 0) << name;
    }
    kest_idle(h);
    for (const char *name : kNames) {
      g_keys[kest_attr_key_get(h, name)] = name;
    }
  }
  void TearDown() override {
    EXPECT_EQ(kest_fini(h), 0);
    EXPECT_EQ(kest_close(h), 0);
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
    PluginFolderFixture::TearDown();
  }

  // Runs the steps on a new connection, each step cut before byte `cut`
  // (none when 0 or beyond it); the stack of the last result.
  std::string Run(const Conversation &c, size_t cut) {
    g_attrs.clear();
    if (c.chameleon != chameleon) {
      // New connections take the setting from the next idle pass on.
      chameleon = c.chameleon;
      EXPECT_EQ(kest_config_set(h, "conn.default_policy.chameleon", chameleon ? "1" : "0"), 0);
      kest_idle(h);
    }
    kest_endpoint_t client{KEST_FAMILY_IPV4, htons(40000), {10, 0, 0, 1}};
    kest_endpoint_t server{KEST_FAMILY_IPV4, htons(c.port), {10, 0, 0, 2}};
    kest_conn_t conn = nullptr;
    EXPECT_EQ(kest_conn_create(h, &client, &server, 6, &conn), 0);
    std::string stack;
    for (const auto &[side, bytes] : c.steps) {
      std::vector<std::string> pieces{bytes};
      if (cut != 0 && cut < bytes.size()) {
        pieces = {bytes.substr(0, cut), bytes.substr(cut)};
      }
      for (const std::string &piece : pieces) {
        kest_classify(h, KEST_SELECTOR_CONN, piece.data(), static_cast<uint16_t>(piece.size()),
                      conn, side, Record, &stack);
      }
    }
    EXPECT_EQ(kest_conn_destroy(h, conn), 0);
    return stack;
  }

  kest_handle_t h = -1;
  bool chameleon = true;
};

// The data connections an FTP control connection announces are named
// FTP_DATA when they start, once each, at the announced address and at the
// announcing side's own (behind address translation they differ), and
// only while the policy allows future flows.
TEST_F(BannerConversations, FtpDataConnectionsAreExpected) {
  const Conversation control = {"ftp with transfers",
                                21,
                                {{1, "220 FTP server ready\r\n"},
                                 {0, "USER anonymous\r\n"},
                                 {1, "331 Password please\r\n"},
                                 {0, "PASV\r\n"},
                                 {1, "227 Entering Passive Mode (192,0,2,9,100,85).\r\n"},
                                 {0, "EPRT |2|2001:db8::5|6001|\r\n"},
                                 {1, "200 EPRT command successful\r\n"},
                                 {0, "EPSV\r\n"},
                                 {1, "229 Entering Extended Passive Mode (|||6446|)\r\n"},
                                 {0, "PORT 10,0,0,1,19,137\r\n"},
                                 {1, "200 PORT command successful\r\n"}},
                                "FTP",
                                {{"ftp.user", "anonymous"}}};
  const auto data = [&](const kest_endpoint_t &a, const kest_endpoint_t &b) {
    kest_conn_t conn = nullptr;
    EXPECT_EQ(kest_conn_create(h, &a, &b, 6, &conn), 0);
    std::string stack;
    const std::string bytes = "-rw-r--r-- 1 ftp ftp 1205 readme\r\n";
    kest_classify(h, KEST_SELECTOR_CONN, bytes.data(), static_cast<uint16_t>(bytes.size()), conn, 1,
                  Record, &stack);
    EXPECT_EQ(kest_conn_destroy(h, conn), 0);
    return stack;
  };
  const auto v4 = [](uint8_t last, uint16_t port) {
    return kest_endpoint_t{KEST_FAMILY_IPV4, htons(port), {10, 0, 0, last}};
  };
  kest_endpoint_t v6{KEST_FAMILY_IPV6, htons(6001), {}};
  const uint8_t v6_bytes[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5};
  memcpy(v6.address, v6_bytes, sizeof v6_bytes);
  kest_endpoint_t v6_server = v6;
  v6_server.port = htons(20);
  v6_server.address[15] = 9;
  const kest_endpoint_t translated{KEST_FAMILY_IPV4, htons(25685), {192, 0, 2, 9}};
  for (bool follow : {true, false}) {
    ASSERT_EQ(kest_config_set(h, "conn.default_policy.futureflows", follow ? "1" : "0"), 0);
    kest_idle(h);
    EXPECT_EQ(Run(control, 0), "TCP/FTP") << follow;
    EXPECT_EQ(g_attrs, control.attrs);
    const std::string named = follow ? "TCP/FTP_DATA" : "TCP";
    EXPECT_EQ(data(v4(1, 41000), v4(2, 25685)), named) << "PASV, the server's own address";
    EXPECT_EQ(data(v4(1, 41001), v4(2, 25685)), "TCP") << "PASV, once only";
    EXPECT_EQ(data(v4(1, 41002), translated), named) << "PASV, the announced address";
    EXPECT_EQ(data(v6_server, v6), named) << "EPRT";
    EXPECT_EQ(data(v4(1, 41003), v4(2, 6446)), named) << "EPSV";
    EXPECT_EQ(data(v4(2, 20), v4(1, 5001)), named) << "PORT";
    EXPECT_EQ(data(v4(1, 41004), v4(2, 7777)), "TCP") << "not announced";
  }
}

// Expectations are bounded: past the bound the oldest ones go, from the
// rule store too, and the newest still name their connections.
TEST_F(BannerConversations, FtpExpectationsStayBounded) {
  Conversation control = {
      "ftp with many transfers",
      21,
      {{1, "220 FTP server ready\r\n"}, {0, "USER anonymous\r\n"}, {1, "331 Password please\r\n"}},
      "FTP",
      {{"ftp.user", "anonymous"}}};
  const int announced = 80;
  for (int i = 0; i < announced; ++i) {
    const int port = 30000 + i;
    control.steps.push_back({0, "PASV\r\n"});
    control.steps.push_back({1, "227 Entering Passive Mode (10,0,0,2," + std::to_string(port >> 8) +
                                    "," + std::to_string(port & 0xff) + ")\r\n"});
  }
  ASSERT_EQ(kest_config_set(h, "conn.default_policy.futureflows", "1"), 0);
  kest_idle(h);
  EXPECT_EQ(Run(control, 0), "TCP/FTP");
  const auto data = [&](uint16_t port) {
    const kest_endpoint_t a{KEST_FAMILY_IPV4, htons(41000), {10, 0, 0, 1}};
    const kest_endpoint_t b{KEST_FAMILY_IPV4, htons(port), {10, 0, 0, 2}};
    kest_conn_t conn = nullptr;
    EXPECT_EQ(kest_conn_create(h, &a, &b, 6, &conn), 0);
    std::string stack;
    kest_classify(h, KEST_SELECTOR_CONN, "x\r\n", 3, conn, 1, Record, &stack);
    EXPECT_EQ(kest_conn_destroy(h, conn), 0);
    return stack;
  };
  EXPECT_EQ(data(30000), "TCP") << "the oldest went";
  EXPECT_EQ(data(30000 + announced - 1), "TCP/FTP_DATA") << "the newest stays";
}

} // namespace
