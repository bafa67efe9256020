#include "conn/PolicyObserver.h"

#include <kest/Configuration.h>
#include <kest/Conn.h>
#include <kest/fdt/ObjectPrefix.h>

namespace oru {

ThreadLocalKey PolicyObserver::l_observer;

const PolicyObserver::Key PolicyObserver::kKeys[kKeyCount] = {
    {"conn.default_policy.chameleon", POLICY_CHAMELEON},
    {"conn.default_policy.futureflows", POLICY_FUTUREFLOWS},
    {"conn.default_policy.attributes", POLICY_ATTRIBUTES},
    {"conn.default_policy.tunnels", POLICY_TUNNELS},
};

namespace {

SlotRegistration g_observer_reg(PolicyObserver::l_observer);

ConfigMethod ChangeMethod() {
  return MakeConfigMethod(&PolicyObserver::OnPolicyChange);
}

} // namespace

void PolicyObserver::OnPolicyChange(const fdt::string &key, const fdt::string & /*old_value*/,
                                    const fdt::string &new_value) {
  Apply(key.c_str(), new_value.c_str());
}

void PolicyObserver::Apply(const char *key, const char *value) {
  for (const Key &row : kKeys) {
    if (kest_strcmp(key, row.key) == 0) {
      if (kest_strcmp(value, "1") == 0) {
        *m_policy |= row.bit;
      } else {
        *m_policy &= ~row.bit;
      }
      return;
    }
  }
}

bool PolicyObserver::ValidateFlag(const fdt::string & /*key*/, const fdt::string & /*old_value*/,
                                  const fdt::string &new_value) {
  return new_value == "0" || new_value == "1";
}

bool PolicyObserver::InitInstance() {
  for (const Key &row : kKeys) {
    Configuration::SetItem(row.key, "1");
    Configuration::RegisterValidator(row.key, ValidateFlag);
  }
  return true;
}

bool PolicyObserver::InitThread() {
  PolicyObserver *observer =
      fdt::CreateObject<PolicyObserver>(fdt::OBJECT_LOCAL, &ThreadWord(Conn::l_default_policy));
  if (observer == nullptr) {
    return false;
  }
  observer->add_ref();
  ThreadWord(Conn::l_default_policy) = 0xFFFFFFFFu;
  ThreadPointer<PolicyObserver>(l_observer) = observer;
  Configuration *config = Configuration::Instance();
  if (config == nullptr) {
    return false;
  }
  for (const Key &row : kKeys) {
    if (!config->Subscribe(row.key, observer, ChangeMethod())) {
      return false;
    }
    observer->Apply(row.key, Configuration::GetItem(row.key).c_str());
  }
  return true;
}

void PolicyObserver::ExitThread() {
  PolicyObserver *observer = ThreadPointer<PolicyObserver>(l_observer);
  if (observer == nullptr) {
    return;
  }
  if (Configuration *config = Configuration::Peek()) {
    for (const Key &row : kKeys) {
      config->Unsubscribe(row.key, observer, ChangeMethod());
    }
  }
  ThreadPointer<PolicyObserver>(l_observer) = nullptr;
  observer->release();
}

} // namespace oru
