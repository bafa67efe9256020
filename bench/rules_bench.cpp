// Inspection on the packet path: filling a new connection's chain from an
// IP/port rule store, running a chain, and the whole payload road through the
// TCP decoder with one inspector attached.
#include <benchmark/benchmark.h>
#include <kest.h>
#include <kest/Conn.h>
#include <kest/IpPortRuleStore.h>
#include <kest/ParentDpi.h>
#include <kest/Runtime.h>
#include <kest/fdt/ObjectPrefix.h>
#include <kest_host.h>

#include "BenchInstance.h"

#include <arpa/inet.h>
#include <cstdint>
#include <vector>

namespace {

class Parent : public oru::ParentDpi {
public:
  unsigned int HandoffCallback(oru::PktInfo &, oru::Tuple &,
                               oru::fdt::intrusive_ptr<oru::Conn> &) override {
    return oru::INSPECT_NOTHING;
  }
  bool IsTimeToCallback(oru::PktInfo &, oru::Tuple &, oru::fdt::intrusive_ptr<oru::Conn> &,
                        unsigned int &) override {
    return false;
  }
  void RegisterCallback(oru::fdt::intrusive_ptr<oru::Conn> &, unsigned char, oru::InspectorCallback,
                        oru::Inspector::Event) override {}
  uint32_t GetProtocol() override { return 0; }
};

oru::fdt::intrusive_ptr<kest_bench::Staying> MakeStaying() {
  return oru::fdt::CreateObject<kest_bench::Staying>(oru::fdt::OBJECT_LOCAL);
}

// 1,000 port rules (ports 1 to 1000) and 1,000 address ranges without a port
// (10.x.y.0/24), each with an inspector of its own. A new connection from
// a client to port 80 matches one port rule; with argument 0 its addresses
// lie below every range, with 1 above them all, the walk's worst case.
void BM_SetupInspection(benchmark::State &state) {
  const kest_handle_t h = kest_bench::Start(state);
  if (h < 0) {
    return;
  }
  oru::Runtime::l_instance_id = h;
  {
    oru::IpPortRuleStore store("bench");
    std::vector<oru::fdt::intrusive_ptr<kest_bench::Staying>> inspectors;
    bool added = true;
    for (uint32_t i = 0; i < 1000; ++i) {
      inspectors.push_back(MakeStaying());
      added &= store.AddRule(6, oru::InspectorCallback(inspectors.back().get()),
                             static_cast<uint16_t>(i + 1), {}, {}, 0,
                             oru::IpPortRuleStore::EXPIRY_LOCAL, false);
      inspectors.push_back(MakeStaying());
      const uint32_t net = 0x0A000000u | (i << 8);
      added &= store.AddRule(6, oru::InspectorCallback(inspectors.back().get()), 0,
                             oru::IpAddr::FromV4(net), oru::IpAddr::FromV4(net | 0xFF), 0,
                             oru::IpPortRuleStore::EXPIRY_LOCAL, false);
    }
    const uint32_t base = state.range(0) == 0 ? 0x01000000u : 0xC0A80000u;
    const oru::IpAddr client = oru::IpAddr::FromV4(base | 1),
                      server = oru::IpAddr::FromV4(base | 2);
    oru::InspectorChain chain;
    oru::fdt::intrusive_ptr<oru::Conn> none;
    for (auto _ : state) {
      store.SetupInspection(client, server, 40000, 80, 6, chain);
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
BENCHMARK(BM_SetupInspection)->Arg(0)->Arg(1);

// One entry that stays: the common per-packet case. Counts allocations.
void BM_ProcessChainOneStaying(benchmark::State &state) {
  kest_host_use_libc();
  oru::IpPortRuleStore store("bench");
  oru::fdt::intrusive_ptr<kest_bench::Staying> inspector = MakeStaying();
  store.AddRule(6, oru::InspectorCallback(inspector.get()), 80, {}, {}, 0,
                oru::IpPortRuleStore::EXPIRY_LOCAL, false);
  oru::InspectorChain chain;
  store.BuildInspectionStack({}, 1, {}, 80, 6, chain);
  Parent parent;
  oru::PktInfo pkt{};
  oru::Tuple tuple{};
  oru::fdt::intrusive_ptr<oru::Conn> conn;
  uint64_t allocations;
  {
    kest_bench::LocalAllocations counter;
    for (auto _ : state) {
      benchmark::DoNotOptimize(parent.ProcessChain(chain, pkt, tuple, conn));
    }
    allocations = counter.Count();
  }
  if (allocations != 0 || chain.size() != 1) {
    state.SkipWithError("the chain allocated or lost its entry");
  }
  chain.Clear(conn);
}
BENCHMARK(BM_ProcessChainOneStaying);

int Ignore(kest_handle_t, kest_result_t *, int, kest_conn_id_t, void *, int) {
  return 0;
}

// The payload road through the packed TCP decoder on an established
// connection whose chain holds one staying inspector. Reports allocations per
// packet (the flow buffer's block node, freed again by the flush).
void BM_ClassifyPayloadWithInspector(benchmark::State &state) {
  const kest_handle_t h = kest_bench::Start(state);
  if (h < 0) {
    return;
  }
  oru::Runtime::l_instance_id = h;
  oru::fdt::intrusive_ptr<kest_bench::Staying> inspector = MakeStaying();
  auto *rules = static_cast<oru::IpPortRuleStore *>(oru::InterfaceBroker::Instance()->GetInterface(
      oru::MODULE_TCP, oru::INTERFACE_IPPORT_RULE_STORE));
  const bool added =
      rules != nullptr && rules->AddRule(6, oru::InspectorCallback(inspector.get()), 80, {}, {}, 0,
                                         oru::IpPortRuleStore::EXPIRY_LOCAL, false);
  oru::Runtime::l_instance_id = 0;
  kest_endpoint_t src{KEST_FAMILY_IPV4, htons(40000), {10, 0, 0, 1}};
  kest_endpoint_t dst{KEST_FAMILY_IPV4, htons(80), {10, 0, 0, 2}};
  kest_conn_t conn = nullptr;
  if (!added || kest_conn_create(h, &src, &dst, 6, &conn) != 0) {
    state.SkipWithError("connection not made");
    kest_bench::CloseInstance(h);
    return;
  }
  static const char kPayload[] = "GET / HTTP/1.1\r\nHost: example.com\r\n\r\n";
  kest_classify(h, KEST_SELECTOR_CONN, kPayload, sizeof kPayload - 1, conn, 0, Ignore, nullptr);
  uint64_t allocations;
  {
    kest_bench::LocalAllocations counter;
    for (auto _ : state) {
      benchmark::DoNotOptimize(kest_classify(h, KEST_SELECTOR_CONN, kPayload, sizeof kPayload - 1,
                                             conn, 0, Ignore, nullptr));
    }
    allocations = counter.Count();
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["allocs_per_packet"] =
      static_cast<double>(allocations) / static_cast<double>(state.iterations());
  kest_conn_destroy(h, conn);
  inspector.reset();
  kest_bench::CloseInstance(h);
}
BENCHMARK(BM_ClassifyPayloadWithInspector);

} // namespace
