// The interface broker: how code finds code. Modules are named per instance;
// interfaces are registered per thread, since what they point at are per-thread
// objects. A plug-in names its module in its instance start-up, registers its
// interfaces in its thread start-up, and looks up others' in its link pass.
#ifndef KEST_INTERFACEBROKER_H
#define KEST_INTERFACEBROKER_H

#include <kest/Export.h>
#include <kest/Runtime.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/map.h>
#include <stdint.h>

namespace oru {

using ModuleId = uint32_t;
using InterfaceId = uint32_t;

// Module and interface numbers the library itself relies on. All other numbers
// belong to plug-ins.
enum : ModuleId {
  MODULE_SYSTEM = 1,
  MODULE_TCP = 259,
  MODULE_UDP = 260,
};

enum : InterfaceId {
  INTERFACE_DIAG = 1,
  INTERFACE_CONN_FACTORY = 11,
  INTERFACE_CUSTOM_RULE = 12,
  INTERFACE_CONN_CLASSIFY = 18,
};

// GetModuleId's answer for an unknown name: -1 as an unsigned value.
constexpr ModuleId MODULE_UNKNOWN = static_cast<ModuleId>(-1);

// The object behind INTERFACE_DIAG. Table order: destructor, deleting
// destructor, Diag.
class KEST_API IDiag {
public:
  virtual ~IDiag();
  // Prints a report through kest_diag_printf; `arg` is kest_diag's argument.
  virtual bool Diag(void *arg) = 0;
};

class KEST_API InterfaceBroker {
public:
  // Key of the thread's table: ordered by module, then interface, unsigned.
  struct Key {
    ModuleId module;
    InterfaceId iface;
    bool operator<(const Key &other) const {
      return module != other.module ? module < other.module : iface < other.iface;
    }
  };
  using InterfaceMap = fdt::map<Key, void *>;
  using ModuleMap = fdt::map<fdt::shared_string, ModuleId, fdt::less<fdt::shared_string>,
                             shared_container_alloc<fdt::pair<fdt::shared_string, ModuleId>>>;

  // Module table of the current instance. No lock: modules change only while
  // an instance opens or closes, or its threads start and end.
  static bool RegisterModule(ModuleId id, const char *name);
  static bool UnregisterModule(ModuleId id, const char *name);
  static ModuleId GetModuleId(const char *name);
  // The first name in byte order registered with `id`, or "UNKNOWN".
  static fdt::string GetModuleName(ModuleId id);
  // Empties the current instance's table (instance teardown).
  static void ClearModules();

  // The calling thread's object; made on first use. Null only without memory.
  static InterfaceBroker *Instance();
  // The thread's object if it exists; never creates one.
  static InterfaceBroker *Peek();
  // Destroys the thread's object with its table (thread teardown).
  static void Release();

  bool RegisterInterface(ModuleId module, InterfaceId iface, void *object);
  // Removes the pair whatever pointer is given.
  bool UnregisterInterface(ModuleId module, InterfaceId iface, void *object);
  void *GetInterface(ModuleId module, InterfaceId iface) const;
  // True if this thread's table has a non-null interface of the module.
  bool IsModuleRegistered(ModuleId module) const;
  // Walks one interface over all modules: the first non-null `iface` of a
  // module above `*module`, with `*module` set to that module; null after the
  // last. Start from *module = 0.
  void *NextInterface(InterfaceId iface, ModuleId *module) const;

  static ThreadLocalKey l_instance;

private:
  InterfaceMap m_interfaces;
  static ModuleMap s_modules[kInstanceRows];
};

} // namespace oru

#endif
