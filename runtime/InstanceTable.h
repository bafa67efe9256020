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

  static bool InUse(int row) { return row >= 1 && row <= kMaxInstance && s_in_use[row] != 0; }
  static InstanceState State(int row) { return static_cast<InstanceState>(s_state[row]); }
  static void SetState(int row, InstanceState state) { s_state[row] = state; }

  // Thread entry and exit: count and state change together under the
  // thread-state lock.
  static void ThreadEnter(int row);
  static void ThreadLeave(int row);
  static uint32_t ThreadCount(int row) { return s_thread_count[row]; }

private:
  static volatile uint8_t s_in_use[kInstanceRows];
  static volatile uint32_t s_state[kInstanceRows];
  static uint32_t s_thread_count[kInstanceRows];
  static SpinLock s_instance_lock;
  static SpinLock s_thread_state_lock;
};

} // namespace oru

#endif
