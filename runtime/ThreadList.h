// The threads of each instance that finished kest_init, and the collector: the
// one thread per instance that frees event-queue nodes.
#ifndef KEST_RUNTIME_THREADLIST_H
#define KEST_RUNTIME_THREADLIST_H

#include <kest/Runtime.h>
#include <kest/SpinLock.h>
#include <stdint.h>

namespace oru {

// Layout fixed: the links, then the thread id. Allocated from the shared heap.
struct ThreadListEntry {
  ThreadListEntry *next;
  ThreadListEntry *prev;
  uint64_t thread_id;
};

class ThreadList {
public:
  // Appends the thread to the current instance's list, electing it collector if
  // there is none. False if the entry cannot be allocated (the thread is then
  // not listed, but may still be elected).
  static bool Add(uint64_t thread_id);
  // Removes the thread; a leaving collector hands over to the youngest thread,
  // or to 0 when the list is empty.
  static void Remove(uint64_t thread_id);
  // True when no thread of the current instance is listed.
  static bool Empty();
  // Read by every idle pass without the lock.
  static uint64_t Collector() {
    return __atomic_load_n(&s_collector[Runtime::l_instance_id], __ATOMIC_RELAXED);
  }
  // Zeroes the current instance's collector and reserved word (kest_open).
  static void ResetRow();
  // Number of listed threads of the current instance.
  static unsigned Count();

  static void LoadRows();
  static void UnloadRows();

private:
  static ThreadListEntry s_heads[kInstanceRows];
  static SpinLock s_locks[kInstanceRows];
  static uint64_t s_collector[kInstanceRows];
  static uint64_t s_reserved[kInstanceRows];
};

} // namespace oru

#endif
