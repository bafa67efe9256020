// The instance table: in-use flags, states and thread counts, with the
// process-wide instance and thread-state locks.
#ifndef KEST_RUNTIME_INSTANCETABLE_H
#define KEST_RUNTIME_INSTANCETABLE_H

#include <kest/InstanceState.h>
#include <kest/SpinLock.h>

namespace oru {

class InstanceTable {
public:
  // Claims the lowest free row from 1 to 31 and returns it, or 0 when all are
  // taken. Under the instance lock.
  static int Claim();
  // Clears the in-use flag of a row. Under the instance lock.
  static void Release(int row);

  // Read without the lock by every call frame: a relaxed atomic read, as the
  // host orders opening and closing against its own calls.
  static bool InUse(int row) {
    return row >= 1 && row <= kMaxInstance &&
           __atomic_load_n(&s_in_use[row], __ATOMIC_RELAXED) != 0;
  }
  static InstanceState State(int row) {
    return static_cast<InstanceState>(__atomic_load_n(&s_state[row], __ATOMIC_RELAXED));
  }
  static void SetState(int row, InstanceState state) {
    __atomic_store_n(&s_state[row], static_cast<uint32_t>(state), __ATOMIC_RELAXED);
  }

  // Thread entry and exit: count and state change together under the
  // thread-state lock.
  static void ThreadEnter(int row);
  static void ThreadLeave(int row);
  static uint32_t ThreadCount(int row) { return s_thread_count[row]; }

private:
  static uint8_t s_in_use[kInstanceRows];
  static uint32_t s_state[kInstanceRows];
  static uint32_t s_thread_count[kInstanceRows];
  static SpinLock s_instance_lock;
  static SpinLock s_thread_state_lock;
};

} // namespace oru

#endif
