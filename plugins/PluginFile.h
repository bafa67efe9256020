// The plug-in file loader: lists the .plg files of a directory, loads one by
// writing an unscrambled copy to /tmp, loading the copy with the dynamic
// loader and removing it at once, and asks the loaded object for its entry
// table. The only place where the library calls the C library directly.
//
// One process-wide lock is held across each operation, so that the dynamic
// loader and its error text are used by one thread at a time. Failures are
// reported through kest_printf and by the missing result; no error is raised.
#ifndef KEST_PLUGINS_PLUGINFILE_H
#define KEST_PLUGINS_PLUGINFILE_H

#include <kest/fdt/List.h>
#include <kest/fdt/basic_string.h>

namespace oru {

struct PluginEntryTable;

class PluginFile {
public:
  // Appends directory + "/" + name for each file of `dir` whose name has at
  // least five characters and ends in ".plg" in any case, in alphasort order.
  // An entry whose string cannot be allocated is left out. False if the
  // directory cannot be read.
  static bool ScanDirectory(const fdt::string &dir, List<fdt::string> &out);

  // Loads the plug-in file at `path` and calls its "query" function. On
  // success stores the entry table in *entry and returns the library handle;
  // otherwise returns null and leaves *entry alone.
  static void *Open(const fdt::string &path, const PluginEntryTable **entry);

  // Unloads a handle from Open.
  static void Close(void *handle);

private:
  // Unscrambles `path` into a copy in /tmp, loads it and removes it.
  static void *LoadFile(const fdt::string &path);
};

} // namespace oru

#endif
