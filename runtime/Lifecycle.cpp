// The lifecycle calls. Each start-up is a fixed, ordered list of subsystem
// entries that unwinds in reverse when a step fails; a subsystem's entry sits at
// its place in the list, and the lists stay valid for any subset of entries.
#include <kest.h>
#include <kest/AttributeMgr.h>
#include <kest/Classification.h>
#include <kest/Clock.h>
#include <kest/Configuration.h>
#include <kest/Conn.h>
#include <kest/Error.h>
#include <kest/FlowBuffer.h>
#include <kest/IIdle.h>
#include <kest/InterfaceBroker.h>
#include <kest/MemTag.h>
#include <kest/PluginManager.h>
#include <kest/ProtocolRegistry.h>
#include <kest/Runtime.h>
#include <kest/SyncEventQueue.h>

#include "attributes/AttributeApi.h"
#include "flow/ReorderWindow.h"
#include "rules/CustomApp.h"
#include "runtime/ApiFrame.h"
#include "runtime/ApiSlots.h"
#include "runtime/HookTable.h"
#include "runtime/InstanceTable.h"
#include "runtime/Lifecycle.h"
#include "runtime/LogLevel.h"
#include "runtime/ThreadList.h"

namespace oru {

namespace {

// Undoes the instance start-up steps before `failed_step`, newest first, and
// frees the row. The state stays INST_OPENING until the row is claimed again.
void UnwindInstance(int failed_step, int row) {
  // 10: attribute manager.
  if (failed_step >= 10) {
    AttributeMgr::ExitInstance();
  }
  // 9: the broker's table, protocol registry.
  if (failed_step >= 9) {
    InterfaceBroker::ClearModules();
    ProtocolRegistry::ExitInstance();
  }
  if (failed_step >= 8) {
    MemTag::ExitInstance();
  }
  if (failed_step >= 7) {
    Configuration::ExitInstance();
  }
  SyncEventQueue::ExitInstance();
  InstanceTable::Release(row);
}

// Instance start-up. Returns the claimed row, or 0 after raising an error.
// On success Runtime::l_instance_id is left at the row.
int InstanceStartup(const char *plugin_dir) {
  // 1. The hook table.
  if (!HooksPresent()) {
    ThrowError(ERR_NOSYS);
    return 0;
  }
  // 2. The lowest free row.
  const int row = InstanceTable::Claim();
  if (row == 0) {
    ThrowError(ERR_CHILD);
    return 0;
  }
  // 3. The row is ours for the rest of the start-up.
  InstanceTable::SetState(row, INST_OPENING);
  Runtime::l_instance_id = row;
  SetErrorHandler(RecordFirstError);

  // 4. Event queue head node.
  if (!SyncEventQueue::InitInstance()) {
    InstanceTable::Release(row);
    return 0;
  }
  // 5. Configuration instance start-up ("config.sync").
  if (!Configuration::InitInstance()) {
    UnwindInstance(5, row);
    return 0;
  }
  // 6. "system.loglevel" validator and default.
  if (!LogLevel::InitInstance()) {
    UnwindInstance(7, row);
    return 0;
  }
  // 7. Memory tags: the built-in tables, before any plug-in adds its own.
  if (!MemTag::InitInstance()) {
    UnwindInstance(7, row);
    return 0;
  }
  // 8. Protocol registry.
  if (!ProtocolRegistry::InitInstance()) {
    UnwindInstance(8, row);
    return 0;
  }
  // 9. Attribute manager.
  if (!AttributeMgr::InitInstance()) {
    UnwindInstance(9, row);
    return 0;
  }
  // 10. Connections, flow buffer defaults, then the plug-in manager, which
  //     loads the plug-ins and runs their instance start-up.
  if (!Conn::InitInstance() || !ReorderWindow::InitInstance()) {
    UnwindInstance(10, row);
    return 0;
  }
  // A plug-in that cannot be used is left out; the instance opens anyway.
  PluginManager::InitInstance(plugin_dir);

  // 11.
  InstanceTable::SetState(row, INST_OPEN);
  // 12. Module "SYSTEM"; a refusal changes nothing for the host.
  InterfaceBroker::RegisterModule(MODULE_SYSTEM, "SYSTEM");
  // 13.
  return row;
}

void InstanceTeardown() {
  SyncEventQueue::ExitInstance();
  PluginManager::ExitInstance();
  AttributeMgr::ExitInstance();
  ProtocolRegistry::ExitInstance();
  Configuration::ExitInstance();
  InterfaceBroker::ClearModules();
  // Memory tags stay until the row is opened again.
}

// Releases the per-thread objects in the order of a failed start-up.
void ReleaseThreadObjects() {
  SyncEventQueue::Release();
  Configuration::Release();
  AttributeMgr::Release();
  InterfaceBroker::Release();
  Classification::Release();
  PluginManager::Release();
  CustomApp::Release();
}

// Undoes a thread start-up that failed at step 4 or later, then releases the
// per-thread objects.
void UnwindThread() {
  // Plug-ins that were not started are not ended.
  if (PluginManager *plugins = PluginManager::Peek()) {
    plugins->ExitThread();
  }
  if (Classification *classification = Classification::Peek()) {
    classification->ExitThread();
  }
  if (AttributeMgr *attributes = AttributeMgr::Peek()) {
    attributes->ExitThread();
  }
  if (Configuration *config = Configuration::Peek()) {
    config->ExitThread();
  }
  LogLevel::ExitThread();
  if (SyncEventQueue *queue = SyncEventQueue::Peek()) {
    queue->Leave();
  }
  ReleaseThreadObjects();
}

// Thread start-up. False after a failed step, with everything it did undone
// except the thread count and INST_THREADED.
bool ThreadStartup() {
  // 1.
  InstanceTable::ThreadEnter(Runtime::l_instance_id);
  // 2. Per-thread objects: event queue, configuration, interface broker,
  //    attribute manager, classification, plug-in manager, custom apps.
  SyncEventQueue *queue = SyncEventQueue::Instance();
  Configuration *config = Configuration::Instance();
  if (queue == nullptr || config == nullptr || InterfaceBroker::Instance() == nullptr ||
      AttributeMgr::Instance() == nullptr || Classification::Instance() == nullptr ||
      PluginManager::Instance() == nullptr || CustomApp::Instance() == nullptr) {
    ReleaseThreadObjects();
    return false;
  }
  // 3. Join the event queue.
  queue->Join();
  // 4. Configuration thread start-up.
  // 5. The log-level observer and this thread's log mask.
  if (!config->InitThread() || !LogLevel::InitThread()) {
    UnwindThread();
    return false;
  }
  // 6. Attribute manager.
  if (!AttributeMgr::Instance()->InitThread()) {
    UnwindThread();
    return false;
  }
  // 7. Classification.
  if (!Classification::Instance()->InitThread()) {
    UnwindThread();
    return false;
  }
  // 8. Plug-in manager.
  if (!PluginManager::Instance()->InitThread()) {
    UnwindThread();
    return false;
  }
  // 9. Custom applications.
  if (!CustomApp::Instance()->InitThread()) {
    UnwindThread();
    return false;
  }
  return true;
}

void ThreadTeardown() {
  // A thread without an interface broker object never fully started.
  if (InterfaceBroker::Peek() == nullptr) {
    return;
  }
  // Custom apps.
  if (CustomApp *custom_app = CustomApp::Peek()) {
    custom_app->ExitThread();
  }
  if (SyncEventQueue *queue = SyncEventQueue::Peek()) {
    queue->Leave();
  }
  if (PluginManager *plugins = PluginManager::Peek()) {
    plugins->ExitThread();
  }
  if (Classification *classification = Classification::Peek()) {
    classification->ExitThread();
  }
  if (AttributeMgr *attributes = AttributeMgr::Peek()) {
    attributes->ExitThread();
  }
  if (Configuration *config = Configuration::Peek()) {
    config->ExitThread();
  }
  // Then the per-thread objects: custom apps, plug-in manager,
  CustomApp::Release();
  PluginManager::Release();
  Classification::Release();
  AttributeMgr::Release();
  InterfaceBroker::Release();
  Configuration::Release();
  SyncEventQueue::Release();
  InstanceTable::ThreadLeave(Runtime::l_instance_id);
}

} // namespace

void IdlePass() {
  // 1. Clock.
  update_clock(false);
  // 2. Deliver pending events to this thread.
  SyncEventQueue::DrainEvents();
  // 3. Only the collector collects.
  if (ThreadCell(ApiSlots::thread_id) != ThreadList::Collector()) {
    return;
  }
  // 4. Not more often than the garbage interval.
  const uint64_t time = now();
  if (time - ThreadCell(ApiSlots::last_garbage) <= ThreadCell(ApiSlots::garbage_interval)) {
    return;
  }
  // 5. Free queue nodes every thread has passed.
  SyncEventQueue::CollectGarbage();
  // 6.
  ThreadCell(ApiSlots::last_garbage) = time;
}

} // namespace oru

using namespace oru;

extern "C" KEST_EXPORT kest_handle_t kest_open(const char *plugin_dir) {
  const int saved = Runtime::l_instance_id;
  Runtime::l_instance_id = 0;
  kest_errno = 0;
  SetErrorHandler(RecordFirstError);
  InitInstLocal();
  const int row = InstanceStartup(plugin_dir);
  if (row == 0) {
    ThrowError(ERR_NOMEM);
    Runtime::l_instance_id = saved;
    return -1;
  }
  ThreadList::ResetRow();
  set_clock_mode(false);
  Runtime::l_instance_id = saved;
  return row;
}

extern "C" KEST_EXPORT int kest_close(kest_handle_t handle) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  if (!ThreadList::Empty()) {
    ThrowError(ERR_BUSY);
    return -1;
  }
  InstanceTeardown();
  InstanceTable::Release(handle);
  InstanceTable::SetState(handle, INST_CLOSED);
  ExitInstLocal();
  return 0;
}

extern "C" KEST_EXPORT int kest_init(kest_handle_t handle) {
  if (!InstanceTable::InUse(handle)) {
    SetErrorHandler(RecordFirstError);
    ThrowError(ERR_INVAL);
    return -1;
  }
  const int saved = Runtime::l_instance_id;
  Runtime::l_instance_id = handle;
  SetErrorHandler(RecordFirstError);
  kest_errno = 0;
  int result = -1;
  if (t_thread_base[handle] != nullptr) {
    ThrowError(ERR_INVAL);
  } else if (!InitThreadLocal()) {
    ThrowError(ERR_NOMEM);
  } else if (!ProtocolRegistry::InitThread()) {
    // No plug-in provides "TCP" or "UDP" (EPROTO raised). The slot block
    // stays, as below.
  } else if (!ThreadStartup()) {
    // The slot block stays: a second kest_init gets EINVAL, kest_fini clears it.
    ThrowError(ERR_NOMEM);
  } else {
    const uint64_t thread_id = kest_get_thread_id();
    ThreadCell(ApiSlots::thread_id) = thread_id;
    const bool listed = ThreadList::Add(thread_id);
    ThreadCell(ApiSlots::garbage_interval) = static_cast<uint64_t>(
        static_cast<int64_t>(kest_atoi(Configuration::GetItem("system.garbage_interval").c_str())));
    if (!listed) {
      ThrowError(ERR_NOMEM);
    } else {
      AttributeMgr::Instance()->SetHandler(DeliverAttribute);
      result = 0;
    }
  }
  Runtime::l_instance_id = saved;
  return result;
}

extern "C" KEST_EXPORT int kest_fini(kest_handle_t handle) {
  ApiFrame frame(handle, ApiFrame::THREAD_CONTEXT_FIRST);
  if (!frame.ok()) {
    return -1;
  }
  ThreadList::Remove(ThreadCell(ApiSlots::thread_id));
  ThreadTeardown();
  ThreadCell(ApiSlots::thread_id) = 0;
  ExitThreadLocal();
  // The flow blocks' spare nodes belong to the thread's heap; none stays
  // behind a thread that leaves.
  ReleaseBlockNodes();
  return 0;
}

extern "C" KEST_EXPORT void kest_idle(kest_handle_t handle) {
  ApiFrame frame(handle, ApiFrame::THREAD_CONTEXT_FIRST);
  if (frame.ok()) {
    IdlePass();
    // Then the plug-ins' own upkeep (connection ageing): only here, as the
    // packet path does its share per packet.
    RunIdleInterfaces();
  }
}

extern "C" KEST_EXPORT kest_handle_t kest_handle_get(void) {
  return Runtime::l_instance_id;
}
