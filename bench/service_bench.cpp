// Service naming's look-ups: the catalogue's suffix match with 10,000
// services, and the two ways of keeping addresses learned from DNS answers
// that a new connection's server address is looked up in: the plug-in's
// bounded store, and the IP/port rule store's expiring address rules, whose
// look-up walks the ranges below the address.
#include <benchmark/benchmark.h>
#include <kest.h>
#include <kest/IpPortRuleStore.h>
#include <kest/Runtime.h>
#include <kest/fdt/ObjectPrefix.h>
#include <kest_host.h>

#include "BenchInstance.h"
#include "service/Catalogue.h"
#include "service/LearnedNames.h"

#include <random>
#include <string>
#include <vector>

namespace {

// 10,000 services of two suffixes each, and names a few labels below them
// (one in four matches nothing).
void BM_CatalogueMatch(benchmark::State &state) {
  kest_host_use_libc();
  const int services = static_cast<int>(state.range(0));
  std::string text;
  for (int i = 0; i < services; ++i) {
    text += "Service" + std::to_string(i) + " | web | svc" + std::to_string(i) + ".example" +
            std::to_string(i % 97) + ".com cdn" + std::to_string(i) + ".net\n";
  }
  kest_service::Catalogue catalogue;
  if (!catalogue.Load(text.data(), text.size())) {
    state.SkipWithError("catalogue not loaded");
    return;
  }
  std::mt19937 random(7);
  std::vector<std::string> names;
  for (int i = 0; i < 4096; ++i) {
    const int n = static_cast<int>(random() % static_cast<unsigned>(services));
    names.push_back(i % 4 == 3 ? "www.unknown" + std::to_string(n) + ".org"
                               : "media-" + std::to_string(i) + ".eu.svc" + std::to_string(n) +
                                     ".Example" + std::to_string(n % 97) + ".com");
  }
  size_t i = 0;
  for (auto _ : state) {
    const std::string &name = names[i++ & 4095];
    benchmark::DoNotOptimize(catalogue.Match(name.data(), name.size()));
  }
}
BENCHMARK(BM_CatalogueMatch)->Arg(10000);

// A new connection's look-up in the bounded store holding `n` addresses.
void BM_LearnedNamesFind(benchmark::State &state) {
  kest_host_use_libc();
  kest_service::LearnedNames *store = kest_service::LearnedNames::Create();
  const uint32_t n = static_cast<uint32_t>(state.range(0));
  for (uint32_t i = 0; i < n; ++i) {
    store->Learn(oru::IpAddr::FromV4(0x0A000000u + i * 7), i + 1, 300, 100);
  }
  uint32_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(store->Find(oru::IpAddr::FromV4(0x0A000000u + (i++ % n) * 7), 200));
  }
  kest_service::LearnedNames::Destroy(store);
}
BENCHMARK(BM_LearnedNamesFind)->Arg(1000)->Arg(4000)->Arg(16000);

// The same addresses as single-address rules with a time-out in the rule
// store: a new connection to one of them (the middle one, or the highest)
// fills its chain from the store.
void BM_RuleStoreLearnedAddresses(benchmark::State &state) {
  const kest_handle_t h = kest_bench::Start(state);
  if (h < 0) {
    return;
  }
  oru::Runtime::l_instance_id = h;
  {
    oru::IpPortRuleStore store("bench");
    std::vector<oru::fdt::intrusive_ptr<kest_bench::Staying>> inspectors;
    const uint32_t n = static_cast<uint32_t>(state.range(0));
    bool added = true;
    for (uint32_t i = 0; i < n; ++i) {
      inspectors.push_back(oru::fdt::CreateObject<kest_bench::Staying>(oru::fdt::OBJECT_LOCAL));
      const oru::IpAddr address = oru::IpAddr::FromV4(0x0A000000u + i * 7);
      added &= store.AddRule(6, oru::InspectorCallback(inspectors.back().get()), 0, address,
                             address, 300, oru::IpPortRuleStore::EXPIRY_LOCAL, false);
    }
    const uint32_t which = state.range(1) == 0 ? n / 2 : n - 1;
    const oru::IpAddr client = oru::IpAddr::FromV4(0xC0A80001u),
                      server = oru::IpAddr::FromV4(0x0A000000u + which * 7);
    oru::InspectorChain chain;
    oru::fdt::intrusive_ptr<oru::Conn> none;
    for (auto _ : state) {
      store.SetupInspection(client, server, 40000, 443, 6, chain);
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
BENCHMARK(BM_RuleStoreLearnedAddresses)->Args({1000, 0})->Args({4000, 0})->Args({4000, 1});

} // namespace
