// Start-up and teardown of instances and thread contexts, and the idle pass.
#ifndef KEST_RUNTIME_LIFECYCLE_H
#define KEST_RUNTIME_LIFECYCLE_H

namespace oru {

// Refreshes the clock, delivers pending events to this thread and, on the
// collector thread, frees queue nodes that every thread has passed. Run by
// kest_idle and by every kest_classify. Needs a thread context.
void IdlePass();

} // namespace oru

#endif
