#include "rules/CustomApp.h"

#include <kest.h>
#include <kest/Configuration.h>
#include <kest/InterfaceBroker.h>
#include <kest/Log.h>
#include <kest/fdt/ObjectPrefix.h>
#include <utility>

namespace oru {

const char CustomApp::kRulePrefix[] = "customrule";

ThreadLocalKey CustomApp::l_instance;

namespace {

SlotRegistration g_custom_app_reg(CustomApp::l_instance);

const char kFunction[] = "OnRuleChange";

ConfigMethod RuleChangeMethod() {
  return MakeConfigMethod(&CustomApp::OnRuleChange);
}

} // namespace

CustomApp *CustomApp::Instance() {
  CustomApp *&cell = ThreadPointer<CustomApp>(l_instance);
  if (cell == nullptr) {
    cell = fdt::CreateObject<CustomApp>(fdt::OBJECT_LOCAL);
    if (cell != nullptr) {
      cell->add_ref();
    }
  }
  return cell;
}

CustomApp *CustomApp::Peek() {
  return ThreadPointer<CustomApp>(l_instance);
}

void CustomApp::Release() {
  CustomApp *&cell = ThreadPointer<CustomApp>(l_instance);
  if (cell != nullptr) {
    CustomApp *app = cell;
    cell = nullptr;
    app->release();
  }
}

bool CustomApp::ParseRuleItem(const fdt::string &key, const fdt::string &value, fdt::string &module,
                              fdt::string &rule, int &protocol) {
  protocol = kest_atoi(value.c_str());
  const char *text = key.c_str();
  const char *first = kest_strchr(text, '.');
  const char *start = first != nullptr ? first + 1 : text;
  const char *second = kest_strchr(start, '.');
  module.clear();
  rule.clear();
  if (second == nullptr) {
    return module.append(start, kest_strlen(start)) && rule.append(text, kest_strlen(text));
  }
  // Everything behind the second "." is the rule, so an address keeps its dots.
  return module.append(start, static_cast<size_t>(second - start)) &&
         rule.append(second + 1, kest_strlen(second + 1));
}

bool CustomApp::RuleOfItem(const fdt::string &key, fdt::string &rule) {
  fdt::string module;
  fdt::string no_value;
  int protocol = 0;
  return ParseRuleItem(key, no_value, module, rule, protocol);
}

void CustomApp::OnRuleChange(const fdt::string &key, const fdt::string &old_value,
                             const fdt::string &new_value) {
  const bool adding = new_value.size() > 0;
  fdt::string module;
  fdt::string rule;
  int protocol = 0;
  if (!ParseRuleItem(key, adding ? new_value : old_value, module, rule, protocol)) {
    if (adding) {
      KEST_LOG_WARNING(kFunction, "Unable to add custom rule");
    }
    return;
  }
  // An item for a module that isn't loaded stays in the store, ignored.
  const ModuleId id = InterfaceBroker::GetModuleId(module.c_str());
  if (id == MODULE_UNKNOWN) {
    return;
  }
  InterfaceBroker *broker = InterfaceBroker::Instance();
  ICustomRule *handler =
      broker != nullptr
          ? static_cast<ICustomRule *>(broker->GetInterface(id, INTERFACE_CUSTOM_RULE))
          : nullptr;
  if (handler == nullptr) {
    KEST_LOG_WARNING(kFunction, "Attempt to remove custom rule from bad module");
    return;
  }
  if (adding) {
    AddRule(static_cast<int32_t>(id), rule, protocol, handler);
  } else {
    RemoveRule(static_cast<int32_t>(id), rule, protocol, handler);
  }
}

void CustomApp::AddRule(int32_t module, fdt::string &rule, int protocol, ICustomRule *handler) {
  RuleTable::iterator slot = m_table.find(protocol);
  if (slot == m_table.end()) {
    slot = m_table.insert(protocol, List<CustomRule>());
    if (slot == m_table.end()) {
      KEST_LOG_WARNING(kFunction, "Unable to add custom rule");
      return;
    }
  }
  List<CustomRule> &rules = slot->second;
  for (const CustomRule &entry : rules) {
    if (entry.module == module && kest_strcmp(entry.rule.c_str(), rule.c_str()) == 0) {
      KEST_LOG_WARNING(kFunction, "Attempt to add duplicate rule");
      return;
    }
  }
  unsigned int cookie = 0;
  if (handler->AddCustomRule(rule.c_str(), protocol, &cookie) != 0) {
    // Refused: the module has said why, if it wanted to. The list stays,
    // empty or not.
    return;
  }
  CustomRule entry{module, std::move(rule), cookie};
  if (rules.emplace_back(std::move(entry)) == rules.end()) {
    // Unrecorded, the rule could never be removed on this thread: take it back.
    handler->RemoveCustomRule(entry.rule.c_str(), protocol, cookie);
  }
}

void CustomApp::RemoveRule(int32_t module, const fdt::string &rule, int protocol,
                           ICustomRule *handler) {
  RuleTable::iterator slot = m_table.find(protocol);
  if (slot == m_table.end()) {
    KEST_LOG_WARNING(kFunction, "Attempt to remove non-existant custom rule (proto)");
    return;
  }
  List<CustomRule> &rules = slot->second;
  List<CustomRule>::iterator entry = rules.begin();
  while (entry != rules.end() &&
         (entry->module != module || kest_strcmp(entry->rule.c_str(), rule.c_str()) != 0)) {
    ++entry;
  }
  if (entry == rules.end()) {
    KEST_LOG_WARNING(kFunction, "Attempt to remove non-existant custom rule");
    return;
  }
  handler->RemoveCustomRule(entry->rule.c_str(), protocol, entry->cookie);
  rules.erase(entry);
  if (rules.empty()) {
    m_table.erase(slot);
  }
}

bool CustomApp::InitThread() {
  // Rules written before this thread started never reach it as events: apply
  // them here, directly.
  Configuration::ItemList items;
  Configuration::EnumerateItems(kRulePrefix, items);
  const fdt::string none;
  for (const auto &item : items) {
    OnRuleChange(item.first, none, item.second);
  }
  Configuration *config = Configuration::Instance();
  return config != nullptr && config->Subscribe(kRulePrefix, this, RuleChangeMethod());
}

void CustomApp::ExitThread() {
  m_table.clear();
}

} // namespace oru
