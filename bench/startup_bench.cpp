// Start-up and shut-down of an instance on every plug-in the build packs:
// what each run of a host pays before its first packet and after its last
// (a short capture's run is mostly this).
#include "BenchInstance.h"

namespace {

void BM_OpenEveryPlugin(benchmark::State &state) {
  kest_host_use_libc();
  for (auto _ : state) {
    const kest_handle_t h = kest_bench::OpenInstance();
    if (h < 0) {
      state.SkipWithError("instance did not start");
      return;
    }
    kest_bench::CloseInstance(h);
  }
}
BENCHMARK(BM_OpenEveryPlugin)->Unit(benchmark::kMillisecond);

} // namespace
