#include <kest/Configuration.h>
#include <kest/Error.h>
#include <kest/Log.h>
#include <kest/MemTag.h>
#include <kest/PluginManager.h>
#include <kest/SpinLock.h>
#include <kest/SyncEventQueue.h>
#include <kest/ThreadSingleton.h>

#include <utility>

#include "plugins/PluginFile.h"
#include "runtime/InstanceTable.h"

namespace oru {

ThreadLocalKey PluginManager::l_instance;

namespace {

SlotRegistration g_plugin_manager_reg(PluginManager::l_instance);

// The library's own version, handed to every plug-in's GetVersion.
const VersionRecord s_library_version = {4, 0, 0, 33, "13180"};

constexpr const char *kValidatorKey = "plugins";
constexpr const char *kDisabledSuffix = "disabled";
constexpr size_t kDisabledSuffixLength = 8;

// Process: the built-in tables and the lock around opening and closing.
const PluginEntryTable *s_builtins[PluginManager::kMaxBuiltins];
int s_builtin_count;
SpinLock s_plugin_lock;

// Per instance: the directory given at open, every plug-in seen, the winner
// of each name, and the winners again once loading is over.
char *s_plugin_dir[kInstanceRows];
PluginManager::RecordList s_all[kInstanceRows];
PluginManager::RecordMap s_by_name[kInstanceRows];
PluginManager::RecordMap s_active[kInstanceRows];

void FreePluginDir(int row) {
  if (s_plugin_dir[row] != nullptr) {
    kest_free_shared(s_plugin_dir[row]);
    s_plugin_dir[row] = nullptr;
  }
}

// A copy of `dir` on the shared heap; left null without memory.
void CopyPluginDir(int row, const char *dir) {
  FreePluginDir(row);
  const size_t length = kest_strlen(dir);
  char *copy = static_cast<char *>(kest_malloc_shared(length + 1));
  if (copy != nullptr) {
    kest_memcpy(copy, dir, length);
    copy[length] = '\0';
    s_plugin_dir[row] = copy;
  }
}

// True if `candidate` is strictly newer than `current`, field by field.
bool IsNewer(const VersionRecord &candidate, const VersionRecord &current) {
  const uint32_t a[] = {candidate.major, candidate.minor, candidate.patch, candidate.build};
  const uint32_t b[] = {current.major, current.minor, current.patch, current.build};
  for (int i = 0; i < 4; ++i) {
    if (a[i] != b[i]) {
      return a[i] > b[i];
    }
  }
  return false;
}

// Puts a record into the instance's list, taking its strings over. The
// stored record is the one the status print shows; the caller's copy goes on
// as the loader's working record. Null without memory.
PluginRecord *AppendRecord(PluginManager::RecordList &all, PluginRecord &record) {
  auto it = all.emplace_back(std::move(record));
  return it == all.end() ? nullptr : &*it;
}

void AddBuiltins(int row) {
  PluginManager::RecordList &all = s_all[row];
  for (int i = 0; i < s_builtin_count; ++i) {
    const PluginEntryTable *entries = s_builtins[i];
    PluginRecord work{};
    work.entries = entries;
    work.type = PluginManager::TYPE_BUILTIN;
    work.status = PluginManager::STATUS_ACTIVE;
    const bool named = work.name.append(entries->GetName());
    // A built-in plug-in is part of the program: it is never incompatible.
    entries->GetVersion(&s_library_version, &work.version);
    PluginRecord *stored = named ? AppendRecord(all, work) : nullptr;
    if (stored == nullptr) {
      KEST_LOG_WARNING("InitInstance", "Error adding static plugin\n");
      continue;
    }
    // The first built-in plug-in of a name stays the winner.
    s_by_name[row].insert(stored->name.c_str(), stored);
  }
}

// Settles a dynamic plug-in that is already listed. Only the winner's status
// ever changes in the list: a plug-in dropped here stays listed as active
// although its library is closed, and "Superceded" is printed only for one
// that had been the winner before.
void DecideDynamic(int row, PluginRecord *stored, bool compatible) {
  if (!compatible) {
    PluginFile::Close(stored->handle);
    return;
  }
  PluginManager::RecordMap &by_name = s_by_name[row];
  auto found = by_name.find(stored->name.c_str());
  if (found == by_name.end()) {
    if (by_name.insert(stored->name.c_str(), stored) == by_name.end()) {
      // Without a place among the winners it would never be called.
      PluginFile::Close(stored->handle);
    }
    return;
  }
  PluginRecord *winner = found->second;
  // A dynamic plug-in always replaces a built-in one of its name; between
  // two files the later one must be strictly newer.
  if (winner->type == PluginManager::TYPE_DYNAMIC && !IsNewer(stored->version, winner->version)) {
    PluginFile::Close(stored->handle);
    return;
  }
  winner->status = PluginManager::STATUS_SUPERCEDED;
  if (winner->type == PluginManager::TYPE_DYNAMIC) {
    PluginFile::Close(winner->handle);
  }
  found->second = stored;
}

void AddDynamic(int row, const fdt::string &path, PluginFile::CopyMode copy_mode) {
  const PluginEntryTable *entries = nullptr;
  void *handle = PluginFile::Open(path, &entries, copy_mode);
  if (handle == nullptr) {
    KEST_LOG_WARNING("InitInstance", "Error opening dynamic plugin\n");
    return;
  }
  PluginRecord work{};
  work.handle = handle;
  work.entries = entries;
  work.type = PluginManager::TYPE_DYNAMIC;
  work.status = PluginManager::STATUS_ACTIVE;
  const bool named =
      work.filename.append(path.c_str(), path.size()) && work.name.append(entries->GetName());
  const bool compatible = entries->GetVersion(&s_library_version, &work.version);
  PluginRecord *stored = named ? AppendRecord(s_all[row], work) : nullptr;
  if (stored == nullptr) {
    KEST_LOG_WARNING("InitInstance", "Error adding dynamic plugin\n");
    PluginFile::Close(handle);
    return;
  }
  DecideDynamic(row, stored, compatible);
}

// Accepts only "plugins.<name>.disabled" set to "0" or "1", and only while
// no thread of the instance runs: the value is read at thread start.
bool ValidatePluginKey(const fdt::string &key, const fdt::string & /*old_value*/,
                       const fdt::string &new_value) {
  if (key.size() < kDisabledSuffixLength ||
      kest_strcmp(key.c_str() + key.size() - kDisabledSuffixLength, kDisabledSuffix) != 0) {
    return false;
  }
  if (new_value != "0" && new_value != "1") {
    return false;
  }
  if (InstanceTable::State(Runtime::l_instance_id) != INST_OPEN) {
    ThrowError(ERR_BUSY);
    return false;
  }
  return true;
}

// True if the configuration disables the plug-in. A key that cannot be built
// for want of memory reads as not set.
bool IsDisabled(const PluginRecord &record) {
  fdt::string key;
  if (!key.append("plugins.") || !key.append(record.name.c_str(), record.name.size()) ||
      !key.append(".") || !key.append(kDisabledSuffix)) {
    return false;
  }
  return Configuration::GetItem(key.c_str()) == "1";
}

const char *StatusWords(uint32_t status) {
  switch (status) {
  case PluginManager::STATUS_ACTIVE:
    return "Active";
  case PluginManager::STATUS_INCOMPATIBLE:
    return "Incompatible version";
  case PluginManager::STATUS_SUPERCEDED:
    return "Superceded";
  case PluginManager::STATUS_INIT_FAILED:
    return "Failure to initialize";
  case PluginManager::STATUS_DISABLED:
    return "Disabled";
  default:
    return "Load failure";
  }
}

} // namespace

int PluginManager::AddBuiltin(const PluginEntryTable *entries) {
  s_builtins[s_builtin_count] = entries;
  return ++s_builtin_count;
}

PluginManager *PluginManager::Instance() {
  PluginManager *&cell = ThreadPointer<PluginManager>(l_instance);
  if (cell == nullptr) {
    PluginManager *made = fdt::CreateObject<PluginManager>(fdt::OBJECT_LOCAL);
    // A thread that cannot see every plug-in must not start with a part.
    if (made != nullptr && !made->CopyActive()) {
      fdt::DestroyObject(made);
      made = nullptr;
    }
    cell = made;
  }
  return cell;
}

PluginManager *PluginManager::Peek() {
  return SingletonPeek<PluginManager>(l_instance);
}

void PluginManager::Release() {
  SingletonRelease<PluginManager>(l_instance);
}

PluginManager::PluginManager()
    : m_version(&s_library_version), m_all(&s_all[Runtime::l_instance_id]) {}

PluginManager::~PluginManager() = default;

bool PluginManager::CopyActive() {
  const RecordMap &active = s_active[Runtime::l_instance_id];
  for (auto it = active.begin(); it != active.end(); ++it) {
    if (m_active.insert(it->first, it->second) == m_active.end()) {
      return false;
    }
  }
  return true;
}

bool PluginManager::InitInstance(const char *plugin_dir) {
  SpinGuard lock(s_plugin_lock);
  ScopedMemTag tag(ScopedMemTag::CONTEXT, MemTag::CTX_PLUGINMGR_GENERAL);
  const int row = Runtime::l_instance_id;
  // No directory: built-in plug-ins only.
  if (plugin_dir == nullptr) {
    plugin_dir = "";
  }

  CopyPluginDir(row, plugin_dir);
  AddBuiltins(row);

  List<fdt::string> paths;
  if (!PluginFile::ScanDirectory(fdt::string(plugin_dir), paths)) {
    KEST_LOG_WARNING("InitInstance", "Could not get directory listing in %s\n", plugin_dir);
  }
  // Read once per instance, and only when there is a file to load, so that
  // an instance without plug-in files never reports a bad value.
  const PluginFile::CopyMode copy_mode =
      paths.empty() ? PluginFile::CopyMode::kSharedTmp : PluginFile::CopyModeFromEnvironment();
  for (auto it = paths.begin(); it != paths.end(); ++it) {
    AddDynamic(row, *it, copy_mode);
  }

  // The winners, in name order, are the plug-ins of this instance.
  RecordMap &active = s_active[row];
  active.clear();
  const RecordMap &by_name = s_by_name[row];
  for (auto it = by_name.begin(); it != by_name.end(); ++it) {
    active.insert(it->first, it->second);
  }

  for (auto it = active.begin(); it != active.end(); ++it) {
    PluginRecord *record = it->second;
    if (!record->entries->InitInstance()) {
      KEST_LOG_ERROR("InitInstance", "Error initializing instance of plugin %s\n",
                     record->name.c_str());
      record->status = STATUS_INIT_FAILED;
    }
  }

  Configuration::RegisterValidator(kValidatorKey, ValidatePluginKey);
  return true;
}

void PluginManager::ExitInstance() {
  const int row = Runtime::l_instance_id;
  RecordMap &active = s_active[row];
  for (auto it = active.begin(); it != active.end(); ++it) {
    if (it->second->status == STATUS_ACTIVE) {
      it->second->entries->ExitInstance();
    }
  }

  SpinGuard lock(s_plugin_lock);
  RecordMap &by_name = s_by_name[row];
  for (auto it = by_name.begin(); it != by_name.end(); ++it) {
    if (it->second->type == TYPE_DYNAMIC) {
      PluginFile::Close(it->second->handle);
    }
  }
  by_name.clear();
  FreePluginDir(row);
  s_all[row].clear();
  active.clear();
  Configuration::UnregisterValidator(kValidatorKey, ValidatePluginKey);
}

bool PluginManager::InitThread() {
  ScopedMemTag tag(ScopedMemTag::CONTEXT, MemTag::CTX_PLUGINMGR_GENERAL);
  m_plugin_dir.clear();
  m_plugin_dir.append(s_plugin_dir[Runtime::l_instance_id]);
  m_thread_started = true;

  for (auto it = m_active.begin(); it != m_active.end(); ++it) {
    PluginRecord *record = it->second;
    if (record->status != STATUS_ACTIVE) {
      continue;
    }
    if (IsDisabled(*record)) {
      record->status = STATUS_DISABLED;
      continue;
    }
    if (record->entries->InitThread()) {
      continue;
    }
    // This plug-in and every one behind it stay out, for all threads of the
    // instance; those before it are ended again. Statuses only ever move
    // away from active, so one set otherwise is kept.
    record->status = STATUS_LOAD_FAILURE;
    KEST_LOG_WARNING("InitThread", "bad init on %s", record->name.c_str());
    for (++it; it != m_active.end(); ++it) {
      if (it->second->status == STATUS_ACTIVE) {
        it->second->status = STATUS_LOAD_FAILURE;
      }
    }
    ExitThread();
    return false;
  }

  for (auto it = m_active.begin(); it != m_active.end(); ++it) {
    if (it->second->status == STATUS_ACTIVE) {
      it->second->entries->LinkThread();
    }
  }
  for (auto it = m_active.begin(); it != m_active.end(); ++it) {
    if (it->second->status == STATUS_ACTIVE) {
      it->second->entries->StartThread();
    }
  }
  if (InterfaceBroker *broker = InterfaceBroker::Instance()) {
    broker->RegisterInterface(MODULE_SYSTEM, INTERFACE_DIAG, static_cast<IDiag *>(this));
  }
  return true;
}

void PluginManager::ExitThread() {
  if (!m_thread_started) {
    return;
  }
  m_thread_started = false;
  for (auto it = m_active.begin(); it != m_active.end(); ++it) {
    if (it->second->status == STATUS_ACTIVE) {
      it->second->entries->ExitThread();
    }
  }
  if (InterfaceBroker *broker = InterfaceBroker::Peek()) {
    broker->UnregisterInterface(MODULE_SYSTEM, INTERFACE_DIAG, static_cast<IDiag *>(this));
  }
}

bool PluginManager::Diag(void * /*arg*/) {
  kest_diag_printf("Plugin status:\n");
  kest_diag_printf(
      "Name           Filename                         Version           Type     Status\n");
  for (auto it = m_all->begin(); it != m_all->end(); ++it) {
    const PluginRecord &record = *it;
    char version[1024];
    kest_sprintf(version, "%d.%d.%d.%d-%s", record.version.major, record.version.minor,
                 record.version.patch, record.version.build, record.version.revision);
    kest_diag_printf("%-14s %-32s %-17s %-8s %s\n", record.name.c_str(), record.filename.c_str(),
                     version, record.type == TYPE_BUILTIN ? "Builtin" : "Dynamic",
                     StatusWords(record.status));
  }
  const SyncEventQueue *queue = SyncEventQueue::Peek();
  kest_diag_printf("\nEvent Queue Stats:\n");
  kest_diag_printf("%llu events processed on this thread\n",
                   static_cast<unsigned long long>(queue != nullptr ? queue->Processed() : 0));
  kest_diag_printf("\n");
  return true;
}

} // namespace oru
