// The thread's default policy word follows four configuration keys, one bit
// each; new connections copy the word, existing ones keep theirs.
#ifndef KEST_CONN_POLICYOBSERVER_H
#define KEST_CONN_POLICYOBSERVER_H

#include <kest/Runtime.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/refcnt.h>
#include <stdint.h>

namespace oru {

class PolicyObserver : public fdt::refcnt {
public:
  KEST_DELETE_BY_PREFIX

  // A policy bit and the key that sets it. The table's order is the order in
  // which every walk over the keys goes.
  struct Key {
    const char *key;
    uint32_t bit;
  };
  static constexpr int kKeyCount = 4;
  static const Key kKeys[kKeyCount];

  explicit PolicyObserver(uint32_t *policy) : m_policy(policy) {}

  // "1" sets the key's bit in the thread's default policy, anything else
  // clears it; a key outside the table changes nothing.
  void OnPolicyChange(const fdt::string &key, const fdt::string &old_value,
                      const fdt::string &new_value);
  void Apply(const char *key, const char *value);

  // Validator of the four keys: exactly "0" or "1".
  static bool ValidateFlag(const fdt::string &key, const fdt::string &old_value,
                           const fdt::string &new_value);

  // Instance start-up: each key set to "1" with its validator.
  static bool InitInstance();
  // Thread start-up: the observer in its slot, subscribed to every key, and
  // the default policy word made from the keys' values. False without
  // memory; ExitThread then takes away what was done.
  static bool InitThread();
  static void ExitThread();

  // The thread's observer; the slot holds one reference.
  static ThreadLocalKey l_observer;

  uint32_t *m_policy;
};

} // namespace oru

#endif
