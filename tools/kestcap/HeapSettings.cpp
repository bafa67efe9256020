#include "HeapSettings.h"

#ifdef KESTCAP_WITH_JEMALLOC
#include <jemalloc/jemalloc.h>

#include <cstddef>
#include <cstdio>

// jemalloc's settings, read by jemalloc from this symbol when the process's
// first allocation initialises it (built in, so that no environment is
// needed). Its extents and its own bookkeeping go on transparent huge pages:
// kestcap keeps every open connection's records, the library's connection
// objects and the decoders' state alive at once, and faulting that in one
// 4 KiB page at a time cost more than the allocations themselves. On a
// kernel whose huge pages are off, the setting changes nothing.
extern "C" {
__attribute__((visibility("default"))) const char *malloc_conf = "thp:always,metadata_thp:always";
}

namespace kestcap {

void TuneThreadHeap() {
  // An arena grows its address space by ever larger steps (2, 2.5, 3, 3.5,
  // 4, 5 MiB...). The kernel places a new anonymous mapping on a huge-page
  // boundary only when its length is a whole number of huge pages, so the
  // odd steps started and ended mid-page: those parts were faulted in a
  // 4 KiB page at a time, nearly half of a run's page faults. Growing by
  // one huge page at a time keeps the steps whole; a larger allocation
  // still gets the size it asks for. The limit holds from the step after
  // the next: the next one was sized before, so one odd step a thread
  // remains.
  unsigned arena = 0;
  size_t length = sizeof arena;
  if (mallctl("thread.arena", &arena, &length, nullptr, 0) != 0) {
    return;
  }
  char name[48];
  std::snprintf(name, sizeof name, "arena.%u.retain_grow_limit", arena);
  size_t limit = size_t{2} << 20;
  // An arena without retained memory has nothing to limit: left as it is.
  (void)mallctl(name, nullptr, nullptr, &limit, sizeof limit);
}

} // namespace kestcap

#else

namespace kestcap {

void TuneThreadHeap() {}

} // namespace kestcap

#endif
