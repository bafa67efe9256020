#include <kest/IIdle.h>
#include <kest/InterfaceBroker.h>
#include <kest/ThreadSingleton.h>
#include <kest/fdt/TextSearch.h>

namespace oru {

IDiag::~IDiag() = default;

ThreadLocalKey InterfaceBroker::l_instance;
InterfaceBroker::ModuleMap InterfaceBroker::s_modules[kInstanceRows];

namespace {
SlotRegistration g_broker_reg(InterfaceBroker::l_instance);
} // namespace

bool InterfaceBroker::RegisterModule(ModuleId id, const char *name) {
  ModuleMap &modules = s_modules[Runtime::l_instance_id];
  fdt::shared_string key;
  if (!key.append(name, kest_strlen(name))) {
    return false;
  }
  return InsertWhole(modules, key, id) != modules.end();
}

bool InterfaceBroker::UnregisterModule(ModuleId id, const char *name) {
  ModuleMap &modules = s_modules[Runtime::l_instance_id];
  auto it = FindText(modules, name);
  if (it == modules.end() || it->second != id) {
    return false;
  }
  modules.erase(it);
  return true;
}

ModuleId InterfaceBroker::GetModuleId(const char *name) {
  ModuleMap &modules = s_modules[Runtime::l_instance_id];
  auto it = FindText(modules, name);
  return it == modules.end() ? MODULE_UNKNOWN : it->second;
}

fdt::string InterfaceBroker::GetModuleName(ModuleId id) {
  const ModuleMap &modules = s_modules[Runtime::l_instance_id];
  for (auto it = modules.begin(); it != modules.end(); ++it) {
    if (it->second == id) {
      return fdt::string(it->first.c_str());
    }
  }
  return fdt::string("UNKNOWN");
}

void InterfaceBroker::ClearModules() {
  s_modules[Runtime::l_instance_id].clear();
}

InterfaceBroker *InterfaceBroker::Instance() {
  return SingletonInstance<InterfaceBroker>(l_instance);
}

InterfaceBroker *InterfaceBroker::Peek() {
  return SingletonPeek<InterfaceBroker>(l_instance);
}

void InterfaceBroker::Release() {
  SingletonRelease<InterfaceBroker>(l_instance);
}

bool InterfaceBroker::RegisterInterface(ModuleId module, InterfaceId iface, void *object) {
  return m_interfaces.insert(Key{module, iface}, object) != m_interfaces.end();
}

bool InterfaceBroker::UnregisterInterface(ModuleId module, InterfaceId iface, void * /*object*/) {
  auto it = m_interfaces.find(Key{module, iface});
  if (it == m_interfaces.end()) {
    return false;
  }
  m_interfaces.erase(it);
  return true;
}

void *InterfaceBroker::GetInterface(ModuleId module, InterfaceId iface) const {
  auto it = m_interfaces.find(Key{module, iface});
  return it == m_interfaces.end() ? nullptr : it->second;
}

bool InterfaceBroker::IsModuleRegistered(ModuleId module) const {
  for (auto it = m_interfaces.begin(); it != m_interfaces.end(); ++it) {
    if (it->first.module == module) {
      return it->second != nullptr;
    }
    if (module < it->first.module) {
      break;
    }
  }
  return false;
}

void *InterfaceBroker::NextInterface(InterfaceId iface, ModuleId *module) const {
  if (*module == MODULE_UNKNOWN) {
    return nullptr;
  }
  for (auto it = m_interfaces.lower_bound(Key{*module + 1, 0}); it != m_interfaces.end(); ++it) {
    if (it->first.iface == iface && it->second != nullptr) {
      *module = it->first.module;
      return it->second;
    }
  }
  return nullptr;
}

void RunIdleInterfaces() {
  // Looked up again after each call: an Idle may change the table.
  ModuleId module = 0;
  for (;;) {
    InterfaceBroker *broker = InterfaceBroker::Peek();
    void *object = broker == nullptr ? nullptr : broker->NextInterface(INTERFACE_IDLE, &module);
    if (object == nullptr) {
      return;
    }
    static_cast<IIdle *>(object)->Idle();
  }
}

} // namespace oru
