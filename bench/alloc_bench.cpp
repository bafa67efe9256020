// Allocations on the road: how many times the library and its decoders call
// the host's kest_malloc_local per packet, once connections are under way.
// In-order TCP data after the handshake should take none: every block, node
// and record it needs was made when the connection started.
#include <benchmark/benchmark.h>
#include <kest.h>

#include "BenchInstance.h"

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

int Keep(kest_handle_t, kest_result_t *, int, kest_conn_id_t, void *, int) {
  return 0;
}

void Put16(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}
void Put32(uint8_t *p, uint32_t v) {
  Put16(p, v >> 16);
  Put16(p + 2, v);
}

// One connection between 10.0.x.y:port and 10.1.0.1:80, told from either
// side; each frame moves that side's sequence number past its data.
struct Flow {
  uint32_t id;
  uint32_t seq[2] = {1000, 5000};

  Bytes Segment(int side, uint8_t flags, const std::string &data) {
    const uint16_t total = static_cast<uint16_t>(40 + data.size());
    Bytes f(14 + total, 0);
    f[12] = 0x08;
    uint8_t *ip = f.data() + 14;
    ip[0] = 0x45;
    Put16(ip + 2, total);
    ip[8] = 64;
    ip[9] = 6;
    const uint32_t client = 0x0A000000 | (id & 0xFFFF), server = 0x0A010001;
    Put32(ip + 12, side == 0 ? client : server);
    Put32(ip + 16, side == 0 ? server : client);
    uint8_t *t = ip + 20;
    const uint16_t port = static_cast<uint16_t>(1024 + id % 60000);
    Put16(t, side == 0 ? port : 80);
    Put16(t + 2, side == 0 ? 80 : port);
    Put32(t + 4, seq[side]);
    Put32(t + 8, seq[1 - side]);
    t[12] = 0x50;
    t[13] = flags;
    std::copy(data.begin(), data.end(), t + 20);
    seq[side] += static_cast<uint32_t>(data.size()) + ((flags & 0x02) != 0 ? 1 : 0);
    return f;
  }
};

void Classify(kest_handle_t h, const Bytes &f) {
  kest_classify(h, KEST_SELECTOR_ETHERNET, f.data(), static_cast<uint16_t>(f.size()), nullptr, 0,
                Keep, nullptr);
}

// 100 HTTP downloads under way with every decoder loaded: handshake,
// request and response header first, then in the loop a body segment from
// the server and the client's acknowledgement, in order, on each
// connection in turn. The counter "allocs_per_packet" is what the loop
// costs in calls of either heap's hook per packet.
void BM_AllocationsInOrderTcp(benchmark::State &state) {
  const kest_handle_t h = kest_bench::Start(state);
  if (h < 0) {
    return;
  }
  kest_clock_set_mode(h, 1);
  kest_clock_set(h, 1000);
  constexpr uint32_t kFlows = 100;
  std::vector<Flow> flows;
  for (uint32_t i = 0; i < kFlows; ++i) {
    Flow &flow = flows.emplace_back();
    flow.id = i + 1;
    Classify(h, flow.Segment(0, 0x02, ""));
    Classify(h, flow.Segment(1, 0x12, ""));
    Classify(h, flow.Segment(0, 0x10, ""));
    Classify(h, flow.Segment(0, 0x18, "GET /file HTTP/1.1\r\nHost: example.org\r\n\r\n"));
    Classify(h, flow.Segment(1, 0x18,
                             "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
                             "Content-Length: 1000000000\r\n\r\n"));
  }
  const std::string body(1000, 'x');
  // A few laps first, so that whatever the first body segments set up is in
  // place before counting.
  for (int lap = 0; lap < 4; ++lap) {
    for (Flow &flow : flows) {
      Classify(h, flow.Segment(1, 0x10, body));
      Classify(h, flow.Segment(0, 0x10, ""));
    }
  }
  uint64_t packets = 0;
  kest_bench::LocalAllocations allocations;
  kest_bench::SharedAllocations shared;
  for (auto _ : state) {
    for (Flow &flow : flows) {
      Classify(h, flow.Segment(1, 0x10, body));
      Classify(h, flow.Segment(0, 0x10, ""));
      packets += 2;
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(packets));
  state.counters["allocs_per_packet"] =
      packets != 0
          ? static_cast<double>(allocations.Count() + shared.Count()) / static_cast<double>(packets)
          : 0;
  kest_bench::CloseInstance(h);
}
BENCHMARK(BM_AllocationsInOrderTcp);

} // namespace
