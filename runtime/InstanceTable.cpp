#include "runtime/InstanceTable.h"

namespace oru {

uint8_t InstanceTable::s_in_use[kInstanceRows];
uint32_t InstanceTable::s_state[kInstanceRows];
uint32_t InstanceTable::s_thread_count[kInstanceRows];
SpinLock InstanceTable::s_instance_lock;
SpinLock InstanceTable::s_thread_state_lock;

int InstanceTable::Claim() {
  SpinGuard guard(s_instance_lock);
  for (int row = 1; row <= kMaxInstance; ++row) {
    if (__atomic_load_n(&s_in_use[row], __ATOMIC_RELAXED) == 0) {
      __atomic_store_n(&s_in_use[row], 1, __ATOMIC_RELAXED);
      return row;
    }
  }
  return 0;
}

void InstanceTable::Release(int row) {
  SpinGuard guard(s_instance_lock);
  __atomic_store_n(&s_in_use[row], 0, __ATOMIC_RELAXED);
}

void InstanceTable::ThreadEnter(int row) {
  SpinGuard guard(s_thread_state_lock);
  ++s_thread_count[row];
  SetState(row, INST_THREADED);
}

void InstanceTable::ThreadLeave(int row) {
  SpinGuard guard(s_thread_state_lock);
  --s_thread_count[row];
  SetState(row, INST_OPEN);
}

InstanceState CurrentInstanceState() {
  return InstanceTable::State(Runtime::l_instance_id);
}

} // namespace oru
