// The plug-in file loader: lists the .plg files of a directory, loads one by
// writing an unscrambled copy to /tmp, loading the copy with the dynamic
// loader and removing it at once, and asks the loaded object for its entry
// table. The only place where the library calls the C library directly.
//
// The copy's name in /tmp is predictable, so another local user can place a
// file or link there first, or swap the copy between its writing and its
// loading. A host that shares its machine can ask for a hardened copy through
// the environment (see CopyModeFromEnvironment); the default stays as it is.
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
  // Where the unscrambled copy is made.
  enum class CopyMode {
    // "/tmp/<process number>_<path with its slashes turned into _>".
    kSharedTmp,
    // An anonymous memory file, loaded through /proc/self/fd; no name in any
    // directory. Where the system has none, kPrivate is used instead.
    kMemfd,
    // A file of mode 0600, created exclusively and never through a link, in
    // a fresh directory of mode 0700 under $TMPDIR (or /tmp), both removed
    // after the load.
    kPrivate,
  };

  // The mode named by KEST_PLUGIN_COPY: unset or empty gives kSharedTmp,
  // "memfd" and "private" their modes. Any other value is reported through
  // kest_printf and gives kPrivate, so that a misspelt request for a hardened
  // copy never falls back to the shared name.
  static CopyMode CopyModeFromEnvironment();

  // Appends directory + "/" + name for each file of `dir` whose name has at
  // least five characters and ends in ".plg" in any case, in alphasort order.
  // An entry whose string cannot be allocated is left out. False if the
  // directory cannot be read.
  static bool ScanDirectory(const fdt::string &dir, List<fdt::string> &out);

  // Loads the plug-in file at `path` and calls its "query" function. On
  // success stores the entry table in *entry and returns the library handle;
  // otherwise returns null and leaves *entry alone.
  static void *Open(const fdt::string &path, const PluginEntryTable **entry,
                    CopyMode mode = CopyMode::kSharedTmp);

  // Unloads a handle from Open.
  static void Close(void *handle);

private:
  // Unscrambles `path` into a copy in /tmp, loads it and removes it.
  static void *LoadFile(const fdt::string &path);
  // The same through a copy of the hardened modes.
  static void *LoadHardened(const fdt::string &path, CopyMode mode);
};

} // namespace oru

#endif
