#include "plugins/PluginFile.h"

#include <kest.h>
#include <kest/PluginScramble.h>
#include <kest/SpinLock.h>

#include <dirent.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <strings.h>
#include <unistd.h>
#include <utility>

namespace oru {

namespace {

// Held across each of the three operations.
SpinLock g_loader_lock = 0;

// The copy is written in blocks of this size. It is a multiple of the key
// size, so the key position can start from 0 in every block.
constexpr size_t kCopyBlock = 1024;
static_assert(kCopyBlock % kPluginKeySize == 0, "blocks must not break the key sequence");

using QueryFunction = const PluginEntryTable *(*)();

int IsPluginFile(const struct dirent *entry) {
  const size_t length = kest_strlen(entry->d_name);
  return length >= 5 && strcasecmp(entry->d_name + length - 4, ".plg") == 0;
}

} // namespace

bool PluginFile::ScanDirectory(const fdt::string &dir, List<fdt::string> &out) {
  SpinGuard guard(g_loader_lock);
  struct dirent **entries = nullptr;
  const int count = scandir(dir.c_str(), &entries, IsPluginFile, alphasort);
  if (count == -1) {
    return false;
  }
  for (int i = 0; i < count; ++i) {
    const char *name = entries[i]->d_name;
    // The separator goes in even after a trailing "/"; the doubled slash is
    // harmless to the file system.
    fdt::string path;
    if (path.append(dir.c_str(), dir.size()) && path.append("/", 1) &&
        path.append(name, kest_strlen(name))) {
      // Moved in, so that a full heap drops the entry rather than keeping a
      // shortened path.
      out.emplace_back(std::move(path));
    }
    free(entries[i]);
  }
  free(entries);
  return true;
}

void *PluginFile::LoadFile(const fdt::string &path) {
  FILE *source = fopen(path.c_str(), "r");
  if (source == nullptr) {
    kest_printf("library open failed\n");
    return nullptr;
  }

  // "/tmp/", the process number, "_" and the path with its slashes turned
  // into "_": the process number keeps two processes apart, the lock two
  // instances of this one.
  const size_t length = path.size();
  char copy[length + 16];
  kest_sprintf(copy, "/tmp/%d_%s", getpid(), path.c_str());
  // The pass covers as many bytes as the path has, but starts at the process
  // number, so the last few bytes of the path keep their slashes. Only very
  // short file names are affected: their copy cannot be created and the load
  // fails.
  for (size_t i = 5; i < 5 + length; ++i) {
    if (copy[i] == '/') {
      copy[i] = '_';
    }
  }

  FILE *target = fopen(copy, "w");
  if (target == nullptr) {
    fclose(source);
    kest_printf("library read failed\n");
    return nullptr;
  }
  unsigned char block[kCopyBlock];
  while (!feof(source)) {
    const size_t got = fread(block, 1, sizeof block, source);
    // Nothing read without the end reached is a read error (a directory,
    // say); the end flag would never come, so stop with what was copied.
    if (got == 0) {
      break;
    }
    ScrambleBlock(block, got, 0);
    if (fwrite(block, 1, got, target) < got) {
      fclose(target);
      unlink(copy);
      fclose(source);
      kest_printf("library read failed\n");
      return nullptr;
    }
  }
  fclose(source);
  fclose(target);

  void *handle = dlopen(copy, RTLD_NOW);
  if (handle == nullptr) {
    kest_printf("dlopen failed %s\n", dlerror());
  }
  // The loaded object stays mapped; no unscrambled copy outlives the call.
  unlink(copy);
  return handle;
}

void *PluginFile::Open(const fdt::string &path, const PluginEntryTable **entry) {
  SpinGuard guard(g_loader_lock);
  void *handle = LoadFile(path);
  if (handle == nullptr) {
    // After a failed dlopen the text has been taken already and reads null.
    kest_printf("error %s opening lib\n", dlerror());
    return nullptr;
  }
  void *query = dlsym(handle, "query");
  if (query == nullptr) {
    kest_printf("No query symbol found in plugin %s", path.c_str());
    dlclose(handle);
    return nullptr;
  }
  *entry = reinterpret_cast<QueryFunction>(query)();
  return handle;
}

void PluginFile::Close(void *handle) {
  SpinGuard guard(g_loader_lock);
  if (dlclose(handle) != 0) {
    kest_printf("error %s closing lib\n", dlerror());
  }
}

} // namespace oru
