#include <kest/Configuration.h>
#include <kest/InstanceState.h>
#include <kest/Log.h>
#include <kest/MemTag.h>
#include <kest/ThreadSingleton.h>

#include "runtime/ApiFrame.h"
#include <kest/fdt/TextSearch.h>

namespace oru {

ThreadLocalKey Configuration::l_instance;

namespace {

SlotRegistration g_config_reg(Configuration::l_instance);

// Per instance: the store lock, the items, the validators, the sync event id.
SpinLock s_store_lock[kInstanceRows];
Configuration::ItemMap s_items[kInstanceRows];
Configuration::ValidatorMap s_validators[kInstanceRows];
uint32_t s_sync_event[kInstanceRows];

const char kSyncEvent[] = "config.sync";

// Splits a key at each "." into its components. An empty component between two
// dots or before a leading dot counts; a trailing dot adds none. False if the
// list cannot be built.
bool SplitKey(const char *key, List<fdt::string> &parts) {
  const char *start = key;
  for (;;) {
    const char *dot = kest_strchr(start, '.');
    const size_t length = dot != nullptr ? static_cast<size_t>(dot - start) : kest_strlen(start);
    if (dot == nullptr && length == 0 && start != key) {
      return true; // trailing dot
    }
    fdt::string part;
    if (!part.append(start, length)) {
      return false;
    }
    if (parts.push_back(part) == parts.end()) {
      return false;
    }
    if (dot == nullptr) {
      return true;
    }
    start = dot + 1;
  }
}

// Payload of a "config.sync" event: key, NUL, old value, NUL, new value, NUL.
void PostChange(const char *key, const fdt::string &old_value, const char *value) {
  const size_t key_length = kest_strlen(key);
  const size_t old_length = old_value.size();
  const size_t new_length = kest_strlen(value);
  const size_t size = key_length + old_length + new_length + 3;
  char *block = static_cast<char *>(kest_malloc_local(size));
  if (block == nullptr) {
    return; // the store holds the change; no thread hears of it
  }
  kest_memcpy(block, key, key_length + 1);
  kest_memcpy(block + key_length + 1, old_value.c_str(), old_length + 1);
  kest_memcpy(block + key_length + old_length + 2, value, new_length + 1);
  SyncEventQueue::PostEvent(s_sync_event[Runtime::l_instance_id], block,
                            static_cast<uint32_t>(size));
  kest_free_local(block);
}

} // namespace

Configuration *Configuration::Instance() {
  return SingletonInstance<Configuration>(l_instance);
}

Configuration *Configuration::Peek() {
  return SingletonPeek<Configuration>(l_instance);
}

void Configuration::Release() {
  SingletonRelease<Configuration>(l_instance);
}

bool Configuration::SetItem(const char *key, const char *value) {
  ScopedMemTag tag(ScopedMemTag::OBJECT, MemTag::OBJ_CONFIGURATION);
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_store_lock[row]);
  ItemMap &items = s_items[row];

  auto found = FindText(items, key);
  fdt::string old_value;
  if (found != items.end()) {
    old_value.append(found->second.c_str(), found->second.size());
  }
  if (kest_strcmp(old_value.c_str(), value) == 0) {
    return true;
  }

  List<fdt::string> parts;
  fdt::string whole;
  fdt::string new_value;
  if (!SplitKey(key, parts) || !whole.append(key, kest_strlen(key)) ||
      !new_value.append(value, kest_strlen(value))) {
    return false;
  }
  fdt::string prefix;
  for (auto part = parts.begin(); part != parts.end(); ++part) {
    if (!prefix.append(part->c_str(), part->size())) {
      return false;
    }
    auto validator = FindText(s_validators[row], prefix.c_str());
    if (validator != s_validators[row].end() && !validator->second(whole, old_value, new_value)) {
      ThrowError(ERR_INVAL);
      return false;
    }
    if (!prefix.append(".", 1)) {
      return false;
    }
  }

  if (found == items.end()) {
    const size_t key_length = kest_strlen(key);
    const size_t value_length = kest_strlen(value);
    fdt::shared_string stored_key;
    fdt::shared_string stored_value;
    if (!stored_key.append(key, key_length) || !stored_value.append(value, value_length)) {
      ThrowError(ERR_NOMEM);
      return false;
    }
    auto inserted = InsertWhole(items, stored_key, stored_value);
    // The value is a copy too: a pair with a cut value is not stored either.
    if (inserted != items.end() && inserted->second.size() != value_length) {
      items.erase(inserted);
      inserted = items.end();
    }
    if (inserted == items.end()) {
      ThrowError(ERR_NOMEM);
      return false;
    }
  } else {
    // Without memory the value is left empty; the change still counts.
    found->second.clear();
    found->second.append(value, kest_strlen(value));
  }

  if (CurrentInstanceState() == INST_THREADED) {
    PostChange(key, old_value, value);
  }
  return true;
}

fdt::string Configuration::GetItem(const char *key) {
  ScopedMemTag tag(ScopedMemTag::OBJECT, MemTag::OBJ_CONFIGURATION);
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_store_lock[row]);
  fdt::string value;
  auto found = FindText(s_items[row], key);
  if (found != s_items[row].end()) {
    value.append(found->second.c_str(), found->second.size());
  }
  return value;
}

bool Configuration::EnumerateItems(const char *prefix, ItemList &out) {
  ScopedMemTag tag(ScopedMemTag::OBJECT, MemTag::OBJ_CONFIGURATION);
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_store_lock[row]);
  const size_t prefix_length = kest_strlen(prefix);
  bool appended = false;
  for (auto it = LowerBoundText(s_items[row], prefix); it != s_items[row].end(); ++it) {
    const char *key = it->first.c_str();
    if (prefix_length != 0) {
      // Ends the walk rather than skipping: a key such as "conn-x" sorts
      // before "conn.a" and stops an enumeration of "conn".
      if (kest_strncmp(key, prefix, prefix_length) != 0) {
        break;
      }
      const char next = key[prefix_length];
      if (next != '\0' && next != '.') {
        break;
      }
    }
    fdt::pair<fdt::string, fdt::string> item;
    if (!item.first.append(key, it->first.size()) ||
        !item.second.append(it->second.c_str(), it->second.size())) {
      continue;
    }
    if (out.push_back(item) != out.end()) {
      appended = true;
    }
  }
  return appended;
}

bool Configuration::RegisterValidator(const char *key, ConfigValidator validator) {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_store_lock[row]);
  fdt::shared_string stored_key;
  if (!stored_key.append(key, kest_strlen(key))) {
    return false;
  }
  return InsertWhole(s_validators[row], stored_key, validator) != s_validators[row].end();
}

bool Configuration::UnregisterValidator(const char *key, ConfigValidator validator) {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_store_lock[row]);
  auto found = FindText(s_validators[row], key);
  if (found == s_validators[row].end() || found->second != validator) {
    return false;
  }
  s_validators[row].erase(found);
  return true;
}

bool Configuration::Subscribe(const char *key, fdt::refcnt *owner, ConfigMethod method) {
  fdt::string text;
  if (!text.append(key, kest_strlen(key))) {
    return false;
  }
  Subscription subscription;
  subscription.owner = owner;
  subscription.method = method;
  return InsertWhole(m_subscriptions, text, subscription) != m_subscriptions.end();
}

bool Configuration::Unsubscribe(const char *key, fdt::refcnt *owner, ConfigMethod method) {
  auto found = FindText(m_subscriptions, key);
  if (found == m_subscriptions.end() || found->second.owner.get() != owner ||
      found->second.method != method) {
    return false;
  }
  m_subscriptions.erase(found);
  return true;
}

bool Configuration::InitInstance() {
  const int row = Runtime::l_instance_id;
  s_sync_event[row] = SyncEventQueue::RegisterEvent(kSyncEvent);
  if (s_sync_event[row] == 0) {
    KEST_LOG_WARNING("InitInstance", "Unable to register sync event");
    return false;
  }
  return true;
}

void Configuration::ExitInstance() {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_store_lock[row]);
  s_items[row].clear();
  s_validators[row].clear();
}

bool Configuration::InitThread() {
  m_sync_event = SyncEventQueue::RegisterEvent(kSyncEvent);
  SyncEventQueue *queue = SyncEventQueue::Instance();
  if (m_sync_event != 0 &&
      (queue == nullptr ||
       !queue->InstallHandler(m_sync_event, this, MakeEventMethod(&Configuration::OnSync)))) {
    ThrowError(ERR_NOMEM);
    m_sync_event = 0;
  }
  if (m_sync_event == 0) {
    KEST_LOG_WARNING("InitThread", "Unable to register sync event");
    return false;
  }
  return true;
}

void Configuration::ExitThread() {
  m_subscriptions.clear();
}

void Configuration::OnSync(const void *data, uint32_t length) {
  if (data == nullptr || length < 3) {
    return;
  }
  const char *key = static_cast<const char *>(data);
  const char *old_text = key + kest_strlen(key) + 1;
  const char *new_text = old_text + kest_strlen(old_text) + 1;
  List<fdt::string> parts;
  fdt::string whole;
  fdt::string old_value;
  fdt::string new_value;
  if (!SplitKey(key, parts) || !whole.append(key, kest_strlen(key)) ||
      !old_value.append(old_text, kest_strlen(old_text)) ||
      !new_value.append(new_text, kest_strlen(new_text))) {
    return;
  }
  fdt::string prefix;
  for (auto part = parts.begin(); part != parts.end(); ++part) {
    if (!prefix.append(part->c_str(), part->size())) {
      return;
    }
    auto found = FindText(m_subscriptions, prefix.c_str());
    if (found != m_subscriptions.end() && found->second.owner) {
      // Hold the owner: the handler may drop its own subscription.
      fdt::intrusive_ptr<fdt::refcnt> owner = found->second.owner;
      const ConfigMethod method = found->second.method;
      (owner.get()->*method)(whole, old_value, new_value);
    }
    if (!prefix.append(".", 1)) {
      return;
    }
  }
}

} // namespace oru

using namespace oru;

extern "C" KEST_EXPORT int kest_config_set(kest_handle_t handle, const char *key,
                                           const char *value) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  if (key == nullptr || value == nullptr) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  return Configuration::SetItem(key, value) ? 0 : -1;
}

extern "C" KEST_EXPORT int kest_config_get(kest_handle_t handle, const char *key, char *buffer,
                                           int size) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  if (key == nullptr || buffer == nullptr || size < 1) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  const fdt::string value = Configuration::GetItem(key);
  if (value.empty()) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  kest_strncpy(buffer, value.c_str(), static_cast<size_t>(size));
  buffer[size - 1] = '\0';
  return 0;
}

extern "C" KEST_EXPORT int kest_config_dump(kest_handle_t handle) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  Configuration::ItemList items;
  Configuration::EnumerateItems("", items);
  for (auto it = items.begin(); it != items.end(); ++it) {
    kest_diag_printf("%d: %s = %s\n", handle, it->first.c_str(), it->second.c_str());
  }
  return 0;
}
