// Shared by the benchmarks: instances on the build's decoder plug-ins (tcp.plg
// and udp.plg, which every thread start-up requires), an allocation counter
// and an inspector that stays.
#ifndef KEST_BENCH_BENCHINSTANCE_H
#define KEST_BENCH_BENCHINSTANCE_H

#include <benchmark/benchmark.h>
#include <filesystem>
#include <kest.h>
#include <kest/Conn.h>
#include <kest/Inspector.h>
#include <kest_host.h>
#include <stdint.h>
#include <stdlib.h>
#include <string>

namespace kest_bench {

// An instance on `folder` with the calling thread started in it; -1 when
// either did not start. The hooks must be filled (kest_host_use_libc).
inline kest_handle_t OpenOn(const char *folder) {
  const kest_handle_t h = folder != nullptr ? kest_open(folder) : -1;
  if (h < 0) {
    return -1;
  }
  if (kest_init(h) != 0) {
    kest_close(h);
    return -1;
  }
  return h;
}

// On the build's plug-ins.
inline kest_handle_t OpenInstance() {
  return OpenOn(KEST_BENCH_PLUGIN_DIR);
}

// On the transports alone, without the whole-packet decoder, for benchmarks
// that put their own handler on a packet form. The folder is made once, in
// the temporary directory, and removed again when the program ends.
inline kest_handle_t OpenTransportInstance() {
  struct Folder {
    std::string path;
    ~Folder() {
      if (!path.empty()) {
        std::filesystem::remove_all(path);
      }
    }
  };
  static const Folder made = [] {
    char pattern[] = "/tmp/kest-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      return Folder{};
    }
    for (const char *name : {"tcp.plg", "udp.plg"}) {
      std::filesystem::copy_file(std::filesystem::path(KEST_BENCH_PLUGIN_DIR) / name,
                                 std::filesystem::path(pattern) / name);
    }
    return Folder{pattern};
  }();
  return OpenOn(made.path.empty() ? nullptr : made.path.c_str());
}

// The whole start of a benchmark: the C library's hooks and an instance on
// the build's plug-ins, or -1 after marking the benchmark failed.
inline kest_handle_t Start(benchmark::State &state) {
  kest_host_use_libc();
  const kest_handle_t h = OpenInstance();
  if (h < 0) {
    state.SkipWithError("instance did not start");
  }
  return h;
}

inline void CloseInstance(kest_handle_t h) {
  kest_fini(h);
  kest_close(h);
}

// Counts the calls of one of the host's allocation hooks (kest_malloc_local,
// kest_malloc_shared) while it lives.
template <void *(**Hook)(size_t)> class HookAllocations {
public:
  HookAllocations() : m_saved(*Hook) {
    s_real = *Hook;
    s_count = 0;
    *Hook = Counting;
  }
  ~HookAllocations() { *Hook = m_saved; }
  HookAllocations(const HookAllocations &) = delete;
  HookAllocations &operator=(const HookAllocations &) = delete;
  uint64_t Count() const { return s_count; }

private:
  static void *Counting(size_t size) {
    ++s_count;
    return s_real(size);
  }
  void *(*m_saved)(size_t);
  static inline void *(*s_real)(size_t) = nullptr;
  static inline uint64_t s_count = 0;
};

using LocalAllocations = HookAllocations<&kest_malloc_local>;
using SharedAllocations = HookAllocations<&kest_malloc_shared>;

// An inspector that stays on every chain it is put on.
class Staying : public oru::Inspector {
public:
  unsigned int Inspect(oru::ParentDpi *, oru::PktInfo &, oru::Tuple &,
                       oru::fdt::intrusive_ptr<oru::Conn> &) override {
    return oru::INSPECT_STAY;
  }
};

} // namespace kest_bench

#endif
