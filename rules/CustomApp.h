// Custom applications on one thread. Custom rules live as configuration items,
// "customrule.<module>.<rule>" with the protocol number as value; this object
// watches them and applies each change to the thread's module through its
// INTERFACE_CUSTOM_RULE. The items are the truth: m_table only records what
// this thread applied, so a rule its module refused, or one for a module not
// there at the time, is not tried again.
#ifndef KEST_RULES_CUSTOMAPP_H
#define KEST_RULES_CUSTOMAPP_H

#include <kest/ICustomRule.h>
#include <kest/Runtime.h>
#include <kest/fdt/List.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/map.h>
#include <kest/fdt/refcnt.h>
#include <stdint.h>

namespace oru {

// One rule applied on this thread. Field order fixed.
struct CustomRule {
  int32_t module;   // the ModuleId it was given to
  fdt::string rule; // the rule text
  uint32_t cookie;  // the module's word for it, given back at removal
};

class CustomApp : public fdt::refcnt {
public:
  KEST_DELETE_BY_PREFIX

  using RuleTable = Map<int, List<CustomRule>>;

  // The configuration key below which the rules live.
  static const char kRulePrefix[];

  // The calling thread's object; made on first use with the slot holding one
  // reference. Null only without memory.
  static CustomApp *Instance();
  // The thread's object if it exists; never creates one.
  static CustomApp *Peek();
  // Drops the slot's reference and clears the slot (thread teardown).
  static void Release();

  // Splits a rule item: `module` is the text between the key's first and
  // second ".", `rule` all behind the second, dots included; `protocol` is
  // the value as a number. Without a first "." the module starts at the
  // key's start; without a second, the rest is the module and `rule` is the
  // whole key. False only without memory.
  static bool ParseRuleItem(const fdt::string &key, const fdt::string &value, fdt::string &module,
                            fdt::string &rule, int &protocol);

  // The rule text of an item, as ParseRuleItem cuts it; for the validators
  // of the rule grammars. False only without memory.
  static bool RuleOfItem(const fdt::string &key, fdt::string &rule);

  // The subscription handler: a non-empty new value adds the rule, an empty
  // one removes the rule that the old value named. Failures are this
  // thread's affair and only logged.
  void OnRuleChange(const fdt::string &key, const fdt::string &old_value,
                    const fdt::string &new_value);

  // Thread start-up, once the thread's modules exist: applies the rule items
  // already present, then subscribes to their changes. False when the
  // subscription could not be stored.
  bool InitThread();
  // Forgets what this thread applied, without telling the modules: they go
  // down with the thread.
  void ExitThread();

  RuleTable m_table;

  static ThreadLocalKey l_instance;

private:
  void AddRule(int32_t module, fdt::string &rule, int protocol, ICustomRule *handler);
  void RemoveRule(int32_t module, const fdt::string &rule, int protocol, ICustomRule *handler);
};

} // namespace oru

#endif
