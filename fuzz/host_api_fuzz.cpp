// Drives one instance through the host interface with a script read from the
// input: connections of either family and transport, payload on either side,
// packets in the other forms, configuration and rule changes, clock steps,
// idle passes, and an allocator that fails from a chosen call on. Whatever the
// bytes say, the library must neither crash nor leak; the instance lives on
// from one input to the next, as in a host.
#include "FuzzInput.h"

#include <kest.h>
#include <kest_host.h>
#include <stdio.h>
#include <stdlib.h>

#ifndef KEST_FUZZ_PLUGIN_DIR
#define KEST_FUZZ_PLUGIN_DIR "plugins"
#endif

namespace {

using kest_fuzz::FuzzInput;

// The allocator: counts down and fails every call once the count is spent.
void *(*g_malloc_local)(size_t);
void *(*g_malloc_shared)(size_t);
long g_fail_after = -1; // -1: never

bool Failing() {
  if (g_fail_after < 0) {
    return false;
  }
  if (g_fail_after == 0) {
    return true;
  }
  --g_fail_after;
  return false;
}
void *MallocLocal(size_t size) {
  return Failing() ? nullptr : g_malloc_local(size);
}
void *MallocShared(size_t size) {
  return Failing() ? nullptr : g_malloc_shared(size);
}

kest_handle_t g_handle = -1;

kest_handle_t Instance() {
  if (g_handle > 0) {
    return g_handle;
  }
  kest_host_use_libc();
  g_malloc_local = kest_malloc_local;
  g_malloc_shared = kest_malloc_shared;
  kest_malloc_local = MallocLocal;
  kest_malloc_shared = MallocShared;
  const char *dir = getenv("KEST_FUZZ_PLUGIN_DIR");
  g_handle = kest_open(dir != nullptr ? dir : KEST_FUZZ_PLUGIN_DIR);
  if (g_handle < 0 || kest_init(g_handle) != 0) {
    fprintf(stderr, "no instance on %s: error %d\n", dir != nullptr ? dir : KEST_FUZZ_PLUGIN_DIR,
            kest_errno);
    abort();
  }
  kest_clock_set_mode(g_handle, 1);
  return g_handle;
}

// Reads everything a host may read about a result; with KEST_FUZZ_VERBOSE
// set, prints the stack, to check what a seed reaches.
int OnResult(kest_handle_t handle, kest_result_t *result, int /*code*/, kest_conn_id_t conn_id,
             void * /*user*/, int /*error*/) {
  static const bool verbose = getenv("KEST_FUZZ_VERBOSE") != nullptr;
  char name[32];
  const int app = kest_app_get(handle, result, nullptr);
  for (kest_proto_first(handle, result); kest_proto_valid(handle, result);
       kest_proto_next(handle, result)) {
    kest_proto_get_name(handle, kest_proto_get_index(handle, result), name, sizeof name);
    if (verbose) {
      printf("connection %llu: %s\n", static_cast<unsigned long long>(conn_id), name);
    }
  }
  if (verbose && kest_proto_get_name(handle, app, name, sizeof name) != nullptr) {
    printf("connection %llu: application %s\n", static_cast<unsigned long long>(conn_id), name);
  }
  kest_endpoint_t src, dst;
  kest_endpoint_get(handle, conn_id, &src, &dst);
  unsigned flags = 0;
  kest_conn_status_flags_get(handle, conn_id, &flags);
  return 0;
}

int OnAttribute(kest_handle_t, kest_conn_id_t, int, int, const void *, int, void *) {
  return 0;
}

const char *const kKeys[] = {
    "conn.default_policy.attributes",
    "conn.default_policy.futureflows",
    "conn.default_policy.tunnels",
    "conn.default_policy.chameleon",
    "flow.reorder_window",
    "system.loglevel",
    "customrule.tcp.",
    "customrule.udp.",
    "attribute.",
    "fuzz.",
};
const char *const kModules[] = {"tcp", "udp", "nosuch"};
const char *const kAttributes[] = {"conn.expired", "http.url", "nosuch"};

constexpr int kConns = 8;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const kest_handle_t h = Instance();
  FuzzInput in(data, size);
  kest_conn_t conns[kConns] = {};
  char key[96], value[32], text[48];
  uint64_t clock = 1000;
  static const int app = kest_proto_add(h, "fuzzapp", 0);

  while (!in.empty()) {
    switch (in.Byte() % 10) {
    case 0: { // a connection
      const int slot = in.Byte() % kConns;
      if (conns[slot] != nullptr) {
        break;
      }
      const uint8_t mode = in.Byte();
      kest_endpoint_t src = {}, dst = {};
      src.family = dst.family = (mode & 1) != 0 ? KEST_FAMILY_IPV6 : KEST_FAMILY_IPV4;
      if ((mode & 4) != 0) {
        dst.family = 7; // refused
      }
      src.port = in.Word();
      dst.port = in.Word();
      for (int i = 0; i < 16; ++i) {
        src.address[i] = in.Byte();
        dst.address[i] = static_cast<uint8_t>(src.address[i] ^ in.Byte());
      }
      const uint8_t protocol = (mode & 2) != 0 ? 17 : (mode & 8) != 0 ? mode : 6;
      if (kest_conn_create(h, &src, &dst, protocol, &conns[slot]) != 0) {
        conns[slot] = nullptr;
      }
      break;
    }
    case 1:
    case 2:
    case 3: { // payload on one side of a connection
      const int slot = in.Byte() % kConns;
      const int side = in.Byte() & 1;
      size_t length = 0;
      const uint8_t *run = in.Run(255, &length);
      if (conns[slot] != nullptr && length > 0) {
        kest_classify(h, KEST_SELECTOR_CONN, run, static_cast<uint16_t>(length), conns[slot], side,
                      OnResult, nullptr);
      }
      break;
    }
    case 4: { // a packet in one of the other forms, or a refused selector
      const int selector = in.Byte() % 6;
      size_t length = 0;
      const uint8_t *run = in.Run(255, &length);
      int app_index = 0;
      if (length > 0) {
        if (selector == 5) {
          kest_classify_simple(h, run, static_cast<uint16_t>(length), &app_index);
        } else {
          kest_classify(h, selector, run, static_cast<uint16_t>(length), nullptr, 0, OnResult,
                        nullptr);
        }
      }
      break;
    }
    case 5: { // the end of a connection
      const int slot = in.Byte() % kConns;
      if (conns[slot] != nullptr) {
        kest_conn_destroy(h, conns[slot]);
        conns[slot] = nullptr;
      }
      break;
    }
    case 6: { // configuration
      const char *prefix = kKeys[in.Byte() % (sizeof kKeys / sizeof kKeys[0])];
      snprintf(key, sizeof key, "%s%s", prefix, in.Text(text, sizeof text));
      kest_config_set(h, key, in.Text(value, sizeof value));
      break;
    }
    case 7: { // custom rules
      const uint8_t mode = in.Byte();
      const char *module = kModules[mode % 3];
      in.Text(text, sizeof text);
      const int protocol = (mode & 4) != 0 ? app : mode >> 3;
      if ((mode & 128) != 0) {
        kest_rule_remove(h, protocol, module, text);
      } else {
        kest_rule_add(h, protocol, module, text);
      }
      break;
    }
    case 8: // time passes; idle pass
      clock += in.Word() * 100u;
      kest_clock_set(h, clock);
      kest_idle(h);
      break;
    case 9: { // allocator failure from the Nth call on, or none; listeners
      const uint8_t mode = in.Byte();
      g_fail_after = (mode & 128) != 0 ? mode & 127 : -1;
      if ((mode & 3) == 3) {
        kest_attr_callback_set(h, kAttributes[in.Byte() % 3], OnAttribute);
      }
      break;
    }
    }
  }

  // The host's part of the bargain: its connections end, nothing fails.
  // Configuration items and rules stay, as a host's would; a long run grows
  // the store by what the inputs named.
  g_fail_after = -1;
  for (kest_conn_t &conn : conns) {
    if (conn != nullptr) {
      kest_conn_destroy(h, conn);
    }
  }
  kest_idle(h);
  return 0;
}
