// A whole message inspector on the packet road: packets of either side of a
// connection to the CHAT test protocol (a WebDpi plug-in) cut from the input,
// with every attribute listened to, and allocations failing when the input
// says so. No crash and no leak.
#include "FuzzInput.h"

#include <arpa/inet.h>
#include <initializer_list>
#include <kest.h>
#include <kest_host.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

int Ignore(kest_handle_t, kest_conn_id_t, int, int, const void *, int, void *) {
  return 0;
}
int Result(kest_handle_t, kest_result_t *, int, kest_conn_id_t, void *, int) {
  return 0;
}

bool Copy(const char *from, const char *dir, const char *name) {
  char to[512];
  snprintf(to, sizeof to, "%s/%s", dir, name);
  FILE *in = fopen(from, "rb");
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

char g_dir[] = "/tmp/kest-fuzz-web-XXXXXX";
kest_handle_t g_handle = -1;

// At exit: the instance closes and its plug-in folder goes.
void CleanUp() {
  kest_fini(g_handle);
  kest_close(g_handle);
  char path[512];
  for (const char *name : {"tcp.plg", "udp.plg", "chat.plg"}) {
    snprintf(path, sizeof path, "%s/%s", g_dir, name);
    unlink(path);
  }
  rmdir(g_dir);
}

// One instance on the decoders and the CHAT plug-in, and this thread in it.
kest_handle_t Instance() {
  static kest_handle_t h = [] {
    kest_host_use_libc();
    char *dir = g_dir;
    if (mkdtemp(dir) == nullptr || !Copy(KEST_FUZZ_PLUGIN_DIR "/tcp.plg", dir, "tcp.plg") ||
        !Copy(KEST_FUZZ_PLUGIN_DIR "/udp.plg", dir, "udp.plg") ||
        !Copy(KEST_FUZZ_CHAT_PLG, dir, "chat.plg")) {
      abort();
    }
    const kest_handle_t handle = kest_open(dir);
    if (handle < 0 || kest_init(handle) != 0) {
      abort();
    }
    g_handle = handle;
    atexit(CleanUp);
    for (const char *name : {"chat.request.header", "chat.request.body", "chat.request.uri",
                             "chat.request.method", "chat.request.version", "chat.response.header",
                             "chat.response.body", "chat.response.code", "chat.response.version",
                             "chat.request.header.Nick", "chat.response.header.Content-Length"}) {
      kest_attr_callback_set(handle, name, Ignore);
    }
    kest_idle(handle);
    return handle;
  }();
  return h;
}

// Fails every allocation from the nth on while armed.
void *(*g_real_local)(size_t) = nullptr;
long g_countdown = -1;
void *FailingLocal(size_t size) {
  if (g_countdown >= 0 && g_countdown-- == 0) {
    g_countdown = 0;
    return nullptr;
  }
  return g_real_local(size);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const kest_handle_t h = Instance();
  kest_fuzz::FuzzInput in(data, size);
  kest_endpoint_t src{KEST_FAMILY_IPV4, htons(40000), {10, 0, 0, 1}};
  kest_endpoint_t dst{KEST_FAMILY_IPV4, htons(7000), {10, 0, 0, 2}};
  kest_conn_t conn = nullptr;
  if (kest_conn_create(h, &src, &dst, 6, &conn) != 0) {
    return 0;
  }
  const uint8_t fail = in.Byte();
  if (fail >= 0xF0) {
    g_real_local = kest_malloc_local;
    kest_malloc_local = FailingLocal;
    g_countdown = in.Byte();
  }
  while (!in.empty()) {
    const int side = in.Byte() & 1;
    size_t length = 0;
    const uint8_t *bytes = in.Run(255, &length);
    if (length == 0) {
      continue;
    }
    // A copy of its own, so that reads past the packet are seen.
    void *packet = malloc(length);
    memcpy(packet, bytes, length);
    kest_classify(h, KEST_SELECTOR_CONN, packet, static_cast<uint16_t>(length), conn, side, Result,
                  nullptr);
    free(packet);
  }
  if (g_real_local != nullptr) {
    kest_malloc_local = g_real_local;
    g_real_local = nullptr;
    g_countdown = -1;
  }
  kest_conn_destroy(h, conn);
  return 0;
}
