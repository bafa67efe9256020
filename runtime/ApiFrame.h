// The frame around every exported call that takes a handle: checks the
// handle, makes it the current instance for the call's duration (so calls nest
// from callbacks), clears kest_errno and, where needed, checks for a thread
// context.
#ifndef KEST_RUNTIME_APIFRAME_H
#define KEST_RUNTIME_APIFRAME_H

#include <kest/Error.h>
#include <kest/Runtime.h>

#include "runtime/InstanceTable.h"

namespace oru {

class ApiFrame {
public:
  enum Need {
    INSTANCE_ONLY,  // no thread context needed
    THREAD_CONTEXT, // clear kest_errno, then require a context
    // Require a context before clearing kest_errno, so that a call refused
    // for want of a context leaves an older error standing.
    THREAD_CONTEXT_FIRST,
  };

  ApiFrame(int handle, Need need) {
    if (!InstanceTable::InUse(handle)) {
      SetErrorHandler(RecordFirstError);
      ThrowError(ERR_INVAL);
      return;
    }
    m_saved = Runtime::l_instance_id;
    m_entered = true;
    Runtime::l_instance_id = handle;
    if (need == THREAD_CONTEXT_FIRST) {
      if (t_thread_base[handle] == nullptr) {
        ThrowError(ERR_INVAL);
        return;
      }
      kest_errno = 0;
    } else {
      kest_errno = 0;
      if (need == THREAD_CONTEXT && t_thread_base[handle] == nullptr) {
        ThrowError(ERR_INVAL);
        return;
      }
    }
    m_ok = true;
  }

  ~ApiFrame() {
    if (m_entered) {
      Runtime::l_instance_id = m_saved;
    }
  }

  ApiFrame(const ApiFrame &) = delete;
  ApiFrame &operator=(const ApiFrame &) = delete;

  // True when the call may do its work.
  bool ok() const { return m_ok; }

private:
  int m_saved = 0;
  bool m_entered = false;
  bool m_ok = false;
};

} // namespace oru

#endif
