// The idle pass on a thread whose event queue is empty: what every packet pays
// before its plug-in runs.
#include <benchmark/benchmark.h>
#include <kest.h>
#include <kest_host.h>

#include "BenchInstance.h"

namespace {

void BM_IdleEmptyQueue(benchmark::State &state) {
  const kest_handle_t h = kest_bench::Start(state);
  if (h < 0) {
    return;
  }
  for (auto _ : state) {
    kest_idle(h);
  }
  kest_bench::CloseInstance(h);
}
BENCHMARK(BM_IdleEmptyQueue);

// The same with the host setting the clock: no gettimeofday, no garbage pass.
void BM_IdleHostClock(benchmark::State &state) {
  const kest_handle_t h = kest_bench::Start(state);
  if (h < 0) {
    return;
  }
  kest_clock_set_mode(h, 1);
  kest_clock_set(h, 1000);
  for (auto _ : state) {
    kest_idle(h);
  }
  kest_bench::CloseInstance(h);
}
BENCHMARK(BM_IdleHostClock);

} // namespace
