// The library's one lock: a 32-bit word, 0 free and 1 held. No back-off, no
// yield, no time-out; hold times are a few instructions or one allocation.
#ifndef KEST_SPINLOCK_H
#define KEST_SPINLOCK_H

#include <stdint.h>

namespace oru {

using SpinLock = volatile uint32_t;

inline void SpinAcquire(SpinLock &lock) {
  while (!__sync_bool_compare_and_swap(&lock, 0u, 1u)) {
  }
}

// Released by an atomic swap to 0 in a compare-and-swap loop, which also
// publishes the writes made under the lock.
inline void SpinRelease(SpinLock &lock) {
  uint32_t seen = __atomic_load_n(&lock, __ATOMIC_RELAXED);
  while (!__sync_bool_compare_and_swap(&lock, seen, 0u)) {
    seen = __atomic_load_n(&lock, __ATOMIC_RELAXED);
  }
}

class SpinGuard {
public:
  explicit SpinGuard(SpinLock &lock) : m_lock(lock) { SpinAcquire(m_lock); }
  ~SpinGuard() { SpinRelease(m_lock); }
  SpinGuard(const SpinGuard &) = delete;
  SpinGuard &operator=(const SpinGuard &) = delete;

private:
  SpinLock &m_lock;
};

} // namespace oru

#endif
