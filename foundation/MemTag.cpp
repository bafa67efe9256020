#include <kest.h>
#include <kest/Configuration.h>
#include <kest/InstanceState.h>
#include <kest/MemTag.h>
#include <kest/Runtime.h>

namespace oru {

KEST_THREAD_WORD __thread int MemTag::l_mem_tag;

namespace {

// Numbers given out per instance; written only while the instance opens.
uint32_t s_obj_count[kInstanceRows];
uint32_t s_ctx_count[kInstanceRows];

struct TagRow {
  const char *name;
  uint32_t number;
};

const TagRow kBuiltinObjects[] = {
    {"appstack.appproto", 1},    {"appstack.attribute", 2}, {"flowbuffer.block", 3},
    {"flowbuffer.data", 4},      {"iprulestore.rule", 5},   {"kvrulestore.rule", 6},
    {"conncache.connection", 7}, {"chain.rule", 8},         {nullptr, 0},
};

const TagRow kBuiltinContexts[] = {
    {"udp.inspect", 1},
    {"udp.handoff", 2},
    {"tcp.inspect", 3},
    {"tcp.handoff", 4},
    {"bittorrent.general", 5},
    {"skype.general", 6},
    {"http.general", 7},
    {"tls.general", 8},
    {"pluginmgr.general", 9},
    {"slowinspector.general", 10},
    {"configuration.general", 11},
    {nullptr, 0},
};

// Space, "." and name; false without memory.
bool MakeKey(const char *space, const char *name, fdt::string &key) {
  return key.append(space) && key.append(".") && key.append(name);
}

// Creates each row in turn and checks it got the number the table expects.
template <class Space> bool CreateRows(const TagRow *rows) {
  uint32_t running = Space::Count();
  for (const TagRow *row = rows; row->name != nullptr; ++row, ++running) {
    if (!Space::Create(row->name)) {
      return false;
    }
    const uint32_t number = Space::Lookup(row->name);
    if (number != running || number != row->number) {
      return false;
    }
  }
  return true;
}

} // namespace

bool MemTag::Create(const char *space, const char *name, uint32_t &counter) {
  // Our own allocations here are bookkeeping, not the subject's.
  ScopedMemTag untagged(ScopedMemTag::WHOLE, 0);
  fdt::string key;
  if (!MakeKey(space, name, key)) {
    return false;
  }
  // Numbers are fixed for the life of an instance: only its start-up, where
  // plug-ins run their instance start-up too, may give new ones out.
  if (CurrentInstanceState() != INST_OPENING) {
    return false;
  }
  if (!Configuration::GetItem(key.c_str()).empty()) {
    return true;
  }
  char value[16];
  kest_snprintf(value, sizeof(value), "%u", counter + 1);
  if (!Configuration::SetItem(key.c_str(), value)) {
    return false;
  }
  ++counter;
  return true;
}

uint32_t MemTag::Lookup(const char *space, const char *name) {
  ScopedMemTag untagged(ScopedMemTag::WHOLE, 0);
  fdt::string key;
  if (!MakeKey(space, name, key)) {
    return 0;
  }
  const fdt::string value = Configuration::GetItem(key.c_str());
  if (value.empty()) {
    return 0;
  }
  return static_cast<uint32_t>(kest_atoi(value.c_str()));
}

void MemTag::Name(const char *space, uint32_t number, char *buf, int size) {
  ScopedMemTag untagged(ScopedMemTag::WHOLE, 0);
  const size_t length = static_cast<size_t>(size);
  if (number != 0) {
    Configuration::ItemList items;
    Configuration::EnumerateItems(space, items);
    for (auto it = items.begin(); it != items.end(); ++it) {
      if (static_cast<uint32_t>(kest_atoi(it->second.c_str())) != number) {
        continue;
      }
      const char *key = it->first.c_str();
      const char *found = kest_strstr(key, space);
      if (found == nullptr) {
        break;
      }
      size_t space_length = 0;
      while (space[space_length] != '\0') {
        ++space_length;
      }
      kest_snprintf(buf, length, "%s", found + space_length + 1);
      return;
    }
  }
  kest_snprintf(buf, length, "unspec");
}

bool MemTag::InitInstance() {
  s_obj_count[Runtime::l_instance_id] = 0;
  s_ctx_count[Runtime::l_instance_id] = 0;
  const bool contexts = Ctx::InitInstance();
  const bool objects = Obj::InitInstance();
  return contexts && objects;
}

void MemTag::ExitInstance() {
  s_obj_count[Runtime::l_instance_id] = 0;
  s_ctx_count[Runtime::l_instance_id] = 0;
}

bool MemTag::Obj::Create(const char *name) {
  return MemTag::Create(OBJ_SPACE, name, s_obj_count[Runtime::l_instance_id]);
}
uint32_t MemTag::Obj::Lookup(const char *name) {
  return MemTag::Lookup(OBJ_SPACE, name);
}
void MemTag::Obj::Name(uint32_t number, char *buf, int size) {
  MemTag::Name(OBJ_SPACE, number, buf, size);
}
uint32_t MemTag::Obj::Count() {
  return s_obj_count[Runtime::l_instance_id] + 1;
}
bool MemTag::Obj::InitInstance() {
  return CreateRows<Obj>(kBuiltinObjects);
}

bool MemTag::Ctx::Create(const char *name) {
  return MemTag::Create(CTX_SPACE, name, s_ctx_count[Runtime::l_instance_id]);
}
uint32_t MemTag::Ctx::Lookup(const char *name) {
  return MemTag::Lookup(CTX_SPACE, name);
}
void MemTag::Ctx::Name(uint32_t number, char *buf, int size) {
  MemTag::Name(CTX_SPACE, number, buf, size);
}
uint32_t MemTag::Ctx::Count() {
  return s_ctx_count[Runtime::l_instance_id] + 1;
}
bool MemTag::Ctx::InitInstance() {
  return CreateRows<Ctx>(kBuiltinContexts);
}

} // namespace oru
