// The kest hash table: insert into a fresh table and touch of a present key,
// at 1k and 100k keys.
#include <benchmark/benchmark.h>
#include <kest/fdt/hash_table.h>
#include <kest_host.h>

#include <cstdint>

namespace {

uint32_t Key(uint32_t i) {
  return i * 2654435761u;
}

// Fills a fresh table with n keys per iteration; items are keys inserted.
void BM_FdtHashTableInsert(benchmark::State &state) {
  kest_host_use_libc();
  const auto n = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) {
    oru::fdt::hash_table<uint32_t, uint32_t> t;
    for (uint32_t i = 0; i < n; ++i) {
      t.insert(Key(i), i);
    }
    benchmark::DoNotOptimize(t.size());
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_FdtHashTableInsert)->Arg(1000)->Arg(100000);

void BM_FdtHashTableTouch(benchmark::State &state) {
  kest_host_use_libc();
  const auto n = static_cast<uint32_t>(state.range(0));
  oru::fdt::hash_table<uint32_t, uint32_t> t;
  for (uint32_t i = 0; i < n; ++i) {
    t.insert(Key(i), i);
  }
  uint32_t i = 0;
  for (auto _ : state) {
    auto it = t.touch(Key(i));
    benchmark::DoNotOptimize(it);
    if (++i == n) {
      i = 0;
    }
  }
}
BENCHMARK(BM_FdtHashTableTouch)->Arg(1000)->Arg(100000);

} // namespace
