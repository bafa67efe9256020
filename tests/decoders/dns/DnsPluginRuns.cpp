// The packed DNS plug-in on the road: the transports, the whole-packet
// decoder and dns.plg in one folder, traffic through kest_classify, the
// protocols and the attributes as a host sees them.
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

// Two exchanges from dns_ambiguous_names.pcap.
const Bytes kQuery1 = Hex("5f97012000010000000000010767757a7a6f6e69056170706c6503636f6d0000010001"
                          "0000291000000000000000");
const Bytes kAnswer1 =
    Hex("5f97818000010002000000010767757a7a6f6e69056170706c6503636f6d0000010001c00c000500010000"
        "02b9001e1167757a7a6f6e692d6170706c652d636f6d0176076161706c696d67c01ac02f00010001000001"
        "2b0004118215050000290200000000000000");
const Bytes kQuery2 = Hex("b56201200001000000000001012a057465616d73096d6963726f736f667403636f6d00"
                          "000100010000291000000000000000");
const Bytes kAnswer2 =
    Hex("b56281830001000000010001012a057465616d73096d6963726f736f667403636f6d0000010001c0140006"
        "00010000012b003e076e73312d32303509617a7572652d646e73c01e13617a757265646e732d686f73746d"
        "6173746572c0140000000100000e100000012c0024ea000000012c0000290200000000000000");

const std::vector<std::string> kBothExchanges = {
    "dns.query=guzzoni.apple.com",
    "dns.qtype=A",
    "dns.query=*.teams.microsoft.com",
    "dns.qtype=A",
    "dns.query=guzzoni.apple.com",
    "dns.qtype=A",
    "dns.rcode=NOERROR",
    "dns.answers=guzzoni-apple-com.v.aaplimg.com,17.130.21.5",
    "dns.query=*.teams.microsoft.com",
    "dns.qtype=A",
    "dns.rcode=NXDOMAIN",
};

// Messages with their TCP length in front, one after the other.
Bytes Framed(std::initializer_list<const Bytes *> messages) {
  Bytes out;
  for (const Bytes *m : messages) {
    out.push_back(static_cast<uint8_t>(m->size() >> 8));
    out.push_back(static_cast<uint8_t>(m->size()));
    out.insert(out.end(), m->begin(), m->end());
  }
  return out;
}

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

// Over TCP on a port of no meaning, two exchanges give the same attributes
// however either side's stream is cut into segments: in two at every byte,
// or a byte at a time.
TEST_F(DnsPluginRuns, TcpStreamCutAnywhere) {
  const kest_handle_t h = Open();
  const Bytes streams[2] = {Framed({&kQuery1, &kQuery2}), Framed({&kAnswer1, &kAnswer2})};
  // Each side's stream as the pieces it is sent in.
  auto run = [&](const std::vector<size_t> cuts[2]) {
    kest_endpoint_t client{KEST_FAMILY_IPV4, htons(40000), {10, 0, 0, 1}};
    kest_endpoint_t server{KEST_FAMILY_IPV4, htons(15353), {10, 0, 0, 2}};
    kest_conn_t conn = nullptr;
    EXPECT_EQ(kest_conn_create(h, &client, &server, 6, &conn), 0);
    std::string stack;
    g_values.clear();
    for (int side = 0; side < 2; ++side) {
      size_t from = 0;
      std::vector<size_t> ends = cuts[side];
      ends.push_back(streams[side].size());
      for (size_t to : ends) {
        kest_classify(h, KEST_SELECTOR_CONN, streams[side].data() + from,
                      static_cast<uint16_t>(to - from), conn, side, LastStack, &stack);
        from = to;
      }
    }
    EXPECT_EQ(kest_conn_destroy(h, conn), 0);
    EXPECT_EQ(stack, "TCP/DNS");
    return g_values;
  };
  const std::vector<size_t> none[2] = {{}, {}};
  EXPECT_EQ(run(none), kBothExchanges);
  for (int side = 0; side < 2; ++side) {
    std::vector<size_t> every[2];
    for (size_t cut = 1; cut < streams[side].size(); ++cut) {
      SCOPED_TRACE(testing::Message() << "side " << side << " cut " << cut);
      std::vector<size_t> cuts[2];
      cuts[side] = {cut};
      ASSERT_EQ(run(cuts), kBothExchanges);
      every[side].push_back(cut);
    }
    SCOPED_TRACE(testing::Message() << "side " << side << " byte by byte");
    EXPECT_EQ(run(every), kBothExchanges);
  }
  Close(h);
}

// Whole packets: DNS on a port of no meaning, mDNS and LLMNR to their
// groups, and bytes on port 53 that are not DNS.
TEST_F(DnsPluginRuns, WholePackets) {
  const kest_handle_t h = Open();
  const Bytes a = {10, 0, 0, 1}, b = {10, 0, 0, 2};
  const Bytes mdns_group = {224, 0, 0, 251};
  const Bytes link = Hex("fe800000000000000000000000000001");
  const Bytes llmnr_group = Hex("ff020000000000000000000000010003");
  // An mDNS answer from wikipedia.pcap; an LLMNR question made by hand.
  const Bytes mdns = Hex(
      "0000840000000001000000040667656d696e69095f736674702d737368045f746370056c6f63616c0000218001"
      "00000078000f0000000000160667656d696e69c022c039001c8001000000780010fe800000000000000217f2ff"
      "fed7cf65c039000180010000007800048d8edc32c00c002f8001000000780009c00c00050000800040c03900"
      "2f8001000000780008c039000440000008");
  const Bytes llmnr = Hex("12340000000100000000000004777061640000010001");
  const Bytes junk = Hex("17fe00ab0000000100020003deadbeefdeadbeefdeadbeef");
  struct Run {
    Bytes packet;
    const char *stack;
    std::vector<std::string> values;
  };
  const Run runs[] = {
      {Udp(a, b, 40000, 15353, kQuery1), "UDP/DNS", {"dns.query=guzzoni.apple.com", "dns.qtype=A"}},
      {Udp(b, a, 15353, 40000, kAnswer1),
       "UDP/DNS",
       {"dns.query=guzzoni.apple.com", "dns.qtype=A", "dns.rcode=NOERROR",
        "dns.answers=guzzoni-apple-com.v.aaplimg.com,17.130.21.5"}},
      {Udp(a, mdns_group, 5353, 5353, mdns), "UDP/MDNS", {"dns.rcode=NOERROR"}},
      {Udp(link, llmnr_group, 50000, 5355, llmnr), "UDP/LLMNR", {"dns.query=wpad", "dns.qtype=A"}},
      {Udp(a, b, 40001, 53, junk), "UDP", {}},
  };
  for (const Run &run : runs) {
    SCOPED_TRACE(run.stack);
    std::string stack;
    g_values.clear();
    kest_classify(h, KEST_SELECTOR_IP, run.packet.data(), static_cast<uint16_t>(run.packet.size()),
                  nullptr, 0, LastStack, &stack);
    EXPECT_EQ(stack, run.stack);
    EXPECT_EQ(g_values, run.values);
  }
  Close(h);
}

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
