// The kest containers against their standard library counterparts: map find
// and insert at 1k and 100k keys, string append, vector push_back.
#include <benchmark/benchmark.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/map.h>
#include <kest/fdt/vector.h>
#include <kest_host.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace {

// Keys in a scattered order so neither tree sees sorted input.
uint32_t Key(uint32_t i) {
  return i * 2654435761u;
}

void BM_FdtMapFind(benchmark::State &state) {
  kest_host_use_libc();
  const auto n = static_cast<uint32_t>(state.range(0));
  oru::fdt::map<uint32_t, uint32_t> m;
  for (uint32_t i = 0; i < n; ++i) {
    m.insert(Key(i), i);
  }
  uint32_t i = 0;
  for (auto _ : state) {
    auto it = m.find(Key(i));
    benchmark::DoNotOptimize(it);
    if (++i == n) {
      i = 0;
    }
  }
}
BENCHMARK(BM_FdtMapFind)->Arg(1000)->Arg(100000);

void BM_StdMapFind(benchmark::State &state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  std::map<uint32_t, uint32_t> m;
  for (uint32_t i = 0; i < n; ++i) {
    m.emplace(Key(i), i);
  }
  uint32_t i = 0;
  for (auto _ : state) {
    auto it = m.find(Key(i));
    benchmark::DoNotOptimize(it);
    if (++i == n) {
      i = 0;
    }
  }
}
BENCHMARK(BM_StdMapFind)->Arg(1000)->Arg(100000);

// Fills a fresh map with n keys per iteration; items are keys inserted.
void BM_FdtMapInsert(benchmark::State &state) {
  kest_host_use_libc();
  const auto n = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) {
    oru::fdt::map<uint32_t, uint32_t> m;
    for (uint32_t i = 0; i < n; ++i) {
      m.insert(Key(i), i);
    }
    benchmark::DoNotOptimize(m);
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_FdtMapInsert)->Arg(1000)->Arg(100000);

void BM_StdMapInsert(benchmark::State &state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) {
    std::map<uint32_t, uint32_t> m;
    for (uint32_t i = 0; i < n; ++i) {
      m.emplace(Key(i), i);
    }
    benchmark::DoNotOptimize(m);
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_StdMapInsert)->Arg(1000)->Arg(100000);

// Builds a 4 KiB string from 16-byte pieces per iteration.
constexpr char kPiece[] = "0123456789abcdef";
constexpr size_t kPieceLen = 16;
constexpr int kPieces = 256;

void BM_FdtStringAppend(benchmark::State &state) {
  kest_host_use_libc();
  for (auto _ : state) {
    oru::fdt::string s;
    for (int i = 0; i < kPieces; ++i) {
      s.append(kPiece, kPieceLen);
    }
    benchmark::DoNotOptimize(s);
  }
  state.SetBytesProcessed(state.iterations() * kPieces * kPieceLen);
}
BENCHMARK(BM_FdtStringAppend);

void BM_StdStringAppend(benchmark::State &state) {
  for (auto _ : state) {
    std::string s;
    for (int i = 0; i < kPieces; ++i) {
      s.append(kPiece, kPieceLen);
    }
    benchmark::DoNotOptimize(s);
  }
  state.SetBytesProcessed(state.iterations() * kPieces * kPieceLen);
}
BENCHMARK(BM_StdStringAppend);

// Pushes 1024 ints into a fresh vector per iteration.
constexpr int kPushes = 1024;

void BM_FdtVectorPushBack(benchmark::State &state) {
  kest_host_use_libc();
  for (auto _ : state) {
    oru::fdt::vector<int> v;
    for (int i = 0; i < kPushes; ++i) {
      v.push_back(i);
    }
    benchmark::DoNotOptimize(v);
  }
  state.SetItemsProcessed(state.iterations() * kPushes);
}
BENCHMARK(BM_FdtVectorPushBack);

void BM_StdVectorPushBack(benchmark::State &state) {
  for (auto _ : state) {
    std::vector<int> v;
    for (int i = 0; i < kPushes; ++i) {
      v.push_back(i);
    }
    benchmark::DoNotOptimize(v);
  }
  state.SetItemsProcessed(state.iterations() * kPushes);
}
BENCHMARK(BM_StdVectorPushBack);

} // namespace
