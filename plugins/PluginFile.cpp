#include "plugins/PluginFile.h"

#include <kest.h>
#include <kest/PluginScramble.h>
#include <kest/SpinLock.h>

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace oru {

namespace {

// Held across each of the three operations.
SpinLock g_loader_lock = 0;

// The copy is written in blocks of this size. It is a multiple of the key
// size, so the key position can start from 0 in every block.
constexpr size_t kCopyBlock = 16384;
static_assert(kCopyBlock % kPluginKeySize == 0, "blocks must not break the key sequence");

using QueryFunction = const PluginEntryTable *(*)();

int IsPluginFile(const struct dirent *entry) {
  const size_t length = kest_strlen(entry->d_name);
  return length >= 5 && strcasecmp(entry->d_name + length - 4, ".plg") == 0;
}

constexpr const char *kCopyModeVariable = "KEST_PLUGIN_COPY";

// Numbers the private directories of this process, under the loader lock.
unsigned long long g_private_serial = 0;

// Unscrambles the rest of `source` into `fd`. False if a write fails.
bool CopyPlain(FILE *source, int fd) {
  unsigned char block[kCopyBlock];
  while (!feof(source)) {
    const size_t got = fread(block, 1, sizeof block, source);
    // As in the default copy: a read error ends the copy with what was read.
    if (got == 0) {
      break;
    }
    ScrambleBlock(block, got, 0);
    for (size_t done = 0; done < got;) {
      const ssize_t put = write(fd, block + done, got - done);
      if (put > 0) {
        done += static_cast<size_t>(put);
      } else if (put == 0 || errno != EINTR) {
        return false;
      }
    }
  }
  return true;
}

// True if an object loaded earlier goes by `name`. The dynamic loader matches
// a name before it looks at the file, so it would hand out that object again
// whatever the file under the name now holds.
bool NameInUse(const char *name) {
  void *loaded = dlopen(name, RTLD_NOW | RTLD_NOLOAD);
  if (loaded == nullptr) {
    dlerror();
    return false;
  }
  dlclose(loaded);
  return true;
}

// Past the descriptor number of the last plug-in loaded through a memory
// file; taken under the loader's lock.
int g_next_memory_fd = 0;

// -1 where the C library or the kernel has no memory files.
int MakeMemoryFile() {
#ifdef MFD_CLOEXEC
  return memfd_create("kest-plugin", MFD_CLOEXEC);
#else
  return -1;
#endif
}

// Loads `source` through an anonymous memory file. False, with nothing read
// from `source`, where no memory file can be had or reached by a name;
// otherwise the load was tried and *handle holds its result.
bool LoadThroughMemoryFile(FILE *source, void **handle) {
  int fd = MakeMemoryFile();
  if (fd == -1) {
    return false;
  }
  char name[32];
  kest_sprintf(name, "/proc/self/fd/%d", fd);
  // Without /proc the memory file has no name to be loaded by.
  if (access(name, R_OK) != 0) {
    close(fd);
    return false;
  }
  // Descriptor numbers come back once closed, and the object loaded from an
  // earlier memory file may still go by this name: move up to a number that
  // no loaded object goes by. The search starts past the number of the last
  // load, or each of a folder's plug-ins would try every number before it
  // (one loader look-up each). Where that number is out of reach (the
  // descriptor limit), the search goes up from the number given.
  if (fd < g_next_memory_fd) {
    const int next = fcntl(fd, F_DUPFD_CLOEXEC, g_next_memory_fd);
    if (next != -1) {
      close(fd);
      fd = next;
      kest_sprintf(name, "/proc/self/fd/%d", fd);
    }
  }
  while (NameInUse(name)) {
    const int next = fcntl(fd, F_DUPFD_CLOEXEC, fd + 1);
    close(fd);
    if (next == -1) {
      return false;
    }
    fd = next;
    kest_sprintf(name, "/proc/self/fd/%d", fd);
  }
  g_next_memory_fd = fd + 1;
  *handle = nullptr;
  if (!CopyPlain(source, fd)) {
    kest_printf("library read failed\n");
  } else if ((*handle = dlopen(name, RTLD_NOW)) == nullptr) {
    kest_printf("dlopen failed %s\n", dlerror());
  }
  // The mapping keeps the memory file alive; the descriptor is not needed.
  close(fd);
  return true;
}

// Loads `source` through a copy in a directory of its own under $TMPDIR or
// /tmp, named after the file of `path`. Only this user can reach the
// directory, and the copy is never made through a file or link found there.
void *LoadThroughPrivateDirectory(FILE *source, const fdt::string &path) {
  const char *base = getenv("TMPDIR");
  if (base == nullptr || base[0] == '\0') {
    base = "/tmp";
  }
  const char *leaf = path.c_str();
  for (const char *p = leaf; *p != '\0'; ++p) {
    if (*p == '/') {
      leaf = p + 1;
    }
  }
  // The serial keeps the copy's name apart from that of every object this
  // process loaded before, even if a removed directory's name comes again.
  char directory[kest_strlen(base) + 48];
  kest_sprintf(directory, "%s/kest-plugin-%llu-XXXXXX", base, ++g_private_serial);
  if (mkdtemp(directory) == nullptr) {
    kest_printf("library read failed\n");
    return nullptr;
  }
  char copy[sizeof directory + kest_strlen(leaf) + 2];
  kest_sprintf(copy, "%s/%s", directory, leaf);

  void *handle = nullptr;
  const int fd = open(copy, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  bool written = fd != -1 && CopyPlain(source, fd);
  if (fd != -1 && close(fd) != 0) {
    written = false;
  }
  if (!written) {
    kest_printf("library read failed\n");
  } else if ((handle = dlopen(copy, RTLD_NOW)) == nullptr) {
    kest_printf("dlopen failed %s\n", dlerror());
  }
  if (fd != -1) {
    unlink(copy);
  }
  rmdir(directory);
  return handle;
}

} // namespace

PluginFile::CopyMode PluginFile::CopyModeFromEnvironment() {
  const char *value = getenv(kCopyModeVariable);
  if (value == nullptr || value[0] == '\0') {
    return CopyMode::kSharedTmp;
  }
  if (kest_strcmp(value, "memfd") == 0) {
    return CopyMode::kMemfd;
  }
  if (kest_strcmp(value, "private") == 0) {
    return CopyMode::kPrivate;
  }
  kest_printf("unknown %s value %s, using private\n", kCopyModeVariable, value);
  return CopyMode::kPrivate;
}

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

void *PluginFile::LoadHardened(const fdt::string &path, CopyMode mode) {
  FILE *source = fopen(path.c_str(), "r");
  if (source == nullptr) {
    kest_printf("library open failed\n");
    return nullptr;
  }
  void *handle = nullptr;
  // Without a memory file the private directory is next; the shared name is
  // never a fallback.
  if (mode != CopyMode::kMemfd || !LoadThroughMemoryFile(source, &handle)) {
    handle = LoadThroughPrivateDirectory(source, path);
  }
  fclose(source);
  return handle;
}

void *PluginFile::Open(const fdt::string &path, const PluginEntryTable **entry, CopyMode mode) {
  SpinGuard guard(g_loader_lock);
  void *handle = mode == CopyMode::kSharedTmp ? LoadFile(path) : LoadHardened(path, mode);
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
