#include <kest/Configuration.h>
#include <kest/Error.h>
#include <kest/InstanceState.h>
#include <kest/ProtocolRegistry.h>
#include <kest/Runtime.h>
#include <kest/SpinLock.h>
#include <kest/fdt/map.h>
#include <stdint.h>

#include "runtime/ApiSlots.h"

namespace oru {

namespace {

using NameMap = fdt::map<int32_t, fdt::shared_string, fdt::less<int32_t>,
                         shared_container_alloc<fdt::pair<int32_t, fdt::shared_string>>>;

// Per instance: the registry lock, the highest index handed out by counting,
// and the names by index.
SpinLock s_registry_lock[kInstanceRows];
uint32_t s_next_index[kInstanceRows];
NameMap s_names[kInstanceRows];

const char kKeyPrefix[] = "guid.";

// "guid." + name. False without memory.
bool MakeKey(const char *name, fdt::string &key) {
  return key.append(kKeyPrefix, sizeof(kKeyPrefix) - 1) && key.append(name, kest_strlen(name));
}

// The decimal text of an index, as the store keeps it.
struct IndexText {
  explicit IndexText(uint32_t index) { kest_snprintf(text, sizeof(text), "%u", index); }
  char text[16];
};

int StoredIndex(const char *key) {
  return kest_atoi(Configuration::GetItem(key).c_str());
}

// Puts (index, name) into the names of the current instance unless the index
// has a name already. Without memory the index simply has no name: the store
// item, which is what makes the index hold, is written already.
void InsertName(NameMap &names, int32_t index, const char *name) {
  fdt::shared_string text;
  if (text.append(name, kest_strlen(name))) {
    names.insert(index, text);
  }
}

// Erases the entry of `index` if it belongs to `name`; an entry of another
// name stays.
void EraseNameAt(NameMap &names, int32_t index, const char *name) {
  auto found = names.find(index);
  if (found != names.end() && kest_strcmp(found->second.c_str(), name) == 0) {
    names.erase(found);
  }
}

} // namespace

void RegisterProtocol(const char *name) {
  if (CurrentInstanceState() != INST_OPENING) {
    return;
  }
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_registry_lock[row]);
  fdt::string key;
  if (!MakeKey(name, key)) {
    return;
  }
  // The first registration of a name wins; later ones share its index.
  if (!Configuration::GetItem(key.c_str()).empty()) {
    return;
  }
  // The count stays raised when the store refuses: numbers are never reused.
  const uint32_t index = ++s_next_index[row];
  if (!Configuration::SetItem(key.c_str(), IndexText(index).text)) {
    return;
  }
  InsertName(s_names[row], static_cast<int32_t>(index), name);
}

int GetProtocolId(const char *name) {
  fdt::string key;
  if (!MakeKey(name, key)) {
    return 0;
  }
  return StoredIndex(key.c_str());
}

int ProtocolRegistry::AddProtocol(const char *name, int index) {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_registry_lock[row]);
  NameMap &names = s_names[row];
  fdt::string key;
  if (!MakeKey(name, key)) {
    ThrowError(ERR_NOMEM);
    return 0;
  }
  if (!Configuration::GetItem(key.c_str()).empty()) {
    ThrowError(ERR_EXIST);
    return 0;
  }
  if (index == 0) {
    // Counting goes on past numbers that SetIndex placed above the count.
    do {
      ++s_next_index[row];
    } while (names.find(static_cast<int32_t>(s_next_index[row])) != names.end());
    index = static_cast<int>(s_next_index[row]);
  }
  if (!Configuration::SetItem(key.c_str(), IndexText(static_cast<uint32_t>(index)).text)) {
    return 0;
  }
  InsertName(names, index, name);
  return index;
}

bool ProtocolRegistry::RemoveProtocol(const char *name) {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_registry_lock[row]);
  fdt::string key;
  if (!MakeKey(name, key)) {
    return false;
  }
  const int index = StoredIndex(key.c_str());
  if (index == 0) {
    return false;
  }
  EraseNameAt(s_names[row], index, name);
  // The item stays with an empty value; the count does not go back.
  return Configuration::SetItem(key.c_str(), "");
}

bool ProtocolRegistry::SetIndex(const char *name, int index) {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_registry_lock[row]);
  if (CurrentInstanceState() != INST_OPEN) {
    ThrowError(ERR_BUSY);
    return false;
  }
  if (index < 1) {
    ThrowError(ERR_INVAL);
    return false;
  }
  fdt::string key;
  if (!MakeKey(name, key)) {
    ThrowError(ERR_NOMEM);
    return false;
  }
  // Only a known protocol can move.
  const int old_index = StoredIndex(key.c_str());
  if (old_index == 0) {
    ThrowError(ERR_INVAL);
    return false;
  }
  if (!Configuration::SetItem(key.c_str(), IndexText(static_cast<uint32_t>(index)).text)) {
    return false;
  }
  NameMap &names = s_names[row];
  EraseNameAt(names, old_index, name);
  // A name already at the new index is overwritten, and its own item is left
  // alone: two names then read as one index, and the index gives this one.
  auto taken = names.find(static_cast<int32_t>(index));
  if (taken != names.end()) {
    taken->second.clear();
    taken->second.append(name, kest_strlen(name));
  } else {
    InsertName(names, index, name);
  }
  return true;
}

bool ProtocolRegistry::IndexToName(int index, fdt::string &name) {
  // No lock: names change only while the instance opens or through the calls
  // above, and the caller works on one of the instance's threads.
  NameMap &names = s_names[Runtime::l_instance_id];
  auto found = names.find(static_cast<int32_t>(index));
  if (found == names.end()) {
    return false;
  }
  name.clear();
  name.append(found->second.c_str(), found->second.size());
  return true;
}

int ProtocolRegistry::HighestIndex() {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_registry_lock[row]);
  auto *node = s_names[row].tree().root();
  if (node == nullptr) {
    return 0;
  }
  while (node->m_right != nullptr) {
    node = node->m_right;
  }
  return node->m_value.first;
}

bool ProtocolRegistry::InitInstance() {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_registry_lock[row]);
  s_next_index[row] = 0;
  return true;
}

void ProtocolRegistry::ExitInstance() {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_registry_lock[row]);
  s_names[row].clear();
}

bool ProtocolRegistry::InitThread() {
  const int tcp = GetProtocolId("TCP");
  const int udp = GetProtocolId("UDP");
  ThreadWord(ApiSlots::tcp_proto) = static_cast<uint32_t>(tcp);
  ThreadWord(ApiSlots::udp_proto) = static_cast<uint32_t>(udp);
  if (tcp == 0 || udp == 0) {
    ThrowError(ERR_PROTO);
    return false;
  }
  return true;
}

} // namespace oru
