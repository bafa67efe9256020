// Reads of a flow held in 1,460-byte blocks, beside the C library's search of
// the same bytes held contiguously, and a key/value rule look-up straight
// from a header line in a flow.
#include <benchmark/benchmark.h>
#include <kest.h>
#include <kest/Conn.h>
#include <kest/FlowBuffer.h>
#include <kest/KeyValueRuleStore.h>
#include <kest/Runtime.h>
#include <kest/fdt/ObjectPrefix.h>
#include <kest_host.h>

#include "BenchInstance.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t kStream = 64 * 1024;
constexpr size_t kSegment = 1460;

// 64 KiB of text with the searched byte and text only in the last 8 bytes.
struct Segmented {
  std::string bytes;
  oru::FlowBuffer flow;
  Segmented() : bytes(kStream, 'a') {
    std::memcpy(&bytes[kStream - 8], "zzQXYZzz", 8);
    for (size_t at = 0; at < kStream; at += kSegment) {
      const size_t n = std::min(kSegment, kStream - at);
      flow.AddBlock(at, bytes.data() + at, static_cast<uint16_t>(n), false);
      flow.m_last_start = at;
    }
    flow.m_next_pos = kStream;
  }
};

void BM_FlowFindByte(benchmark::State &state) {
  kest_host_use_libc();
  Segmented s;
  for (auto _ : state) {
    benchmark::DoNotOptimize(s.flow.Find(0, 'Q', kStream));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kStream));
}
BENCHMARK(BM_FlowFindByte);

void BM_ContiguousMemchr(benchmark::State &state) {
  Segmented s;
  for (auto _ : state) {
    benchmark::DoNotOptimize(std::memchr(s.bytes.data(), 'Q', kStream));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kStream));
}
BENCHMARK(BM_ContiguousMemchr);

void BM_FlowFindText(benchmark::State &state) {
  kest_host_use_libc();
  Segmented s;
  for (auto _ : state) {
    benchmark::DoNotOptimize(s.flow.Find(0, "QXYZ", 4, kStream));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kStream));
}
BENCHMARK(BM_FlowFindText);

void BM_ContiguousMemmem(benchmark::State &state) {
  Segmented s;
  for (auto _ : state) {
    benchmark::DoNotOptimize(memmem(s.bytes.data(), kStream, "QXYZ", 4));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kStream));
}
BENCHMARK(BM_ContiguousMemmem);

// A header name at the end of one block and the start of the next.
void BM_FlowCaseCompareHeaderName(benchmark::State &state) {
  kest_host_use_libc();
  const std::string line = "Content-Encoding: gzip\r\n";
  oru::FlowBuffer flow;
  flow.AddBlock(0, line.data(), 9, false);
  flow.AddBlock(9, line.data() + 9, static_cast<uint16_t>(line.size() - 9), false);
  flow.m_last_start = 9;
  flow.m_next_pos = line.size();
  for (auto _ : state) {
    benchmark::DoNotOptimize(flow.CaseCompare(0, "content-encoding", 16));
  }
}
BENCHMARK(BM_FlowCaseCompareHeaderName);

// 1,000 rules over 100 header names (exact, prefix and suffix patterns); the
// look-up of one header line held in a flow, key and value both read there.
void BM_KeyValueSetupRuleFromFlow(benchmark::State &state) {
  const kest_handle_t h = kest_bench::Start(state);
  if (h < 0) {
    return;
  }
  oru::Runtime::l_instance_id = h;
  {
    oru::KeyValueRuleStore store("bench");
    std::vector<oru::fdt::intrusive_ptr<kest_bench::Staying>> inspectors;
    bool added = true;
    for (int i = 0; i < 1000; ++i) {
      inspectors.push_back(oru::fdt::CreateObject<kest_bench::Staying>(oru::fdt::OBJECT_LOCAL));
      const std::string key = "X-Header-" + std::to_string(i % 100);
      std::string value = "value-" + std::to_string(i);
      value = i % 3 == 0 ? value + "*" : i % 3 == 1 ? "*" + value : value;
      added &= store.AddRule(oru::KeyValueSpec::string(key.c_str()),
                             oru::KeyValueSpec::string(value.c_str()),
                             oru::InspectorCallback(inspectors.back().get()), false, 0,
                             oru::KeyValueRuleStore::EXPIRY_LOCAL);
    }
    const std::string line = "X-Header-42: value-942\r\n";
    oru::FlowBuffer flow;
    flow.AddBlock(0, line.data(), static_cast<uint16_t>(line.size()), false);
    flow.m_last_start = 0;
    flow.m_next_pos = line.size();
    oru::InspectorChain chain;
    oru::fdt::intrusive_ptr<oru::Conn> none;
    for (auto _ : state) {
      store.SetupRule(flow, 0, 11, 13, static_cast<unsigned>(line.size() - 2), chain);
      benchmark::DoNotOptimize(chain.empty());
      chain.Clear(none);
    }
    if (!added) {
      state.SkipWithError("rules not added");
    }
  }
  oru::Runtime::l_instance_id = 0;
  kest_bench::CloseInstance(h);
}
BENCHMARK(BM_KeyValueSetupRuleFromFlow);

} // namespace
