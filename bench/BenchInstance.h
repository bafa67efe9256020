// An instance on the build's decoder plug-ins (tcp.plg and udp.plg, which
// every thread start-up requires), with the calling thread started in it.
#ifndef KEST_BENCH_BENCHINSTANCE_H
#define KEST_BENCH_BENCHINSTANCE_H

#include <kest.h>

namespace kest_bench {

// The handle, or -1 when the instance or the thread did not start. The
// hooks must be filled (kest_host_use_libc).
inline kest_handle_t OpenInstance() {
  const kest_handle_t h = kest_open(KEST_BENCH_PLUGIN_DIR);
  if (h < 0) {
    return -1;
  }
  if (kest_init(h) != 0) {
    kest_close(h);
    return -1;
  }
  return h;
}

inline void CloseInstance(kest_handle_t h) {
  kest_fini(h);
  kest_close(h);
}

} // namespace kest_bench

#endif
