#include "KernelDrops.h"

#include <atomic>

namespace kestcap {

namespace {

std::atomic<uint64_t> g_dropped{0};

} // namespace

uint64_t KernelDrops() {
  return g_dropped.load(std::memory_order_relaxed);
}

void AddKernelDrops(uint64_t dropped) {
  g_dropped.fetch_add(dropped, std::memory_order_relaxed);
}

} // namespace kestcap
