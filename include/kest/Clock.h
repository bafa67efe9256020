// The thread's cached clock, in milliseconds. Nothing on the packet path reads
// the system clock: the idle pass refreshes this cell, or the host sets it.
//
// The stored value of a refresh is the low 32 bits of the millisecond count,
// sign-extended: it repeats every ~49.7 days and flips sign every ~24.9 days.
// Plug-ins compare times knowing this.
#ifndef KEST_CLOCK_H
#define KEST_CLOCK_H

#include <kest/Export.h>
#include <stdint.h>

namespace oru {

// The thread's time in milliseconds.
KEST_API uint64_t now();
// The thread's time in whole seconds (unsigned division by 1000).
KEST_API uint64_t now_sec();
// Stores a time in the thread's cell and returns it.
KEST_API uint64_t set_clock(uint64_t ms);
// In system-clock mode, or when forced, reads kest_gettimeofday into the cell.
// Returns the cell.
KEST_API uint64_t update_clock(bool force);
// false: the idle pass refreshes the clock; true: the host sets it.
KEST_API void set_clock_mode(bool host_sets_time);
// Sleeps for the low 32 bits of `us` microseconds through kest_usleep.
KEST_API void delay(const uint64_t &us);

} // namespace oru

#endif
