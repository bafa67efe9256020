// Read access to the slot counters, for diagnostics and tests.
#ifndef KEST_RUNTIME_SLOTS_H
#define KEST_RUNTIME_SLOTS_H

#include <kest/Export.h>
#include <stdint.h>

namespace oru {

struct SlotCounters {
  uint32_t slot_count;
  uint32_t instance_base;
  uint32_t late_slots;
};

// A consistent snapshot taken under the slot lock.
SlotCounters ReadSlotCounters();

} // namespace oru

#endif
