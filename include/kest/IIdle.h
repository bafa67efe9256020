// Work a plug-in does when its thread has time: kest_idle runs, after the
// idle pass, the Idle of every INTERFACE_IDLE the thread's broker holds, in
// module order. A decoder ages its connections there, so that a quiet link
// still sees them expire. Idle runs on the thread that registered it and must
// bound its own work: the host calls kest_idle when it has no packets.
#ifndef KEST_IIDLE_H
#define KEST_IIDLE_H

#include <kest/Export.h>
#include <kest/InterfaceBroker.h>

namespace oru {

constexpr InterfaceId INTERFACE_IDLE = 22;

// Virtual table order fixed: Idle. No virtual destructor: the library never
// owns the object.
class KEST_API IIdle {
public:
  virtual void Idle() = 0;

protected:
  ~IIdle() = default;
};

// Runs every INTERFACE_IDLE of the calling thread's broker.
KEST_API void RunIdleInterfaces();

} // namespace oru

#endif
