#include <kest/AttributeMgr.h>
#include <kest/Conn.h>
#include <kest/SpinLock.h>
#include <kest/ThreadSingleton.h>
#include <kest/fdt/TextSearch.h>

namespace oru {

ThreadLocalKey AttributeMgr::l_instance;

namespace {

SlotRegistration g_attribute_reg(AttributeMgr::l_instance);

// Per instance: the families created there and the lock that guards them.
AttributeMgr::FamilyMap s_families[kInstanceRows];
SpinLock s_attribute_lock[kInstanceRows];

const char kSpace[] = "attribute";
const char kPrefix[] = "attribute.";
constexpr size_t kPrefixLength = sizeof(kPrefix) - 1;
constexpr size_t kFirstRows = 16;

// "attribute.<name>" into `key`; false without memory.
bool ItemKey(const char *name, fdt::string &key) {
  return key.append(kPrefix, kPrefixLength) && key.append(name);
}

// The name of an item: the key behind its first ".", or "" without one.
const char *NameOfKey(const char *key) {
  const char *dot = kest_strchr(key, '.');
  return dot != nullptr ? dot + 1 : "";
}

// The first family that covers `name`, trying its leading parts that end in
// ".", shortest first, or end(). The caller holds the attribute lock.
AttributeMgr::FamilyMap::iterator CoveringFamily(const char *name) {
  AttributeMgr::FamilyMap &families = s_families[Runtime::l_instance_id];
  for (const char *dot = kest_strchr(name, '.'); dot != nullptr; dot = kest_strchr(dot + 1, '.')) {
    const AttributeLess::Span part{name, static_cast<size_t>(dot - name) + 1};
    auto found = families.find(part);
    // The map's order makes a short dotted prefix ("t.") equal to every
    // longer family under it ("t.request.header."): only a family that is
    // this very prefix covers the name.
    if (found != families.end() && found->first.size() == part.length) {
      return found;
    }
  }
  return families.end();
}

ConfigMethod ChangeMethod() {
  return MakeConfigMethod(&AttributeMgr::AttributeObserver::OnConfigChange);
}

// The ready-made callbacks of the Register overloads.
void StoreIdentifier(const fdt::string & /*name*/, int /*old_id*/, int new_id, void *user) {
  *static_cast<int *>(user) = new_id;
}

void UpdateTrie(const fdt::string &name, int old_id, int new_id, void *user) {
  const char *member;
  {
    SpinGuard guard(s_attribute_lock[Runtime::l_instance_id]);
    auto family = CoveringFamily(name.c_str());
    if (family == s_families[Runtime::l_instance_id].end()) {
      return;
    }
    member = name.c_str() + family->first.size();
  }
  AttributeMgr::NameTrie *names = static_cast<AttributeMgr::NameTrie *>(user);
  if (new_id != 0) {
    // Without memory the name is lost to this trie.
    names->add(member, new_id);
    return;
  }
  // The trie's removal destroys the deepest node of the name's path when it
  // has no children, and leaves its parent's vector pointing at it: find
  // that entry first and take it out after, so that no look-up meets it.
  AttributeMgr::NameTrie *parent = nullptr;
  AttributeMgr::NameTrie *deepest = names;
  for (const char *c = member; *c != '\0'; ++c) {
    AttributeMgr::NameTrie *next = deepest->child(*c);
    if (next == nullptr) {
      break;
    }
    parent = deepest;
    deepest = next;
  }
  const bool goes = parent != nullptr && deepest->children().empty();
  names->remove(member, old_id);
  if (goes) {
    AttributeMgr::NameTrie::child_vector &children = parent->children();
    for (auto it = children.begin(); it != children.end(); ++it) {
      if (*it == deepest) {
        children.erase(it);
        break;
      }
    }
  }
}

} // namespace

void AttributeMgr::AttributeObserver::OnConfigChange(const fdt::string &key,
                                                     const fdt::string & /*old_value*/,
                                                     const fdt::string &new_value) {
  m_manager->OnAttributeChange(key.c_str(), new_value.c_str());
}

AttributeMgr *AttributeMgr::Instance() {
  return SingletonInstance<AttributeMgr>(l_instance);
}

AttributeMgr *AttributeMgr::Peek() {
  return SingletonPeek<AttributeMgr>(l_instance);
}

void AttributeMgr::Release() {
  SingletonRelease<AttributeMgr>(l_instance);
}

bool AttributeMgr::InitInstance() {
  Configuration::RegisterValidator(kSpace, ValidateAttribute);
  return true;
}

void AttributeMgr::ExitInstance() {
  Configuration::UnregisterValidator(kSpace, ValidateAttribute);
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_attribute_lock[row]);
  s_families[row].clear();
}

bool AttributeMgr::InitThread() {
  AttributeObserver *observer = fdt::CreateObject<AttributeObserver>(fdt::OBJECT_LOCAL, this);
  if (observer == nullptr) {
    return false;
  }
  m_observer = observer;
  Configuration *config = Configuration::Instance();
  if (config == nullptr || !config->Subscribe(kSpace, observer, ChangeMethod())) {
    m_observer.reset();
    return false;
  }
  return true;
}

void AttributeMgr::ExitThread() {
  if (!m_observer) {
    return;
  }
  if (Configuration *config = Configuration::Peek()) {
    config->Unsubscribe(kSpace, m_observer.get(), ChangeMethod());
  }
  m_observer.reset();
}

bool AttributeMgr::FamilyCovers(const char *name) {
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_attribute_lock[row]);
  return CoveringFamily(name) != s_families[row].end();
}

bool AttributeMgr::Create(const fdt::string &name) {
  fdt::string key;
  if (!ItemKey(name.c_str(), key)) {
    return false;
  }
  if (!Configuration::GetItem(key.c_str()).empty() || FamilyCovers(name.c_str())) {
    return false;
  }
  return Configuration::SetItem(key.c_str(), "0");
}

bool AttributeMgr::Create(const fdt::string &name, AttributeFamily validator) {
  fdt::string key;
  if (!ItemKey(name.c_str(), key)) {
    return false;
  }
  if (!Configuration::GetItem(key.c_str()).empty() || FamilyCovers(name.c_str())) {
    return false;
  }
  fdt::shared_string stored;
  if (!stored.append(name.c_str(), name.size())) {
    return false;
  }
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_attribute_lock[row]);
  return InsertWhole(s_families[row], stored, validator) != s_families[row].end();
}

bool AttributeMgr::ValidateAttribute(const fdt::string &key, const fdt::string & /*old_value*/,
                                     const fdt::string &new_value) {
  const char *text = NameOfKey(key.c_str());
  fdt::string name;
  if (!name.append(text)) {
    return false;
  }
  const int row = Runtime::l_instance_id;
  SpinGuard guard(s_attribute_lock[row]);
  FamilyMap &families = s_families[row];
  for (const char *dot = kest_strchr(text, '.'); dot != nullptr; dot = kest_strchr(dot + 1, '.')) {
    const size_t length = static_cast<size_t>(dot - text) + 1;
    auto found = families.find(AttributeLess::Span{text, length});
    if (found != families.end() && found->first.size() == length && !found->second(name)) {
      return false;
    }
  }
  return !new_value.empty();
}

bool AttributeMgr::Register(const fdt::string &name, ChangeCallback callback, void *user) {
  fdt::string key;
  if (!ItemKey(name.c_str(), key)) {
    return false;
  }
  const fdt::string value = Configuration::GetItem(key.c_str());
  const bool family = !name.empty() && name[name.size() - 1] == '.';
  if (family ? !FamilyCovers(name.c_str()) : value.empty()) {
    return false;
  }
  if (m_registrations.find(name) != m_registrations.end()) {
    return false;
  }
  AttributeRegistration fresh;
  fresh.callback = callback;
  fresh.user = user;
  auto placed = InsertWhole(m_registrations, name, fresh);
  if (placed == m_registrations.end()) {
    return false;
  }
  AttributeRegistration &registration = placed->second;
  if (!family) {
    // Failing to store an identifier leaves nobody listening here; the
    // registration still stands and a later change may succeed.
    ActivateKey(value.c_str(), name.c_str(), registration);
    return true;
  }
  // Listeners set on members before this thread came up take effect now. The
  // store's walk ends at a key that goes on behind the prefix with anything
  // but ".", so it runs over "attribute.<family>" without the final "." and
  // keeps the members.
  fdt::string prefix;
  if (!prefix.append(key.c_str(), key.size() - 1)) {
    return false;
  }
  Configuration::ItemList items;
  Configuration::EnumerateItems(prefix.c_str(), items);
  for (auto it = items.begin(); it != items.end(); ++it) {
    const char *member = NameOfKey(it->first.c_str());
    if (kest_strlen(member) <= name.size() ||
        kest_strncmp(member, name.c_str(), name.size()) != 0) {
      continue;
    }
    if (!ActivateKey(it->second.c_str(), member, registration)) {
      return false;
    }
  }
  return true;
}

bool AttributeMgr::Register(const fdt::string &name, NameTrie *names) {
  return Register(name, UpdateTrie, names);
}

bool AttributeMgr::Register(const fdt::string &name, int *target) {
  return Register(name, StoreIdentifier, target);
}

bool AttributeMgr::Unregister(const fdt::string &name) {
  auto found = m_registrations.find(name);
  if (found == m_registrations.end()) {
    return false;
  }
  IdMap &ids = found->second.ids;
  for (auto it = ids.begin(); it != ids.end(); ++it) {
    m_delivery[static_cast<size_t>(it->second) - 1] = 0;
  }
  m_registrations.erase(found);
  return true;
}

bool AttributeMgr::IsRegistered(const char *name) const {
  // The map's order makes a family equal to its members: only the same
  // length tells the name itself.
  auto found = m_registrations.find(name);
  return found != m_registrations.end() && found->first.size() == kest_strlen(name);
}

int AttributeMgr::PlainId(const char *name) const {
  if (!IsRegistered(name)) {
    return 0;
  }
  // A plain name keeps its one identifier under the empty remainder.
  const IdMap &ids = m_registrations.find(name)->second.ids;
  for (auto it = ids.begin(); it != ids.end(); ++it) {
    if (it->first.empty()) {
      return it->second;
    }
  }
  return 0;
}

bool AttributeMgr::ActivateKey(const char *value, const char *name,
                               AttributeRegistration &registration) {
  // A listener is an address: the conversion must keep all of a long.
  const uintptr_t listener = static_cast<uintptr_t>(kest_strtol(value, nullptr, 10));
  if (listener == 0) {
    return true;
  }
  const int id = AddListener(listener);
  if (id == 0) {
    return false;
  }
  // The registered name is `name` itself or a family key that covers it.
  auto owner = m_registrations.find(name);
  const size_t registered = owner != m_registrations.end() ? owner->first.size() : 0;
  fdt::string whole;
  fdt::string sub_name;
  if (!whole.append(name) || !sub_name.append(name + registered) ||
      InsertWhole(registration.ids, sub_name, id) == registration.ids.end()) {
    m_delivery[static_cast<size_t>(id) - 1] = 0;
    return false;
  }
  registration.callback(whole, 0, id, registration.user);
  return true;
}

int AttributeMgr::AddListener(uintptr_t listener) {
  const size_t size = m_delivery.size();
  for (size_t row = 0; row < size; ++row) {
    if (m_delivery[row] == 0) {
      m_delivery[row] = listener;
      return static_cast<int>(row) + 1;
    }
  }
  // Sixteen rows at first, then doubling; new rows start free.
  if (!m_delivery.resize(size == 0 ? kFirstRows : size * 2)) {
    return 0;
  }
  m_delivery[size] = listener;
  return static_cast<int>(size) + 1;
}

void AttributeMgr::OnAttributeChange(const char *key, const char *value) {
  const uintptr_t listener = static_cast<uintptr_t>(kest_strtol(value, nullptr, 10));
  const char *name = NameOfKey(key);
  auto found = m_registrations.find(name);
  if (found == m_registrations.end()) {
    return; // nobody on this thread cares
  }
  AttributeRegistration &registration = found->second;
  const char *sub_name = name + found->first.size();
  fdt::string whole;
  if (!whole.append(name)) {
    return;
  }
  auto known = FindText(registration.ids, sub_name);
  if (known != registration.ids.end()) {
    const int old_id = known->second;
    m_delivery[static_cast<size_t>(old_id) - 1] = listener;
    if (listener != 0) {
      return; // same identifier, new listener
    }
    // Nobody listens any more: the producer stops and the row is free.
    registration.ids.erase(known);
    registration.callback(whole, old_id, 0, registration.user);
    return;
  }
  // A first listener. The value is not tested: "0" on a name without an
  // identifier still makes one, whose row holds no listener.
  const int id = AddListener(listener);
  if (id == 0) {
    return;
  }
  fdt::string stored;
  if (!stored.append(sub_name) ||
      InsertWhole(registration.ids, stored, id) == registration.ids.end()) {
    m_delivery[static_cast<size_t>(id) - 1] = 0;
    return;
  }
  registration.callback(whole, 0, id, registration.user);
}

void AttributeMgr::DispatchAttribute(int id, const uint8_t *data, int length, int more, int arg) {
  if (m_handler == nullptr) {
    return;
  }
  const Conn *conn = ThreadPointer<Conn>(Conn::l_active_conn);
  m_handler(conn->m_number, reinterpret_cast<void *>(m_delivery[static_cast<size_t>(id) - 1]), id,
            length, data, more, arg);
}

} // namespace oru
