// Per-thread cells of the exported function layer.
#ifndef KEST_RUNTIME_APISLOTS_H
#define KEST_RUNTIME_APISLOTS_H

#include <kest/Runtime.h>

namespace oru {

struct ApiSlots {
  static ThreadLocalKey tcp_proto;        // protocol index of "TCP"
  static ThreadLocalKey udp_proto;        // protocol index of "UDP"
  static ThreadLocalKey attr_user;        // user word of the running kest_classify
  static ThreadLocalKey thread_id;        // 64-bit, kest_get_thread_id with high word 0
  static ThreadLocalKey garbage_interval; // 64-bit milliseconds
  static ThreadLocalKey last_garbage;     // 64-bit milliseconds of the last garbage pass
};

} // namespace oru

#endif
