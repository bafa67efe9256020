// The synchronised event queue: one lock-free list per instance that carries
// changes (configuration items, rules, attribute listeners) to every thread of
// the instance. A writer appends with a compare-and-swap on the tail; each
// thread walks the list from its own cursor in its idle pass; the collector
// thread frees nodes once every thread has passed them.
//
// Registering, installing and posting are inline so that plug-ins compile them
// in; that is why the per-instance arrays are exported.
#ifndef KEST_SYNCEVENTQUEUE_H
#define KEST_SYNCEVENTQUEUE_H

#include <kest.h>
#include <kest/Error.h>
#include <kest/Export.h>
#include <kest/Runtime.h>
#include <kest/SpinLock.h>
#include <kest/fdt/ObjectPrefix.h>
#include <kest/fdt/TextSearch.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/map.h>
#include <kest/fdt/vector.h>
#include <stdint.h>

namespace oru {

// One queued event, in shared memory behind the object prefix (kind shared).
// Field order fixed.
struct EventNode {
  EventNode *volatile next;    // null at the tail
  uint32_t sender;             // 0: none; a thread skips events with its own id
  void *data;                  // payload from kest_malloc_shared, or null
  uint32_t length;             // bytes at data
  uint32_t event_id;           // 1 or more; 0 marks a node that could not be filled
  volatile int32_t references; // threads that have yet to leave this node
};

// Base of objects that receive events.
class EventTarget {};
using EventMethod = void (EventTarget::*)(const void *data, uint32_t length);

// What to call for an event: an object and one of its member functions. An
// empty row has a null object.
struct EventHandler {
  EventTarget *object;
  EventMethod method;
};

// Casts a derived class's handler to the stored form.
template <class T> inline EventMethod MakeEventMethod(void (T::*method)(const void *, uint32_t)) {
  return static_cast<EventMethod>(method);
}

class KEST_API SyncEventQueue {
public:
  using EventMap = fdt::map<fdt::shared_string, uint32_t, fdt::less<fdt::shared_string>,
                            shared_container_alloc<fdt::pair<fdt::shared_string, uint32_t>>>;

  static EventNode *volatile s_tail[kInstanceRows];
  static volatile int32_t s_threadcount[kInstanceRows];
  static uint32_t s_max_event[kInstanceRows];
  static EventMap s_event_map[kInstanceRows];
  static SpinLock s_event_lock[kInstanceRows];
  static SpinLock s_queue_lock[kInstanceRows];

  // The id of an event name in the current instance, given out on first use
  // (the first is 1). 0 after raising out-of-memory.
  static uint32_t RegisterEvent(const char *name) {
    const int row = Runtime::l_instance_id;
    SpinGuard guard(s_event_lock[row]);
    EventMap &events = s_event_map[row];
    auto found = FindText(events, name);
    if (found != events.end()) {
      return found->second;
    }
    fdt::shared_string key;
    if (!key.append(name, kest_strlen(name))) {
      ThrowError(ERR_NOMEM);
      return 0;
    }
    const uint32_t id = s_max_event[row] + 1;
    if (events.insert(key, id) == events.end()) {
      ThrowError(ERR_NOMEM);
      return 0;
    }
    s_max_event[row] = id;
    return id;
  }

  // Posts an event to every thread of the current instance, the posting one
  // included. The payload is copied. Without memory the event is lost.
  static void PostEvent(uint32_t event_id, const void *data, uint32_t length) {
    const int row = Runtime::l_instance_id;
    const int32_t threads = __atomic_load_n(&s_threadcount[row], __ATOMIC_RELAXED);
    EventNode *node = fdt::CreateObject<EventNode>(fdt::OBJECT_SHARED);
    if (node == nullptr) {
      return;
    }
    node->next = nullptr;
    node->sender = 0;
    node->data = nullptr;
    node->event_id = event_id;
    node->references = threads;
    node->length = 0;
    if (length != 0) {
      node->length = length;
      node->data = kest_malloc_shared(length);
      if (node->data == nullptr) {
        node->event_id = 0;
      } else {
        kest_memcpy(node->data, data, length);
      }
    }
    if (node->event_id == 0) {
      kest_free_shared(node->data);
      fdt::DestroyObject(node);
      return;
    }
    EventNode *old_tail = __atomic_load_n(&s_tail[row], __ATOMIC_ACQUIRE);
    while (!__sync_bool_compare_and_swap(&s_tail[row], old_tail, node)) {
      old_tail = __atomic_load_n(&s_tail[row], __ATOMIC_ACQUIRE);
    }
    // Until this store a reader sees the old tail as the end; it picks the rest
    // up at its next pass.
    __atomic_store_n(&old_tail->next, node, __ATOMIC_RELEASE);
  }

  // The calling thread's object; made on first use.
  static SyncEventQueue *Instance();

  // Stores the handler of an event id on this thread, growing the table.
  // False after raising out-of-memory.
  bool InstallHandler(uint32_t event_id, EventTarget *object, EventMethod method) {
    if (m_handlers.size() < static_cast<size_t>(event_id) + 1 &&
        !m_handlers.resize(static_cast<size_t>(event_id) + 1)) {
      ThrowError(ERR_NOMEM);
      return false;
    }
    m_handlers[event_id].object = object;
    m_handlers[event_id].method = method;
    return true;
  }

  uint64_t Processed() const { return m_processed; }

  // Library side.
  static SyncEventQueue *Peek();
  static void Release();
  static bool InitInstance();   // the empty head node of the current instance
  static void ExitInstance();   // frees every node and the event names
  void Join();                  // start seeing events posted from now on
  void Leave();                 // step past everything without handling it
  static void DrainEvents();    // deliver everything pending to this thread
  static void CollectGarbage(); // free nodes every thread has left
  // Prints the thread's counter through kest_diag_printf.
  void Report() const;

  static ThreadLocalKey l_instance;

  EventNode *m_cursor = nullptr;
  uint64_t m_processed = 0;
  fdt::vector<EventHandler> m_handlers;
};

} // namespace oru

#endif
