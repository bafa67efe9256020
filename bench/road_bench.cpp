// The whole road for whole packets: Ethernet frames in, the host's callback
// out, through wire.plg and the transports, with no application inspector
// attached; and the transports' connection look-up at large table sizes.
#include <benchmark/benchmark.h>
#include <kest.h>
#include <kest_host.h>

#include "BenchInstance.h"
#include "transport/ConnIndex.h"

#include <memory>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

int Count(kest_handle_t, kest_result_t *, int, kest_conn_id_t, void *user, int) {
  ++*static_cast<uint64_t *>(user);
  return 0;
}

// An Ethernet frame carrying IPv4 and TCP (protocol 6) or UDP (17) between
// 10.0.x.y:port and 10.1.0.1:80, `payload` bytes of data.
Bytes Frame(uint8_t protocol, uint32_t flow, bool reply, uint32_t seq, size_t payload) {
  const size_t l4 = protocol == 6 ? 20 : 8;
  const uint16_t total = static_cast<uint16_t>(20 + l4 + payload);
  Bytes f(14 + total, 0);
  f[12] = 0x08;
  uint8_t *ip = f.data() + 14;
  ip[0] = 0x45;
  ip[2] = static_cast<uint8_t>(total >> 8);
  ip[3] = static_cast<uint8_t>(total);
  ip[8] = 64;
  ip[9] = protocol;
  const uint8_t client[4] = {10, 0, static_cast<uint8_t>(flow >> 8), static_cast<uint8_t>(flow)};
  const uint8_t server[4] = {10, 1, 0, 1};
  std::copy(reply ? server : client, (reply ? server : client) + 4, ip + 12);
  std::copy(reply ? client : server, (reply ? client : server) + 4, ip + 16);
  uint8_t *t = ip + 20;
  const uint16_t cport = static_cast<uint16_t>(1024 + flow % 60000), sport = 80;
  const uint16_t from = reply ? sport : cport, to = reply ? cport : sport;
  t[0] = static_cast<uint8_t>(from >> 8);
  t[1] = static_cast<uint8_t>(from);
  t[2] = static_cast<uint8_t>(to >> 8);
  t[3] = static_cast<uint8_t>(to);
  if (protocol == 6) {
    t[4] = static_cast<uint8_t>(seq >> 24);
    t[5] = static_cast<uint8_t>(seq >> 16);
    t[6] = static_cast<uint8_t>(seq >> 8);
    t[7] = static_cast<uint8_t>(seq);
    t[12] = 0x50;
    t[13] = 0x18; // PSH ACK
  } else {
    t[4] = static_cast<uint8_t>((8 + payload) >> 8);
    t[5] = static_cast<uint8_t>(8 + payload);
  }
  return f;
}

// Argument: 6 for TCP, 17 for UDP. 1,000 flows, each packet 200 bytes of
// data, the two directions in turn; TCP sequence numbers move on every lap.
void BM_WholeRoadEthernet(benchmark::State &state) {
  const kest_handle_t h = kest_bench::Start(state);
  if (h < 0) {
    return;
  }
  const uint8_t protocol = static_cast<uint8_t>(state.range(0));
  constexpr uint32_t kFlows = 1000;
  constexpr size_t kPayload = 200;
  std::vector<Bytes> frames;
  for (uint32_t flow = 0; flow < kFlows; ++flow) {
    frames.push_back(Frame(protocol, flow, false, 1, kPayload));
    frames.push_back(Frame(protocol, flow, true, 1, kPayload));
  }
  uint64_t answers = 0, packets = 0;
  uint32_t seq = 1;
  for (auto _ : state) {
    for (Bytes &f : frames) {
      if (protocol == 6) {
        uint8_t *s = f.data() + 14 + 20 + 4;
        s[0] = static_cast<uint8_t>(seq >> 24);
        s[1] = static_cast<uint8_t>(seq >> 16);
        s[2] = static_cast<uint8_t>(seq >> 8);
        s[3] = static_cast<uint8_t>(seq);
      }
      kest_classify(h, KEST_SELECTOR_ETHERNET, f.data(), static_cast<uint16_t>(f.size()), nullptr,
                    0, Count, &answers);
      ++packets;
    }
    seq += kPayload;
  }
  state.SetItemsProcessed(static_cast<int64_t>(packets));
  if (answers != packets) {
    state.SkipWithError("a packet got no answer");
  }
  kest_bench::CloseInstance(h);
}
BENCHMARK(BM_WholeRoadEthernet)->Arg(6)->Arg(17);

// Look-ups in an index of `count` connections whose addresses differ in the
// low bytes (argument 0), only in the two high bytes of an IPv6 address (1),
// or that are IPv4 addresses (2).
void BM_ConnIndexFind(benchmark::State &state) {
  const kest_handle_t h = kest_bench::Start(state);
  if (h < 0) {
    return;
  }
  oru::Runtime::l_instance_id = h;
  const size_t count = static_cast<size_t>(state.range(0));
  const int64_t form = state.range(1);
  {
    kest_decoders::ConnIndex index(kest_decoders::RandomSipKey());
    std::vector<oru::fdt::intrusive_ptr<oru::Conn>> held;
    held.reserve(count);
    std::vector<oru::IpAddr> addrs;
    for (size_t i = 0; i < count; ++i) {
      const oru::IpAddr a = form == 1 ? oru::IpAddr(static_cast<uint64_t>(i) << 40, 1)
                            : form == 2
                                ? oru::IpAddr::FromV4(0x0B000000u + static_cast<uint32_t>(i))
                                : oru::IpAddr(0x20010db800000000ull, i + 1);
      const oru::Tuple t{a, oru::IpAddr::FromV4(0x0A010001), 1000, 80, 6};
      kest_decoders::TransportConn *c = kest_decoders::TransportConn::Make(t, nullptr, nullptr);
      held.emplace_back(c);
      index.Insert(c);
      addrs.push_back(a);
    }
    size_t i = 0, found = 0;
    for (auto _ : state) {
      found += index.Find(addrs[i], 1000, oru::IpAddr::FromV4(0x0A010001), 80, 6) != nullptr;
      i = (i + 7919) % count;
    }
    for (auto &c : held) {
      index.Remove(static_cast<kest_decoders::TransportConn *>(c.get()));
    }
    held.clear();
    if (found != static_cast<size_t>(state.iterations())) {
      state.SkipWithError("a connection was not found");
    }
  }
  oru::Runtime::l_instance_id = 0;
  kest_bench::CloseInstance(h);
}
BENCHMARK(BM_ConnIndexFind)
    ->Args({100000, 0})
    ->Args({100000, 1})
    ->Args({100000, 2})
    ->Args({1000000, 0})
    ->Args({1000000, 1});

} // namespace
