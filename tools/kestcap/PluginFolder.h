// kestcap's plug-in folder: which one it loads without --plugins, what in it
// the library will not load, and the --list-plugins report.
#ifndef KESTCAP_PLUGINFOLDER_H
#define KESTCAP_PLUGINFOLDER_H

#include <kest.h>

#include <string>
#include <vector>

namespace kestcap {

// Fills the library's hooks from the C library, with the library's own
// messages (kest_printf) going to standard error: standard output carries
// kestcap's results.
void UseHostHooks();

// The folder kestcap loads without --plugins: the plug-in folder of its own
// installation, found from the executable's place. Only the kestcap that a
// build made, where the build put it, loads the build's folder instead; a
// copy or an installed one never falls back to a build tree.
std::string DefaultPluginFolder();

// A file of the folder that the library does not load as a plug-in, and why.
struct Stray {
  std::string name;
  std::string why;
};

struct FolderScan {
  bool readable = false;
  // The .plg files the library will try, by name.
  std::vector<std::string> plugins;
  // Other files (hidden ones aside), and .plg files that are plain shared
  // objects.
  std::vector<Stray> strays;
};

FolderScan ScanFolder(const std::string &dir);

// Why no thread of an instance open on `dir` can start: the TCP or UDP
// decoder is missing (kest_init would fail with KEST_EPROTO). Empty when
// both are there.
std::string MissingTransports(kest_handle_t h, const std::string &dir);

// --list-plugins: each plug-in of `dir` with its version and status, then the
// files that are not plug-ins. The result is the exit code.
int ListPlugins(const std::string &dir);

} // namespace kestcap

#endif
