// What the fuzz targets of the packet road share: an instance on the
// plug-ins they name, copied into a folder of their own (the library loads
// every plug-in of a folder), started on the calling thread with a listener
// on each attribute named, and closed with its folder at exit; allocations
// that fail from the nth on while the input says so; and the packets of a
// connection cut from the input.
#ifndef KEST_FUZZ_FUZZROAD_H
#define KEST_FUZZ_FUZZROAD_H

#include "FuzzInput.h"

#include <kest.h>
#include <kest_host.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace kest_fuzz {

// A plug-in file and the name it takes in the instance's folder.
struct PluginCopy {
  const char *from;
  const char *name;
};

namespace road {

inline char g_dir[64];
inline const PluginCopy *g_plugins = nullptr;
inline size_t g_plugin_count = 0;
inline kest_handle_t g_handle = -1;

inline bool Copy(const PluginCopy &plugin) {
  char to[512];
  snprintf(to, sizeof to, "%s/%s", g_dir, plugin.name);
  FILE *in = fopen(plugin.from, "rb");
  FILE *out = fopen(to, "wb");
  bool ok = in != nullptr && out != nullptr;
  char buf[65536];
  for (size_t n; ok && (n = fread(buf, 1, sizeof buf, in)) > 0;) {
    ok = fwrite(buf, 1, n, out) == n;
  }
  if (in != nullptr) {
    fclose(in);
  }
  if (out != nullptr) {
    fclose(out);
  }
  return ok;
}

inline void CleanUp() {
  kest_fini(g_handle);
  kest_close(g_handle);
  char path[512];
  for (size_t i = 0; i < g_plugin_count; ++i) {
    snprintf(path, sizeof path, "%s/%s", g_dir, g_plugins[i].name);
    unlink(path);
  }
  rmdir(g_dir);
}

inline int Ignore(kest_handle_t, kest_conn_id_t, int, int, const void *, int, void *) {
  return 0;
}

// Fails every allocation from the nth on while armed.
inline void *(*g_real_local)(size_t) = nullptr;
inline long g_countdown = -1;
inline void *FailingLocal(size_t size) {
  if (g_countdown >= 0 && g_countdown-- == 0) {
    g_countdown = 0;
    return nullptr;
  }
  return g_real_local(size);
}

} // namespace road

// The instance, made once per process; any failure aborts. `plugins` must
// outlive the process's exit.
inline kest_handle_t OpenRoad(const char *tag, const PluginCopy *plugins, size_t plugin_count,
                              const char *const *attributes, size_t attribute_count) {
  if (road::g_handle >= 0) {
    return road::g_handle;
  }
  kest_host_use_libc();
  snprintf(road::g_dir, sizeof road::g_dir, "/tmp/kest-fuzz-%s-XXXXXX", tag);
  if (mkdtemp(road::g_dir) == nullptr) {
    abort();
  }
  road::g_plugins = plugins;
  road::g_plugin_count = plugin_count;
  for (size_t i = 0; i < plugin_count; ++i) {
    if (!road::Copy(plugins[i])) {
      abort();
    }
  }
  const kest_handle_t handle = kest_open(road::g_dir);
  if (handle < 0 || kest_init(handle) != 0) {
    abort();
  }
  road::g_handle = handle;
  atexit(road::CleanUp);
  for (size_t i = 0; i < attribute_count; ++i) {
    if (kest_attr_callback_set(handle, attributes[i], road::Ignore) != 0) {
      abort();
    }
  }
  kest_idle(handle);
  return handle;
}

// Allocations fail from the input's count on when its next byte is 0xF0 or
// more, until the object goes.
class FailingAllocations {
public:
  explicit FailingAllocations(FuzzInput &in) : m_armed(in.Byte() >= 0xF0) {
    if (m_armed) {
      road::g_real_local = kest_malloc_local;
      kest_malloc_local = road::FailingLocal;
      road::g_countdown = in.Byte();
    }
  }
  ~FailingAllocations() {
    if (m_armed) {
      kest_malloc_local = road::g_real_local;
      road::g_real_local = nullptr;
      road::g_countdown = -1;
    }
  }
  FailingAllocations(const FailingAllocations &) = delete;
  FailingAllocations &operator=(const FailingAllocations &) = delete;
  bool Armed() const { return m_armed; }

private:
  bool m_armed;
};

// The rest of the input as packets of `conn`: each a side byte (bit 0) and
// a run with a one-byte length, or a two-byte one when `longest` is past
// 255; each classified from a copy of its own, so that reads past it are
// seen.
inline void SendPackets(kest_handle_t h, kest_conn_t conn, FuzzInput &in, size_t longest) {
  while (!in.empty()) {
    const int side = in.Byte() & 1;
    size_t length = 0;
    const uint8_t *bytes = longest > 255 ? in.LongRun(longest, &length) : in.Run(255, &length);
    if (length == 0) {
      continue;
    }
    void *packet = malloc(length);
    memcpy(packet, bytes, length);
    kest_classify(
        h, KEST_SELECTOR_CONN, packet, static_cast<uint16_t>(length), conn, side,
        [](kest_handle_t, kest_result_t *, int, kest_conn_id_t, void *, int) { return 0; },
        nullptr);
    free(packet);
  }
}

} // namespace kest_fuzz

#endif
