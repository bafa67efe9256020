#include <kest.h>
#include <kest/Clock.h>
#include <kest/Runtime.h>

#include "runtime/ApiFrame.h"

namespace oru {

namespace {

ThreadLocalKey g_current_time;
SlotRegistration g_current_time_reg(g_current_time);

// Per instance: true while the host sets the time.
bool s_clock_mode[kInstanceRows];

} // namespace

uint64_t now() {
  return ThreadCell(g_current_time);
}

uint64_t now_sec() {
  return now() / 1000u;
}

uint64_t set_clock(uint64_t ms) {
  ThreadCell(g_current_time) = ms;
  return ms;
}

uint64_t update_clock(bool force) {
  if (!__atomic_load_n(&s_clock_mode[Runtime::l_instance_id], __ATOMIC_RELAXED) || force) {
    struct timeval tv = {0, 0};
    kest_gettimeofday(&tv, nullptr);
    // 32-bit arithmetic on purpose: the cell holds the low word of the
    // millisecond count, sign-extended. Computed unsigned to keep the
    // wrap-around defined, then reinterpreted as signed.
    const uint32_t ms = static_cast<uint32_t>(tv.tv_sec) * 1000u +
                        static_cast<uint32_t>(static_cast<int32_t>(tv.tv_usec) / 1000);
    ThreadCell(g_current_time) =
        static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(ms)));
  }
  return ThreadCell(g_current_time);
}

void set_clock_mode(bool host_sets_time) {
  __atomic_store_n(&s_clock_mode[Runtime::l_instance_id], host_sets_time, __ATOMIC_RELAXED);
}

void delay(const uint64_t &us) {
  kest_usleep(static_cast<unsigned int>(us));
}

} // namespace oru

extern "C" KEST_EXPORT void kest_clock_set(kest_handle_t handle, uint64_t ms) {
  oru::ApiFrame frame(handle, oru::ApiFrame::THREAD_CONTEXT_FIRST);
  if (frame.ok()) {
    oru::set_clock(ms);
  }
}

extern "C" KEST_EXPORT void kest_clock_set_mode(kest_handle_t handle, int mode) {
  oru::ApiFrame frame(handle, oru::ApiFrame::INSTANCE_ONLY);
  if (frame.ok()) {
    oru::set_clock_mode(mode != 0);
  }
}
