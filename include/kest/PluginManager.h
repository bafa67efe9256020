// The plug-in manager: finds the plug-ins of an instance (built-in tables and
// the .plg files of the directory given to kest_open), decides between
// plug-ins of the same name, calls their entry points in byte order of their
// names and keeps a status for each, which its diagnostic report prints.
//
// Plug-ins declare no dependencies on one another: they are called in name
// order, offer their interfaces to the broker in InitThread and look up each
// other's in LinkThread or later.
//
// The instance's records live on the shared heap and are read by every thread
// of the instance; opening and closing an instance run under one process-wide
// lock, so two instances never load at once.
#ifndef KEST_PLUGINMANAGER_H
#define KEST_PLUGINMANAGER_H

#include <kest/Export.h>
#include <kest/InterfaceBroker.h>
#include <kest/Plugin.h>
#include <kest/Runtime.h>
#include <kest/fdt/Alloc.h>
#include <kest/fdt/List.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/map.h>
#include <stdint.h>

namespace oru {

// One plug-in as seen while loading. Strings on the shared heap.
struct PluginRecord {
  fdt::shared_string filename; // full path of the .plg file; empty if built in
  fdt::shared_string name;     // from GetName
  void *handle;                // the loader's library handle; null if built in
  VersionRecord version;       // as filled by GetVersion
  const PluginEntryTable *entries;
  uint32_t type;   // PluginManager::Type
  uint32_t status; // PluginManager::Status
};

// Orders plug-in names by kest_strcmp: the call order of all entry points.
struct PluginNameLess {
  bool operator()(const char *a, const char *b) const { return kest_strcmp(a, b) < 0; }
};

class KEST_API PluginManager : public IDiag {
public:
  enum Type : uint32_t {
    TYPE_BUILTIN = 0,
    TYPE_DYNAMIC = 1,
  };

  // A record's status only ever moves away from STATUS_ACTIVE; only active
  // records get any further call.
  enum Status : uint32_t {
    STATUS_ACTIVE = 0,
    STATUS_INCOMPATIBLE = 1,
    STATUS_SUPERCEDED = 2,
    STATUS_INIT_FAILED = 3,
    STATUS_LOAD_FAILURE = 4,
    STATUS_DISABLED = 10,
  };

  // Room in the process-wide table of built-in plug-ins.
  static constexpr int kMaxBuiltins = 256;

  // Every plug-in seen by the instance, in the order seen.
  using RecordList = List<PluginRecord, shared_container_alloc<PluginRecord>>;
  // Name to the winning record in the instance's list; the keys are the
  // records' own names.
  using RecordMap = fdt::map<const char *, PluginRecord *, PluginNameLess,
                             shared_container_alloc<fdt::pair<const char *, PluginRecord *>>>;
  // A thread's copy of the instance's active map.
  using ThreadRecordMap = Map<const char *, PluginRecord *, PluginNameLess>;

  // Hands a built-in plug-in's table to the manager; before the first
  // kest_open that is to see it. Stores at the count without a bound test and
  // returns the new count. The library itself never calls it.
  static int AddBuiltin(const PluginEntryTable *entries);

  // The calling thread's object for the current instance, made on first use
  // with a copy of the instance's active plug-ins. Null only without memory.
  static PluginManager *Instance();
  // The thread's object if it exists; never creates one.
  static PluginManager *Peek();
  // Destroys the thread's object (thread teardown).
  static void Release();

  // Instance start-up: loads the built-in and dynamic plug-ins and runs their
  // InitInstance. Always true: a plug-in that cannot be used is logged or
  // recorded, and the instance opens without it.
  static bool InitInstance(const char *plugin_dir);
  // Instance close: ExitInstance of each active plug-in, then unloads them.
  static void ExitInstance();

  // Thread start-up: InitThread, LinkThread and StartThread passes over the
  // active plug-ins, then this object becomes the SYSTEM module's diagnostic
  // interface. False when a plug-in's InitThread failed: that plug-in and all
  // behind it stay out for the instance's life, and those before it have
  // been given ExitThread again.
  bool InitThread();
  // Thread end: ExitThread of each active plug-in. Does nothing unless a
  // thread start-up ran and has not been ended, so no plug-in gets
  // ExitThread twice or without its InitThread.
  void ExitThread();

  // The status report: one line per plug-in seen, then this thread's event
  // count. The argument is ignored. Always true.
  bool Diag(void *arg) override;

  PluginManager();
  ~PluginManager() override;
  PluginManager(const PluginManager &) = delete;
  PluginManager &operator=(const PluginManager &) = delete;

  static ThreadLocalKey l_instance;

  // The library's version record, as the plug-ins were handed it.
  const VersionRecord *LibraryVersion() const { return m_version; }

private:
  // Fills m_active from the instance's active map; false if memory ran out.
  bool CopyActive();

  const VersionRecord *m_version;
  fdt::string m_plugin_dir;
  RecordList *m_all;
  ThreadRecordMap m_active;
  // Set while this thread's plug-ins are started and not yet ended.
  bool m_thread_started = false;
};

} // namespace oru

#endif
