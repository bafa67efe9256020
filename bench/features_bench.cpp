// Flow features per packet: the running sums a connection keeps with
// --features (kestcap) or features=True (Python), against a connection of
// many packets each way.
#include "FlowFeatures.h"

#include <benchmark/benchmark.h>

namespace {

void BM_FlowFeaturesAdd(benchmark::State &state) {
  kestcap::FlowFeatures features;
  uint64_t ts = 1000000;
  uint32_t length = 60;
  for (auto _ : state) {
    const int side = static_cast<int>(ts & 1);
    ts += 137;
    length = length * 1103515245u + 12345u;
    features.Add(side, 40 + (length >> 22), ts, 1000000, static_cast<uint8_t>(length >> 8));
    benchmark::DoNotOptimize(features);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FlowFeaturesAdd);

} // namespace
