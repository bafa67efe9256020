// The configuration store: one store of string items per instance, keyed by
// dotted lower-case words ("conn.default_policy.tunnels"). Changes pass the
// validators registered on the key's prefixes on the way in, and reach each
// thread's subscribers at that thread's next idle pass.
#ifndef KEST_CONFIGURATION_H
#define KEST_CONFIGURATION_H

#include <kest/Export.h>
#include <kest/Runtime.h>
#include <kest/SpinLock.h>
#include <kest/SyncEventQueue.h>
#include <kest/fdt/List.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/intrusive_ptr.h>
#include <kest/fdt/map.h>
#include <kest/fdt/pair.h>
#include <kest/fdt/refcnt.h>
#include <stdint.h>

namespace oru {

// Accepts (true) or refuses a change: the key being set, the old and the new
// value. Runs under the store lock: it must not call back into the store.
using ConfigValidator = bool (*)(const fdt::string &key, const fdt::string &old_value,
                                 const fdt::string &new_value);

// A subscriber's handler: key, old value, new value. The result is ignored.
using ConfigMethod = void (fdt::refcnt::*)(const fdt::string &key, const fdt::string &old_value,
                                           const fdt::string &new_value);

// Casts a subscriber class's handler to the stored form.
template <class T>
inline ConfigMethod MakeConfigMethod(void (T::*method)(const fdt::string &, const fdt::string &,
                                                       const fdt::string &)) {
  return static_cast<ConfigMethod>(method);
}

class KEST_API Configuration : public EventTarget {
public:
  // Who on this thread hears of a key: the owner is kept alive by the
  // subscription.
  struct Subscription {
    fdt::intrusive_ptr<fdt::refcnt> owner;
    ConfigMethod method;
  };
  using SubscriptionMap = Map<fdt::string, Subscription>;
  using ItemList = List<fdt::pair<fdt::string, fdt::string>>;

  using ItemMap =
      fdt::map<fdt::shared_string, fdt::shared_string, fdt::less<fdt::shared_string>,
               shared_container_alloc<fdt::pair<fdt::shared_string, fdt::shared_string>>>;
  using ValidatorMap =
      fdt::map<fdt::shared_string, ConfigValidator, fdt::less<fdt::shared_string>,
               shared_container_alloc<fdt::pair<fdt::shared_string, ConfigValidator>>>;

  // The calling thread's object; made on first use.
  static Configuration *Instance();

  // Stores a value after every validator on the key's prefixes accepted it,
  // shortest prefix first. Setting the stored value again is a no-op success.
  // False after a refusal (error 22) or without memory for a new item (12).
  static bool SetItem(const char *key, const char *value);
  // The value, or an empty string for an absent key.
  static fdt::string GetItem(const char *key);
  // Appends (key, value) for the prefix itself and every key below it
  // ("a.b" covers "a.b.c", not "a.bc"). True if anything was appended.
  static bool EnumerateItems(const char *prefix, ItemList &out);
  // At most one validator per key.
  static bool RegisterValidator(const char *key, ConfigValidator validator);
  static bool UnregisterValidator(const char *key, ConfigValidator validator);

  // Convenience for subscribers: one subscription per key and thread. Subscribe
  // refuses a key that already has one; Unsubscribe removes it only if owner
  // and method match.
  bool Subscribe(const char *key, fdt::refcnt *owner, ConfigMethod method);
  bool Unsubscribe(const char *key, fdt::refcnt *owner, ConfigMethod method);

  // Instance and thread life.
  static bool InitInstance();
  static void ExitInstance();
  bool InitThread();
  void ExitThread();
  static Configuration *Peek();
  static void Release();

  // The "config.sync" handler.
  void OnSync(const void *data, uint32_t length);

  static ThreadLocalKey l_instance;

  SubscriptionMap m_subscriptions;
  uint32_t m_sync_event = 0;
};

} // namespace oru

#endif
