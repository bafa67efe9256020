// kest_diag: a module's diagnostic report, found by the module's name and run
// through the INTERFACE_DIAG object that the module registered on this thread.
#include <kest.h>
#include <kest/Error.h>
#include <kest/InterfaceBroker.h>

#include "runtime/ApiFrame.h"

using namespace oru;

extern "C" KEST_EXPORT int kest_diag(kest_handle_t handle, const char *module, void *arg) {
  ApiFrame frame(handle, ApiFrame::THREAD_CONTEXT);
  if (!frame.ok()) {
    return -1;
  }
  const ModuleId id = module != nullptr ? InterfaceBroker::GetModuleId(module) : MODULE_UNKNOWN;
  if (id == MODULE_UNKNOWN) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  // A thread whose start-up failed keeps its context but has no broker.
  const InterfaceBroker *broker = InterfaceBroker::Peek();
  IDiag *diag =
      broker != nullptr ? static_cast<IDiag *>(broker->GetInterface(id, INTERFACE_DIAG)) : nullptr;
  if (diag == nullptr) {
    ThrowError(ERR_NOENT);
    return -1;
  }
  return diag->Diag(arg) ? 0 : -1;
}
