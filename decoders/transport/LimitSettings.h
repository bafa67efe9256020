// A transport's settings, under its name: "<name>.timeout.opening" (before
// both sides spoke), "<name>.timeout.established", "<name>.timeout.closing"
// (TCP after a FIN), "<name>.timeout.closed" (TCP after FINs both ways or a
// RST) in seconds, and "<name>.max_connections". Each thread's watcher applies them to its
// connection table when the thread starts and again whenever one changes
// (from the thread's next idle pass on). A value that is not a positive
// number stands for the default.
#ifndef KEST_DECODERS_LIMITSETTINGS_H
#define KEST_DECODERS_LIMITSETTINGS_H

#include "transport/ConnTable.h"

#include <kest/fdt/basic_string.h>
#include <kest/fdt/refcnt.h>

namespace kest_decoders {

class LimitSettings final : public oru::fdt::refcnt {
public:
  KEST_DELETE_BY_PREFIX

  // Instance start-up: each key absent from the configuration gets its
  // default (for UDP, when `tcp` is false, 120 s once both sides spoke).
  // False without memory.
  static bool SetDefaults(const char *name, bool tcp);
  // The limits the configuration gives now.
  static ConnTable::Limits Read(const char *name);

  // Thread start-up: a watcher that applies the settings to `table` now and
  // on every change; null without memory.
  static LimitSettings *Watch(ConnTable *table, const char *name);
  // Thread exit: stops watching and drops the watcher.
  void Unwatch();

  void OnChange(const oru::fdt::string &key, const oru::fdt::string &old_value,
                const oru::fdt::string &new_value);

  LimitSettings(ConnTable *table, const char *name) : m_table(table), m_name(name) {}

private:
  ConnTable *m_table;
  const char *m_name;
};

} // namespace kest_decoders

#endif
