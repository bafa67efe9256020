// Instances, thread contexts and slots.
//
// Every piece of library state belongs to the process, to an instance (a row of
// a 32-row array indexed by the current instance) or to a thread context (a
// cell of the slot block that t_thread_base holds for the current instance).
// Two thread-local words find all of it without a lookup or a lock.
#ifndef KEST_RUNTIME_H
#define KEST_RUNTIME_H

#include <kest.h>
#include <kest/Export.h>
#include <stdint.h>

namespace oru {

// Rows of every per-instance array; row 0 is never used by an instance.
constexpr int kInstanceRows = 32;
constexpr int kMaxInstance = 31;

class KEST_API Runtime {
public:
  // The instance this thread works in at the moment; 0 outside calls.
  static __thread int l_instance_id KEST_THREAD_WORD;
};

// Entry i: this thread's slot block for instance i, or null. Entry 0 stays null.
extern KEST_API __thread void *t_thread_base[kInstanceRows] KEST_THREAD_WORD;

// Logging mask of this thread: 8 enables "W", 16 enables "E"; other bits are
// free for plug-ins.
extern KEST_API __thread unsigned log_flags KEST_THREAD_WORD;

// Names a slot: cell `slot` of every block. The second word is always 0.
// Layout fixed: plug-ins read these objects directly.
struct ThreadLocalKey {
  uint32_t slot;
  uint32_t reserved;
};
static_assert(sizeof(ThreadLocalKey) == 8, "ThreadLocalKey is two 32-bit words");

KEST_API unsigned RegisterThreadLocal();
KEST_API void UnregisterThreadLocal(unsigned slot);
KEST_API bool InitInstLocal();
KEST_API void ExitInstLocal();
KEST_API bool InitThreadLocal();
KEST_API void ExitThreadLocal();

// The 8-byte cell of `key` in this thread's block for the current instance.
// Only valid on a thread with a context for the current instance.
inline uint64_t &ThreadCell(const ThreadLocalKey &key) {
  return static_cast<uint64_t *>(t_thread_base[Runtime::l_instance_id])[key.slot];
}

// The cell read as a pointer; a pointer lives in the low word of its cell.
template <class T> inline T *&ThreadPointer(const ThreadLocalKey &key) {
  return *reinterpret_cast<T **>(&ThreadCell(key));
}

// The cell read as a 32-bit value in its low word.
inline uint32_t &ThreadWord(const ThreadLocalKey &key) {
  return *reinterpret_cast<uint32_t *>(&ThreadCell(key));
}

// Registers a key at load time and gives the slot back at unload. Define one
// beside each key: `static SlotRegistration reg(MyClass::l_key);`
class SlotRegistration {
public:
  explicit SlotRegistration(ThreadLocalKey &key) : m_key(key) {
    key.slot = RegisterThreadLocal();
    key.reserved = 0;
  }
  ~SlotRegistration() { UnregisterThreadLocal(m_key.slot); }
  SlotRegistration(const SlotRegistration &) = delete;
  SlotRegistration &operator=(const SlotRegistration &) = delete;

private:
  ThreadLocalKey &m_key;
};

} // namespace oru

#endif
