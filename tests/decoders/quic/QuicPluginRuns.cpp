// The packed QUIC plug-in without tls.plg, which owns the TLS attribute
// names when it is there (quic.conv runs with it): the published version 1
// client Initial in a whole IPv4 packet through the whole-packet decoder,
// and the hello's values still reported under the borrowed names.
#include "PluginFolder.h"
#include "StackNames.h"
#include "tests/decoders/DataRows.h"

#include <gtest/gtest.h>
#include <kest.h>

#include <map>
#include <string>
#include <vector>

namespace {

const char *const kNames[] = {"quic.version", "tls.server_name", "tls.alpn"};
std::vector<std::string> g_values;
std::map<int, std::string> g_keys;

int Listen(kest_handle_t, kest_conn_id_t, int key, int length, const void *value, int, void *) {
  g_values.push_back(g_keys[key] + "=" +
                     std::string(static_cast<const char *>(value), static_cast<size_t>(length)));
  return 0;
}

class QuicPluginRuns : public kest_test::PluginFolderFixture {};

TEST_F(QuicPluginRuns, HelloNamesBorrowedWithoutTls) {
  // IPv4 and UDP headers from 10.0.0.1:50123 to 10.0.0.2:4433 (the decoders
  // do not check sums), then the Initial.
  const kest_test::Bytes initial =
      kest_test::HexBytes(kest_test::DataRows(KEST_TEST_QUIC_VECTORS, "initial")[0][5]);
  const size_t length = 20 + 8 + initial.size();
  kest_test::Bytes packet = kest_test::HexBytes("450000000000400040110000"
                                                "0a0000010a000002c3cb115100000000");
  packet[2] = static_cast<uint8_t>(length >> 8);
  packet[3] = static_cast<uint8_t>(length);
  packet[24] = static_cast<uint8_t>((length - 20) >> 8);
  packet[25] = static_cast<uint8_t>(length - 20);
  packet.insert(packet.end(), initial.begin(), initial.end());
  const kest_handle_t h = kest_open(
      Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG, KEST_TEST_QUIC_PLG})
          .c_str());
  ASSERT_GT(h, 0);
  ASSERT_EQ(kest_init(h), 0);
  for (const char *name : kNames) {
    EXPECT_EQ(kest_attr_callback_set(h, name, Listen), 0) << name;
  }
  kest_idle(h);
  for (const char *name : kNames) {
    g_keys[kest_attr_key_get(h, name)] = name;
  }
  std::string stack;
  kest_classify(h, KEST_SELECTOR_IP, packet.data(), static_cast<uint16_t>(packet.size()), nullptr,
                0, kest_test::LastStack, &stack);
  EXPECT_EQ(stack, "UDP/QUIC");
  EXPECT_EQ(g_values, (std::vector<std::string>{"quic.version=1", "tls.server_name=example.com",
                                                "tls.alpn=alpn"}));
  EXPECT_EQ(kest_fini(h), 0);
  EXPECT_EQ(kest_close(h), 0);
}

} // namespace
