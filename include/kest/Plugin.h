// What a plug-in implements and what it sees of the library's plug-in
// manager: the version record, the table of eight entry points, and the
// unmangled "query" function through which a dynamic plug-in hands the table
// over. A built-in plug-in hands the same table to
// oru::PluginManager::AddBuiltin (kest/PluginManager.h) before the instance
// opens.
#ifndef KEST_PLUGIN_H
#define KEST_PLUGIN_H

#include <kest/Export.h>
#include <stdint.h>

namespace oru {

// Printed as "%d.%d.%d.%d-%s". Layout fixed: plug-ins fill it.
struct VersionRecord {
  uint32_t major;
  uint32_t minor;
  uint32_t patch;
  uint32_t build;
  char revision[16];
};

// The entry points of a plug-in, in this order. Only GetVersion takes
// arguments. The table must stay valid until the instance closes.
struct PluginEntryTable {
  // Called while loading; the text is copied.
  const char *(*GetName)();
  // Fills `own` with the plug-in's version; true if the plug-in works with
  // `library`. Only the low byte of the result counts.
  bool (*GetVersion)(const VersionRecord *library, VersionRecord *own);
  // Once per instance, in byte order of the plug-in names; a module name is
  // registered here. False keeps the plug-in out for the instance's life.
  bool (*InitInstance)();
  // Once per thread, first pass: register interfaces here. False fails the
  // thread start and keeps this plug-in and all behind it out.
  bool (*InitThread)();
  // Second pass, once every plug-in has had InitThread: look up others here.
  void (*LinkThread)();
  // Third pass.
  void (*StartThread)();
  void (*ExitThread)();
  void (*ExitInstance)();
};

using PluginQueryFunction = const PluginEntryTable *(*)();

} // namespace oru

// Declares a dynamic plug-in's entry point: KEST_PLUGIN_QUERY { return &table; }
#define KEST_PLUGIN_QUERY                                                                          \
  extern "C" __attribute__((visibility("default"))) const ::oru::PluginEntryTable *query()

#endif
