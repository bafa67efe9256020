// The packed DNS plug-in on threads of their own: the transports, the
// whole-packet decoder and dns.plg in one folder, a whole packet through
// kest_classify on two classifying threads at once. What DNS names and
// reports is in dns.conv.
#include "PluginFolder.h"
#include "StackNames.h"

#include <gtest/gtest.h>
#include <kest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

class DnsPluginRuns : public kest_test::PluginFolderFixture {};

// Every classifying thread has its own inspector and state, made and
// ended with the thread.
TEST_F(DnsPluginRuns, ThreadsOfTheirOwn) {
  // 10.0.0.1:40000 to 10.0.0.2:15353, a question of dns_ambiguous_names.pcap.
  const char *hex = "4500004a00004000401100000a0000010a000002"
                    "9c403bf900360000"
                    "5f97012000010000000000010767757a7a6f6e69056170706c6503636f6d0000010001"
                    "0000291000000000000000";
  std::vector<uint8_t> packet;
  for (size_t i = 0; hex[i] != 0; i += 2) {
    packet.push_back(static_cast<uint8_t>(std::stoi(std::string(hex + i, 2), nullptr, 16)));
  }
  const kest_handle_t h = kest_open(
      Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG, KEST_TEST_DNS_PLG})
          .c_str());
  ASSERT_GT(h, 0);
  std::string stacks[2];
  auto classify = [&](std::string &stack) {
    ASSERT_EQ(kest_init(h), 0);
    kest_classify(h, KEST_SELECTOR_IP, packet.data(), static_cast<uint16_t>(packet.size()), nullptr,
                  0, kest_test::LastStack, &stack);
    EXPECT_EQ(kest_fini(h), 0);
  };
  std::thread first(classify, std::ref(stacks[0]));
  std::thread second(classify, std::ref(stacks[1]));
  first.join();
  second.join();
  EXPECT_EQ(stacks[0], "UDP/DNS");
  EXPECT_EQ(stacks[1], "UDP/DNS");
  EXPECT_EQ(kest_close(h), 0);
}

} // namespace
