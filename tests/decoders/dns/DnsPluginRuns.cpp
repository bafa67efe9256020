// The packed DNS plug-in on threads of their own: the transports, the
// whole-packet decoder and dns.plg in one folder, whole packets through
// kest_classify on two classifying threads at once. What DNS names and
// reports is in dns.conv.
#include "PluginFolder.h"
#include "StackNames.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <kest.h>

#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

const char *const kNames[] = {"dns.query", "dns.qtype", "dns.rcode", "dns.answers"};

// Values as "name=value", in the order of delivery. Classifying threads
// of one instance call the listener at the same time.
std::vector<std::string> g_values;
std::map<int, std::string> g_keys;
std::mutex g_lock;

int Listen(kest_handle_t, kest_conn_id_t, int key, int length, const void *value, int, void *) {
  const std::lock_guard<std::mutex> hold(g_lock);
  g_values.push_back(g_keys[key] + "=" +
                     std::string(static_cast<const char *>(value), static_cast<size_t>(length)));
  return 0;
}

using kest_test::LastStack;

Bytes Hex(const char *hex) {
  Bytes out;
  for (size_t i = 0; hex[i] != 0 && hex[i + 1] != 0; i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex + i, 2), nullptr, 16)));
  }
  return out;
}

// A question from dns_ambiguous_names.pcap.
const Bytes kQuery1 = Hex("5f97012000010000000000010767757a7a6f6e69056170706c6503636f6d0000010001"
                          "0000291000000000000000");

// An IPv4 or IPv6 UDP packet; the decoders do not check sums.
Bytes Udp(const Bytes &src, const Bytes &dst, uint16_t sport, uint16_t dport,
          const Bytes &payload) {
  const size_t udp_length = 8 + payload.size();
  Bytes p;
  if (src.size() == 4) {
    const size_t total = 20 + udp_length;
    p = {0x45,
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
         0};
  } else {
    p = {0x60, 0,  0, 0, static_cast<uint8_t>(udp_length >> 8), static_cast<uint8_t>(udp_length),
         17,   255};
  }
  p.insert(p.end(), src.begin(), src.end());
  p.insert(p.end(), dst.begin(), dst.end());
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

class DnsPluginRuns : public kest_test::PluginFolderFixture {
protected:
  kest_handle_t Open() {
    const kest_handle_t h = kest_open(
        Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG, KEST_TEST_DNS_PLG})
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
};

// Every classifying thread has its own inspector and state, made and
// ended with the thread.
TEST_F(DnsPluginRuns, ThreadsOfTheirOwn) {
  const kest_handle_t h = Open();
  const Bytes packet = Udp({10, 0, 0, 1}, {10, 0, 0, 2}, 40000, 15353, kQuery1);
  std::string stacks[2];
  auto classify = [&](std::string &stack) {
    ASSERT_EQ(kest_init(h), 0);
    kest_classify(h, KEST_SELECTOR_IP, packet.data(), static_cast<uint16_t>(packet.size()), nullptr,
                  0, LastStack, &stack);
    EXPECT_EQ(kest_fini(h), 0);
  };
  std::thread first(classify, std::ref(stacks[0]));
  std::thread second(classify, std::ref(stacks[1]));
  first.join();
  second.join();
  EXPECT_EQ(stacks[0], "UDP/DNS");
  EXPECT_EQ(stacks[1], "UDP/DNS");
  Close(h);
}

} // namespace
