#include "runtime/ThreadList.h"

#include <kest.h>

namespace oru {

ThreadListEntry ThreadList::s_heads[kInstanceRows];
SpinLock ThreadList::s_locks[kInstanceRows];
uint64_t ThreadList::s_collector[kInstanceRows];
uint64_t ThreadList::s_reserved[kInstanceRows];

void ThreadList::LoadRows() {
  for (ThreadListEntry &head : s_heads) {
    head.next = &head;
    head.prev = &head;
  }
}

void ThreadList::UnloadRows() {
  for (ThreadListEntry &head : s_heads) {
    while (head.next != &head) {
      ThreadListEntry *entry = head.next;
      head.next = entry->next;
      kest_free_shared(entry);
    }
    head.prev = &head;
  }
}

namespace {
// Load time: every head points at itself. At unload, entries left in rows of
// instances that were never closed go back to the shared heap.
struct ThreadListRows {
  ThreadListRows() { ThreadList::LoadRows(); }
  ~ThreadListRows() { ThreadList::UnloadRows(); }
} g_thread_list_rows;
} // namespace

bool ThreadList::Add(uint64_t thread_id) {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_locks[row]);
  auto *entry = static_cast<ThreadListEntry *>(kest_malloc_shared(sizeof(ThreadListEntry)));
  if (entry != nullptr) {
    ThreadListEntry &head = s_heads[row];
    entry->thread_id = thread_id;
    entry->next = &head;
    entry->prev = head.prev;
    head.prev->next = entry;
    head.prev = entry;
  }
  if (s_collector[row] == 0) {
    __atomic_store_n(&s_collector[row], thread_id, __ATOMIC_RELAXED);
  }
  return entry != nullptr;
}

void ThreadList::Remove(uint64_t thread_id) {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_locks[row]);
  ThreadListEntry &head = s_heads[row];
  for (ThreadListEntry *entry = head.next; entry != &head; entry = entry->next) {
    if (entry->thread_id == thread_id) {
      entry->prev->next = entry->next;
      entry->next->prev = entry->prev;
      kest_free_shared(entry);
      break;
    }
  }
  if (s_collector[row] == thread_id) {
    __atomic_store_n(&s_collector[row], head.next == &head ? 0 : head.prev->thread_id,
                     __ATOMIC_RELAXED);
  }
}

bool ThreadList::Empty() {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_locks[row]);
  return s_heads[row].next == &s_heads[row];
}

unsigned ThreadList::Count() {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_locks[row]);
  unsigned count = 0;
  for (ThreadListEntry *entry = s_heads[row].next; entry != &s_heads[row]; entry = entry->next) {
    ++count;
  }
  return count;
}

void ThreadList::ResetRow() {
  const int row = Runtime::l_instance_id;
  __atomic_store_n(&s_collector[row], 0, __ATOMIC_RELAXED);
  s_reserved[row] = 0;
}

} // namespace oru
