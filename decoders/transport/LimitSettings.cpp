#include "transport/LimitSettings.h"

#include <kest.h>
#include <kest/Configuration.h>
#include <kest/fdt/ObjectPrefix.h>

namespace kest_decoders {

namespace {

struct Setting {
  const char *suffix;
  const char *value;
  uint64_t ConnTable::Limits::*ms; // null: the connection limit
};

const Setting kSettings[] = {
    {".timeout.opening", "30", &ConnTable::Limits::opening_ms},
    {".timeout.established", "600", &ConnTable::Limits::established_ms},
    {".timeout.closing", "30", &ConnTable::Limits::closing_ms},
    {".timeout.closed", "5", &ConnTable::Limits::closed_ms},
    {".max_connections", "1000000", nullptr},
};

// Subscriptions go by key prefix: these two cover the four keys.
const char *const kWatched[] = {".timeout", ".max_connections"};

void KeyOf(const char *name, const char *suffix, char (&key)[64]) {
  kest_snprintf(key, sizeof key, "%s%s", name, suffix);
}

oru::ConfigMethod ChangeMethod() {
  return oru::MakeConfigMethod(&LimitSettings::OnChange);
}

} // namespace

bool LimitSettings::SetDefaults(const char *name, bool tcp) {
  for (const Setting &setting : kSettings) {
    char key[64];
    KeyOf(name, setting.suffix, key);
    // A datagram flow that both sides use is done sooner than a TCP
    // connection that has not closed.
    const char *value =
        !tcp && setting.ms == &ConnTable::Limits::established_ms ? "120" : setting.value;
    if (oru::Configuration::GetItem(key).empty() && !oru::Configuration::SetItem(key, value)) {
      return false;
    }
  }
  return true;
}

ConnTable::Limits LimitSettings::Read(const char *name) {
  ConnTable::Limits limits;
  for (const Setting &setting : kSettings) {
    char key[64];
    KeyOf(name, setting.suffix, key);
    const long value = kest_atoi(oru::Configuration::GetItem(key).c_str());
    if (value <= 0) {
      continue;
    }
    if (setting.ms != nullptr) {
      limits.*setting.ms = static_cast<uint64_t>(value) * 1000u;
    } else {
      limits.max_connections = static_cast<size_t>(value);
    }
  }
  return limits;
}

LimitSettings *LimitSettings::Watch(ConnTable *table, const char *name) {
  oru::Configuration *config = oru::Configuration::Instance();
  LimitSettings *watcher =
      config == nullptr
          ? nullptr
          : oru::fdt::CreateObject<LimitSettings>(oru::fdt::OBJECT_LOCAL, table, name);
  if (watcher == nullptr) {
    return nullptr;
  }
  watcher->add_ref();
  for (const char *suffix : kWatched) {
    char key[64];
    KeyOf(name, suffix, key);
    if (!config->Subscribe(key, watcher, ChangeMethod())) {
      watcher->Unwatch();
      return nullptr;
    }
  }
  table->SetLimits(Read(name));
  return watcher;
}

void LimitSettings::Unwatch() {
  if (oru::Configuration *config = oru::Configuration::Peek()) {
    for (const char *suffix : kWatched) {
      char key[64];
      KeyOf(m_name, suffix, key);
      config->Unsubscribe(key, this, ChangeMethod());
    }
  }
  m_table = nullptr;
  release();
}

void LimitSettings::OnChange(const oru::fdt::string &, const oru::fdt::string &,
                             const oru::fdt::string &) {
  if (m_table != nullptr) {
    m_table->SetLimits(Read(m_name));
  }
}

} // namespace kest_decoders
