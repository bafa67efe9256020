// Error numbers and the per-thread error handler.
#ifndef KEST_ERROR_H
#define KEST_ERROR_H

#include <kest/Export.h>

namespace oru {

// Linux errno numbers. The values are part of the host contract and stay the
// same on every system.
enum Error : int {
  ERR_NONE = 0,
  ERR_NOENT = 2,
  ERR_CHILD = 10,
  ERR_NOMEM = 12,
  ERR_BUSY = 16,
  ERR_EXIST = 17,
  ERR_INVAL = 22,
  ERR_NOSYS = 38,
  ERR_PROTO = 71,
  ERR_PROTONOSUPPORT = 93,
  ERR_NOBUFS = 105,
  ERR_NOTCONN = 107,
};

using ErrorHandler = void (*)(Error);

// Stores the calling thread's handler; null removes it.
KEST_API void SetErrorHandler(ErrorHandler handler);

// Reports an error to the calling thread's handler, if any, and returns. The
// caller then takes its own failure path.
KEST_API void ThrowError(Error error);

// Fixed text of an error: three numbers have their own, all others "Unknown".
KEST_API const char *ErrorString(Error error);

// The handler the library installs: keeps the first error of a call in
// kest_errno.
KEST_API void RecordFirstError(Error error);

} // namespace oru

#endif
