#include <kest/SyncEventQueue.h>
#include <kest/ThreadSingleton.h>

namespace oru {

EventNode *volatile SyncEventQueue::s_tail[kInstanceRows];
volatile int32_t SyncEventQueue::s_threadcount[kInstanceRows];
uint32_t SyncEventQueue::s_max_event[kInstanceRows];
SyncEventQueue::EventMap SyncEventQueue::s_event_map[kInstanceRows];
SpinLock SyncEventQueue::s_event_lock[kInstanceRows];
SpinLock SyncEventQueue::s_queue_lock[kInstanceRows];
ThreadLocalKey SyncEventQueue::l_instance;

namespace {

// Oldest node not yet freed, per instance.
EventNode *s_head[kInstanceRows];

SlotRegistration g_queue_reg(SyncEventQueue::l_instance);

void FreeNode(EventNode *node) {
  kest_free_shared(node->data);
  fdt::DestroyObject(node);
}

// Frees every node from `from` on, whatever its references.
void FreeFrom(EventNode *from) {
  while (from != nullptr) {
    EventNode *next = from->next;
    FreeNode(from);
    from = next;
  }
}

// At unload, rows of instances that were never closed give their nodes back.
struct QueueRows {
  ~QueueRows() {
    for (int row = 0; row < kInstanceRows; ++row) {
      FreeFrom(s_head[row]);
      s_head[row] = nullptr;
      SyncEventQueue::s_tail[row] = nullptr;
    }
  }
} g_queue_rows;

} // namespace

SyncEventQueue *SyncEventQueue::Instance() {
  return SingletonInstance<SyncEventQueue>(l_instance);
}

SyncEventQueue *SyncEventQueue::Peek() {
  return SingletonPeek<SyncEventQueue>(l_instance);
}

void SyncEventQueue::Release() {
  SingletonRelease<SyncEventQueue>(l_instance);
}

bool SyncEventQueue::InitInstance() {
  const int row = Runtime::l_instance_id;
  EventNode *node = fdt::CreateObject<EventNode>(fdt::OBJECT_SHARED);
  if (node == nullptr) {
    ThrowError(ERR_NOMEM);
    return false;
  }
  node->next = nullptr;
  node->sender = 0;
  node->data = nullptr;
  node->length = 0;
  node->event_id = 0;
  node->references = 0;
  s_head[row] = node;
  s_tail[row] = node;
  s_max_event[row] = 0;
  return true;
}

void SyncEventQueue::ExitInstance() {
  const int row = Runtime::l_instance_id;
  FreeFrom(s_head[row]);
  s_head[row] = nullptr;
  s_tail[row] = nullptr;
  SpinGuard guard(s_event_lock[row]);
  s_event_map[row].clear();
}

void SyncEventQueue::Join() {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_queue_lock[row]);
  __sync_fetch_and_add(&s_threadcount[row], 1);
  m_cursor = __atomic_load_n(&s_tail[row], __ATOMIC_ACQUIRE);
  __sync_fetch_and_add(&m_cursor->references, 1);
}

void SyncEventQueue::Leave() {
  const int row = Runtime::l_instance_id;
  if (m_cursor == nullptr) {
    return;
  }
  for (EventNode *next = __atomic_load_n(&m_cursor->next, __ATOMIC_ACQUIRE); next != nullptr;
       next = __atomic_load_n(&m_cursor->next, __ATOMIC_ACQUIRE)) {
    EventNode *left = m_cursor;
    m_cursor = next;
    __sync_fetch_and_sub(&left->references, 1);
  }
  __sync_fetch_and_sub(&s_threadcount[row], 1);
  __sync_fetch_and_sub(&m_cursor->references, 1);
  m_cursor = nullptr;
}

void SyncEventQueue::DrainEvents() {
  SyncEventQueue *self = Instance();
  while (self != nullptr && self->m_cursor != nullptr) {
    EventNode *left = self->m_cursor;
    EventNode *node = __atomic_load_n(&left->next, __ATOMIC_ACQUIRE);
    if (node == nullptr) {
      return;
    }
    self->m_cursor = node;
    __sync_fetch_and_sub(&left->references, 1);
    ++self->m_processed;
    if (node->sender != 0 && node->sender == kest_get_thread_id()) {
      continue;
    }
    if (node->event_id >= self->m_handlers.size()) {
      continue;
    }
    const EventHandler handler = self->m_handlers[node->event_id];
    if (handler.object == nullptr || handler.method == nullptr) {
      continue;
    }
    (handler.object->*handler.method)(node->data, node->length);
    // The handler may have run anything; find the thread's object afresh.
    self = Instance();
  }
}

void SyncEventQueue::CollectGarbage() {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_queue_lock[row]);
  EventNode *keep = s_head[row];
  if (keep == nullptr) {
    return;
  }
  for (EventNode *node = __atomic_load_n(&keep->next, __ATOMIC_ACQUIRE); node != nullptr;
       node = __atomic_load_n(&node->next, __ATOMIC_ACQUIRE)) {
    if (__atomic_load_n(&node->references, __ATOMIC_ACQUIRE) == 0) {
      while (keep != node) {
        EventNode *next = keep->next;
        FreeNode(keep);
        keep = next;
      }
    }
  }
  s_head[row] = keep;
}

void SyncEventQueue::Report() const {
  kest_diag_printf("\nEvent Queue Stats:\n");
  kest_diag_printf("%llu events processed on this thread\n",
                   static_cast<unsigned long long>(m_processed));
  kest_diag_printf("\n");
}

} // namespace oru
