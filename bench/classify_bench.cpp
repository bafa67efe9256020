// The kest_classify round trip with an in-process classifier that names one
// long-lived connection, and the per-event cost of the synchronous queue.
#include <benchmark/benchmark.h>
#include <kest.h>
#include <kest/Classification.h>
#include <kest/Conn.h>
#include <kest/IClassify.h>
#include <kest/Runtime.h>
#include <kest/SyncEventQueue.h>
#include <kest_host.h>

#include "BenchInstance.h"

#include <cstdint>
#include <new>

namespace {

using ConnPtr = oru::fdt::intrusive_ptr<oru::Conn>;

class BenchConn : public oru::Conn {
public:
  void *GetInterface(oru::InterfaceId) override { return nullptr; }
  uint8_t Protocol() const override { return 6; }
  void Expired() override {}
};

class BenchClassify : public oru::IClassify {
public:
  unsigned Classify(oru::ClassifyPacket *, ConnPtr &out) override {
    out = m_conn;
    return 0x40;
  }
  oru::Conn *m_conn = nullptr;
};

class BenchOwner : public oru::fdt::refcnt {};

int ReturnZero(kest_handle_t, kest_result_t *, int, kest_conn_id_t, void *, int) {
  return 0;
}

// Counting wrappers around the heap hooks.
uint64_t g_allocations = 0;
void *(*g_real_local)(size_t) = nullptr;
void *(*g_real_shared)(size_t) = nullptr;
void *CountingLocal(size_t size) {
  ++g_allocations;
  return g_real_local(size);
}
void *CountingShared(size_t size) {
  ++g_allocations;
  return g_real_shared(size);
}

void BM_ClassifyRoundTrip(benchmark::State &state) {
  kest_host_use_libc();
  g_real_local = kest_malloc_local;
  g_real_shared = kest_malloc_shared;
  kest_malloc_local = CountingLocal;
  kest_malloc_shared = CountingShared;
  const kest_handle_t h = kest_bench::OpenTransportInstance();
  if (h < 0) {
    state.SkipWithError("instance did not start");
    return;
  }
  oru::Runtime::l_instance_id = h;
  if (oru::Classification::Peek() == nullptr) {
    if (!oru::Conn::InitInstance() || !oru::Classification::Instance()->InitThread()) {
      oru::Runtime::l_instance_id = 0;
      state.SkipWithError("classification did not start");
      return;
    }
  }
  BenchClassify handler;
  ConnPtr conn(::new (kest_malloc_local(sizeof(BenchConn))) BenchConn);
  handler.m_conn = conn.get();
  oru::fdt::intrusive_ptr<oru::fdt::refcnt> owner(new BenchOwner);
  const bool registered = oru::Classification::Instance()->Register(
      oru::Classification::CLASSIFY_TYPE_0, &handler, owner);
  oru::Runtime::l_instance_id = 0;
  if (!registered) {
    state.SkipWithError("classifier not registered");
    return;
  }
  static constexpr uint8_t kPacket[4] = {1, 2, 3, 4};
  // One warm-up packet so first-use allocations fall outside the count.
  kest_classify(h, KEST_SELECTOR_FORM_1, kPacket, sizeof(kPacket), nullptr, 0, ReturnZero, nullptr);
  g_allocations = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(kest_classify(h, KEST_SELECTOR_FORM_1, kPacket, sizeof(kPacket),
                                           nullptr, 0, ReturnZero, nullptr));
  }
  const uint64_t allocations = g_allocations;
  kest_malloc_local = g_real_local;
  kest_malloc_shared = g_real_shared;
  state.SetItemsProcessed(state.iterations());
  if (allocations != 0) {
    state.SkipWithError("allocation in the timed loop");
  }
  oru::Runtime::l_instance_id = h;
  if (oru::Classification::Peek() != nullptr) {
    oru::Classification::Peek()->ExitThread();
    oru::Classification::Release();
  }
  conn = nullptr;
  oru::Runtime::l_instance_id = 0;
  kest_bench::CloseInstance(h);
}
BENCHMARK(BM_ClassifyRoundTrip);

class CountingTarget : public oru::EventTarget {
public:
  void OnEvent(const void *, uint32_t) { ++m_count; }
  uint64_t m_count = 0;
};

void BM_SyncEventPostDrain(benchmark::State &state) {
  const kest_handle_t h = kest_bench::Start(state);
  if (h < 0) {
    return;
  }
  oru::Runtime::l_instance_id = h;
  CountingTarget target;
  const uint32_t id = oru::SyncEventQueue::RegisterEvent("bench.event");
  const bool installed = oru::SyncEventQueue::Instance()->InstallHandler(
      id, &target, oru::MakeEventMethod(&CountingTarget::OnEvent));
  if (!installed) {
    oru::Runtime::l_instance_id = 0;
    state.SkipWithError("handler not installed");
    return;
  }
  const uint32_t payload = 7;
  for (auto _ : state) {
    oru::SyncEventQueue::PostEvent(id, &payload, sizeof(payload));
    oru::SyncEventQueue::DrainEvents();
  }
  oru::Runtime::l_instance_id = 0;
  state.SetItemsProcessed(state.iterations());
  if (target.m_count != static_cast<uint64_t>(state.iterations())) {
    state.SkipWithError("events lost");
  }
  kest_bench::CloseInstance(h);
}
BENCHMARK(BM_SyncEventPostDrain);

} // namespace
