// Thread-local words, slot counters and the error path.
#include <kest/Error.h>
#include <kest/Runtime.h>
#include <kest/SpinLock.h>

#include "runtime/Slots.h"

extern "C" {
__thread int kest_errno;
}

namespace oru {

KEST_THREAD_WORD __thread int Runtime::l_instance_id;
KEST_THREAD_WORD __thread void *t_thread_base[kInstanceRows];
KEST_THREAD_WORD __thread unsigned log_flags;

namespace {

__thread ErrorHandler t_error_handler;

// Process-wide slot counters, guarded by g_slot_lock.
SpinLock g_slot_lock;
uint32_t g_slot_count;    // next slot number; cells in a block made now
uint32_t g_instance_base; // slot count at the first InitInstLocal; 0 = never
uint32_t g_late_slots;    // slots registered after instance base; wraps

} // namespace

unsigned RegisterThreadLocal() {
  SpinGuard guard(g_slot_lock);
  if (g_instance_base != 0) {
    ++g_late_slots;
  }
  return g_slot_count++;
}

void UnregisterThreadLocal(unsigned /*slot*/) {
  // Numbers are not reused one by one; ExitInstLocal rewinds them all.
  SpinGuard guard(g_slot_lock);
  --g_late_slots;
}

bool InitInstLocal() {
  SpinGuard guard(g_slot_lock);
  if (g_instance_base == 0) {
    g_instance_base = g_slot_count;
  }
  return true;
}

void ExitInstLocal() {
  SpinGuard guard(g_slot_lock);
  if (g_late_slots == 0) {
    g_slot_count = g_instance_base;
  }
}

bool InitThreadLocal() {
  SpinGuard guard(g_slot_lock);
  void *&entry = t_thread_base[Runtime::l_instance_id];
  if (entry != nullptr) {
    return false;
  }
  const size_t size = static_cast<size_t>(g_slot_count) * 8;
  void *block = kest_malloc_local(size);
  if (block == nullptr) {
    return false;
  }
  kest_memset(block, 0, size);
  entry = block;
  return true;
}

void ExitThreadLocal() {
  SpinGuard guard(g_slot_lock);
  void *&entry = t_thread_base[Runtime::l_instance_id];
  if (entry != nullptr) {
    kest_free_local(entry);
    entry = nullptr;
  }
}

SlotCounters ReadSlotCounters() {
  SpinGuard guard(g_slot_lock);
  return SlotCounters{g_slot_count, g_instance_base, g_late_slots};
}

void SetErrorHandler(ErrorHandler handler) {
  t_error_handler = handler;
}

void ThrowError(Error error) {
  ErrorHandler handler = t_error_handler;
  if (handler != nullptr) {
    handler(error);
  }
}

const char *ErrorString(Error error) {
  switch (error) {
  case ERR_NOMEM:
    return "No memory available";
  case ERR_NOBUFS:
    return "No flows available";
  case ERR_NOTCONN:
    return "No connection allocated";
  default:
    return "Unknown";
  }
}

void RecordFirstError(Error error) {
  if (kest_errno == 0) {
    kest_errno = error;
  }
}

} // namespace oru

extern "C" KEST_EXPORT int kest_error_get(kest_handle_t /*handle*/) {
  return kest_errno;
}
