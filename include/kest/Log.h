// The one form of a log site: test the thread's mask, then hand the level, the
// reporting function's name and the format to the host's log hook. "W" needs
// bit 8 of oru::log_flags, "E" bit 16; other bits are the plug-ins' own.
#ifndef KEST_LOG_H
#define KEST_LOG_H

#include <kest.h>
#include <kest/Runtime.h>

namespace oru {

enum LogBit : unsigned {
  LOG_WARNING = 8, // level "W"
  LOG_ERROR = 16,  // level "E"
};

} // namespace oru

#define KEST_LOG_WARNING(function, ...)                                                            \
  do {                                                                                             \
    if ((oru::log_flags & oru::LOG_WARNING) != 0) {                                                \
      kest_log_message("W", function, __VA_ARGS__);                                                \
    }                                                                                              \
  } while (0)

#define KEST_LOG_ERROR(function, ...)                                                              \
  do {                                                                                             \
    if ((oru::log_flags & oru::LOG_ERROR) != 0) {                                                  \
      kest_log_message("E", function, __VA_ARGS__);                                                \
    }                                                                                              \
  } while (0)

#endif
