// Life-cycle state of an instance, one word per row. A few operations are
// gated on it (protocol and memory-tag registration, configuration broadcast).
#ifndef KEST_INSTANCESTATE_H
#define KEST_INSTANCESTATE_H

#include <kest/Export.h>
#include <kest/Runtime.h>
#include <stdint.h>

namespace oru {

enum InstanceState : uint32_t {
  INST_CLOSED = 0,   // row free
  INST_OPENING = 1,  // kest_open is running the instance start-up
  INST_OPEN = 2,     // started; also after every kest_fini
  INST_THREADED = 3, // a thread has gone through kest_init
};

// State of the current instance. Read without a lock: the transitions happen
// only in calls that the host orders.
KEST_API InstanceState CurrentInstanceState();

} // namespace oru

#endif
