// One application decoder on the packet road, built once per decoder (see
// decoders.cmake): the tcp and udp plug-ins, the decoder's and those it hands
// connections on to, in a folder of their own. The input chooses TCP or UDP,
// the server's port (one the decoder tries first, or one of no meaning),
// whether allocations fail, and then packets of either side with their
// lengths, so that both the stream reassembly and datagrams reach the parser.
// Every attribute of the decoder is listened to. No crash and no leak.
//
// Input: a byte for the transport (bit 0: UDP) and the port (the rest: an
// index into the decoder's ports, past them the port of no meaning); a byte
// that, from 0xF0 up, is followed by the number of allocations to let
// through before they fail; then packets, each a side byte (bit 0) and a
// run with a two-byte length.
#include "FuzzInput.h"

#include <arpa/inet.h>
#include <kest.h>
#include <kest_host.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

constexpr const char *kPlugins[] = {KEST_FUZZ_PLUGINS};
constexpr const char *kAttributes[] = {KEST_FUZZ_ATTRIBUTES};
constexpr uint16_t kPorts[] = {KEST_FUZZ_PORTS};
constexpr size_t kPortCount = sizeof kPorts / sizeof kPorts[0];
// A port that no decoder of the project tries first.
constexpr uint16_t kNoMeaning = 40404;
// Longer than any Ethernet frame's payload, within a classify call's bound.
constexpr size_t kLongestPacket = 4096;

int Ignore(kest_handle_t, kest_conn_id_t, int, int, const void *, int, void *) {
  return 0;
}
int Result(kest_handle_t, kest_result_t *, int, kest_conn_id_t, void *, int) {
  return 0;
}

bool Copy(const char *name, const char *dir) {
  char from[512];
  char to[512];
  snprintf(from, sizeof from, "%s/%s", KEST_FUZZ_PLUGIN_DIR, name);
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

char g_dir[] = "/tmp/kest-fuzz-decoder-XXXXXX";
kest_handle_t g_handle = -1;

// At exit: the instance closes and its plug-in folder goes.
void CleanUp() {
  kest_fini(g_handle);
  kest_close(g_handle);
  char path[512];
  for (const char *name : kPlugins) {
    snprintf(path, sizeof path, "%s/%s", g_dir, name);
    unlink(path);
  }
  rmdir(g_dir);
}

kest_handle_t Instance() {
  static kest_handle_t h = [] {
    kest_host_use_libc();
    if (mkdtemp(g_dir) == nullptr) {
      abort();
    }
    for (const char *name : kPlugins) {
      if (!Copy(name, g_dir)) {
        abort();
      }
    }
    const kest_handle_t handle = kest_open(g_dir);
    if (handle < 0 || kest_init(handle) != 0) {
      abort();
    }
    g_handle = handle;
    atexit(CleanUp);
    for (const char *name : kAttributes) {
      if (kest_attr_callback_set(handle, name, Ignore) != 0) {
        abort();
      }
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
  const uint8_t how = in.Byte();
  const uint8_t protocol = (how & 1) != 0 ? 17 : 6;
  const size_t index = how >> 1;
  const uint16_t port = index < kPortCount ? kPorts[index] : kNoMeaning;
  kest_endpoint_t src{KEST_FAMILY_IPV4, htons(49152), {10, 0, 0, 1}};
  kest_endpoint_t dst{KEST_FAMILY_IPV4, htons(port), {10, 0, 0, 2}};
  kest_conn_t conn = nullptr;
  if (kest_conn_create(h, &src, &dst, protocol, &conn) != 0) {
    abort();
  }
  const bool failing = in.Byte() >= 0xF0;
  if (failing) {
    g_real_local = kest_malloc_local;
    kest_malloc_local = FailingLocal;
    g_countdown = in.Byte();
  }
  while (!in.empty()) {
    const int side = in.Byte() & 1;
    size_t length = 0;
    const uint8_t *bytes = in.LongRun(kLongestPacket, &length);
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
  if (failing) {
    kest_malloc_local = g_real_local;
    g_real_local = nullptr;
    g_countdown = -1;
  }
  if (kest_conn_destroy(h, conn) != 0 && !failing) {
    abort();
  }
  return 0;
}
