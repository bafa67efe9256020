#include "HeapSettings.h"

#ifdef KESTCAP_WITH_JEMALLOC
#include <jemalloc/jemalloc.h>

#include <cstddef>
#include <cstdio>

// The heap stays on ordinary pages. Transparent huge pages
// ("thp:always,metadata_thp:always" in MALLOC_CONF) fault a run's live set in
// with a fifth of the faults, but each arena and its bookkeeping then hold a
// huge page filled in part: 4 MB more at start and at the peak (38 against
// 34 MB on the replicas of scripts/bench.sh), for no CPU time measurable by
// turns on a virtual machine whose faults are cheap. A user for whom faults
// cost more sets MALLOC_CONF; the growth step below keeps those pages whole.

namespace kestcap {

void TuneThreadHeap() {
  // An arena grows its address space by ever larger steps (2, 2.5, 3, 3.5,
  // 4, 5 MiB...). Where huge pages are on (MALLOC_CONF, or a kernel that
  // gives them to every mapping), the kernel places a new anonymous mapping
  // on a huge-page boundary only when its length is a whole number of huge
  // pages, so the odd steps started and ended mid-page: those parts were
  // faulted in a 4 KiB page at a time. Growing by one huge page at a time
  // keeps the steps whole; a larger allocation still gets the size it asks
  // for. The limit holds from the step after the next: the next one was
  // sized before, so one odd step a thread remains.
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
