// Presence check of the platform hooks.
#ifndef KEST_RUNTIME_HOOKTABLE_H
#define KEST_RUNTIME_HOOKTABLE_H

namespace oru {

// True when every hook that must be set is set. kest_usleep is not checked:
// only oru::delay calls it.
bool HooksPresent();

} // namespace oru

#endif
