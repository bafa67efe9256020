// INTERFACE_CUSTOM_RULE: what a module registers with the interface broker, on
// each thread, to accept custom rules from the host. The thread's CustomApp
// hands it every "customrule.<module>.<rule>" item aimed at the module.
#ifndef KEST_ICUSTOMRULE_H
#define KEST_ICUSTOMRULE_H

#include <kest/Export.h>

namespace oru {

// Virtual table order fixed: AddCustomRule, RemoveCustomRule. No virtual
// destructor: the library never owns or deletes the object. Register the
// ICustomRule pointer itself, as the broker keeps an untyped pointer.
class KEST_API ICustomRule {
public:
  // Parses `rule` and adds it so that a hit reports `protocol`. Non-zero
  // refuses it. `cookie` receives whatever the module wants back at removal.
  virtual int AddCustomRule(const char *rule, int protocol, unsigned int *cookie) = 0;
  // Takes out a rule that AddCustomRule took, with the cookie it gave.
  virtual void RemoveCustomRule(const char *rule, int protocol, unsigned int cookie) = 0;

protected:
  ~ICustomRule() = default;
};

} // namespace oru

#endif
