#include "ScopedEnv.h"
#include "TempDir.h"
#include "TestHooks.h"
#include "plugins/PluginFile.h"

#include <algorithm>
#include <dlfcn.h>
#include <kest/PluginScramble.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using kest_test::Bytes;
using kest_test::ReadFile;
using oru::PluginEntryTable;
using oru::PluginFile;
using CopyMode = PluginFile::CopyMode;
using Strings = std::vector<std::string>;

// Writes `plain` scrambled with one pass over the whole file.
void WritePlugin(const std::string &path, Bytes plain) {
  oru::ScrambleBlock(plain.data(), plain.size(), 0);
  kest_test::WriteFile(path, plain);
}

// The name of the loader's copy of `path`.
std::string CopyName(std::string path) {
  std::replace(path.begin(), path.end(), '/', '_');
  return "/tmp/" + std::to_string(getpid()) + "_" + path;
}

// The loader's copies: files in /tmp named after this process.
Strings CopiesInTmp() {
  const std::string prefix = std::to_string(getpid()) + "_";
  Strings found;
  for (const auto &entry : fs::directory_iterator("/tmp")) {
    if (entry.path().filename().string().rfind(prefix, 0) == 0) {
      found.push_back(entry.path());
    }
  }
  return found;
}

const PluginEntryTable *const kUntouched = reinterpret_cast<const PluginEntryTable *>(0x5a5a);

class PluginFileTest : public kest_test::TempDirFixture {
protected:
  void SetUp() override {
    kest_test::InstallHooks();
    TempDirFixture::SetUp();
    dlerror();
  }
  void TearDown() override {
    EXPECT_EQ(CopiesInTmp(), Strings{}) << "an unscrambled copy was left behind";
    TempDirFixture::TearDown();
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
  }

  // Fails the loader's nth allocation when `fail_nth` is not 0.
  Strings Scan(const std::string &path, long fail_nth = 0) {
    const oru::fdt::string name(path.c_str());
    oru::List<oru::fdt::string> list;
    kest_test::FailNthAllocation(fail_nth);
    EXPECT_TRUE(PluginFile::ScanDirectory(name, list));
    Strings out;
    for (auto it = list.begin(); it != list.end(); ++it) {
      out.emplace_back(it->c_str());
    }
    return out;
  }

  void *Open(const std::string &path, const PluginEntryTable **entry,
             CopyMode mode = CopyMode::kSharedTmp) {
    return PluginFile::Open(oru::fdt::string(path.c_str()), entry, mode);
  }
};

TEST_F(PluginFileTest, ScanListsPlgFilesOfAnyCaseInAlphasortOrder) {
  for (const char *name : {"c.txt", "a.plg", "UPPER.PLG", ".plg", "B.plg", "a.plgx"}) {
    std::ofstream(dir + "/" + name) << "x";
  }
  EXPECT_EQ(Scan(dir), (Strings{dir + "/B.plg", dir + "/UPPER.PLG", dir + "/a.plg"}));
  EXPECT_EQ(Scan(dir + "/"), (Strings{dir + "//B.plg", dir + "//UPPER.PLG", dir + "//a.plg"}));
  // An entry whose string cannot be had is dropped; the others still come.
  EXPECT_EQ(Scan(dir, 1), (Strings{dir + "/UPPER.PLG", dir + "/a.plg"}));
  oru::List<oru::fdt::string> list;
  EXPECT_FALSE(PluginFile::ScanDirectory(oru::fdt::string((dir + "/missing").c_str()), list));
  EXPECT_TRUE(list.empty());
}

TEST_F(PluginFileTest, MissingQueryIsReported) {
  const std::string path = dir + "/noquery.plg";
  WritePlugin(path, ReadFile(KEST_TEST_NOQUERY_PLUGIN));
  const PluginEntryTable *entry = kUntouched;
  EXPECT_EQ(Open(path, &entry), nullptr);
  EXPECT_EQ(entry, kUntouched);
  EXPECT_EQ(kest_test::TakePrinted(), "No query symbol found in plugin " + path);
}

// Each failed load prints its own line, then the opener's line, whose dlerror
// text has been taken by then and prints as the test hooks print null.
TEST_F(PluginFileTest, FailedLoadsPrintTwoLines) {
  WritePlugin(dir + "/empty.plg", {});
  // A directory reads as an error, never as an end; the copy must stop anyway.
  fs::create_directory(dir + "/dir.plg");
  // The slash pass stops short by the length of the process number and "_",
  // so a one-letter name keeps its slash and its copy cannot be created.
  WritePlugin(dir + "/x", ReadFile(KEST_TEST_QUERY_PLUGIN));
  // The hardened copies fail the same way; the private ones go under `dir`.
  kest_test::ScopedEnv env("TMPDIR", dir.c_str());
  const struct {
    const char *name;
    std::string first_line;
    CopyMode mode = CopyMode::kSharedTmp;
  } rows[] = {
      {"missing.plg", "library open failed"},
      {"empty.plg", "dlopen failed " + CopyName(dir + "/empty.plg")},
      {"dir.plg", "dlopen failed " + CopyName(dir + "/dir.plg")},
      {"x", "library read failed"},
      {"missing.plg", "library open failed", CopyMode::kMemfd},
      {"empty.plg", "dlopen failed /proc/self/fd/", CopyMode::kMemfd},
      {"empty.plg", "dlopen failed " + dir + "/kest-plugin-", CopyMode::kPrivate},
  };
  for (const auto &row : rows) {
    const PluginEntryTable *entry = kUntouched;
    EXPECT_EQ(Open(dir + "/" + row.name, &entry, row.mode), nullptr) << row.name;
    EXPECT_EQ(entry, kUntouched);
    const std::string printed = kest_test::TakePrinted();
    const size_t end = printed.find('\n');
    ASSERT_NE(end, std::string::npos) << printed;
    EXPECT_EQ(printed.substr(end), "\nerror (null) opening lib\n") << row.name;
    EXPECT_EQ(printed.substr(0, row.first_line.size()), row.first_line) << row.name;
  }
  for (const auto &entry : fs::directory_iterator(dir)) {
    EXPECT_NE(entry.path().filename().string().rfind("kest-plugin-", 0), 0u) << entry.path();
  }
}

TEST_F(PluginFileTest, CopyModeComesFromTheEnvironment) {
  const struct {
    const char *value;
    CopyMode mode;
    std::string printed;
  } rows[] = {
      {nullptr, CopyMode::kSharedTmp, ""},
      {"", CopyMode::kSharedTmp, ""},
      {"memfd", CopyMode::kMemfd, ""},
      {"private", CopyMode::kPrivate, ""},
      // A misspelt request for a hardened copy gets one, never the shared name.
      {"MEMFD", CopyMode::kPrivate, "unknown KEST_PLUGIN_COPY value MEMFD, using private\n"},
  };
  for (const auto &row : rows) {
    kest_test::ScopedEnv env("KEST_PLUGIN_COPY", row.value);
    EXPECT_EQ(PluginFile::CopyModeFromEnvironment(), row.mode) << (row.value ? row.value : "unset");
    EXPECT_EQ(kest_test::TakePrinted(), row.printed);
  }
}

// Each mode loads the plain bytes (lengths that end on and inside the key's
// period and the copy's blocks) and gives query's table. A link planted at
// the name of the default copy, pointing at a file of the attacker's choice,
// is written through and loaded by the default copy only. The plug-ins stay
// open at once, so that a name the loader uses again (a descriptor number, a
// directory) cannot hand back an earlier object.
TEST_F(PluginFileTest, EveryModeLoadsThePlainBytesAndHardenedOnesLeaveNothing) {
  const std::string private_root = dir + "/private";
  fs::create_directory(private_root);
  kest_test::ScopedEnv env("TMPDIR", private_root.c_str());
  const Bytes object = ReadFile(KEST_TEST_QUERY_PLUGIN);
  const size_t lengths[] = {object.size() / 1024 * 1024 + 1024,
                            object.size() + 16 - object.size() % 16,
                            object.size() + 23 - object.size() % 16};
  const struct {
    CopyMode mode;
    std::string loaded_prefix;
    unsigned file_mode; // of the copy and its directory while loaded; 0: not checked
    unsigned dir_mode;
    bool through_trap;
  } rows[] = {
      {CopyMode::kSharedTmp, "/tmp/" + std::to_string(getpid()) + "_", 0, 0, true},
      {CopyMode::kMemfd, "/proc/self/fd/", 0, 0, false},
      {CopyMode::kPrivate, private_root + "/kest-plugin-", 0600, 0700, false},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.loaded_prefix);
    const std::string victim = dir + "/victim";
    kest_test::WriteFile(victim, {});
    void *handles[3] = {};
    Bytes plain[3];
    for (int i = 0; i < 3; ++i) {
      plain[i] = object;
      plain[i].resize(lengths[i], 0xa5);
      const std::string path = dir + "/copy" + std::to_string(i) + ".plg";
      WritePlugin(path, plain[i]);
      if (i == 0) {
        fs::create_symlink(victim, CopyName(path));
      }
      const PluginEntryTable *entry = nullptr;
      handles[i] = Open(path, &entry, row.mode);
      ASSERT_NE(handles[i], nullptr) << kest_test::TakePrinted();
      EXPECT_EQ(static_cast<const void *>(entry), dlsym(handles[i], "kest_test_table"));
      EXPECT_TRUE(i == 0 || handles[i] != handles[i - 1]);
    }
    for (int i = 0; i < 3; ++i) {
      auto loaded_from =
          reinterpret_cast<const char *(*)()>(dlsym(handles[i], "kest_test_loaded_from"));
      auto loaded =
          reinterpret_cast<const char *(*)(size_t *)>(dlsym(handles[i], "kest_test_loaded_bytes"));
      auto modes = reinterpret_cast<void (*)(unsigned *, unsigned *)>(
          dlsym(handles[i], "kest_test_loaded_modes"));
      EXPECT_EQ(std::string(loaded_from()).rfind(row.loaded_prefix, 0), 0u) << loaded_from();
      if (row.mode == CopyMode::kSharedTmp && i > 0) {
        EXPECT_EQ(loaded_from(), CopyName(dir + "/copy" + std::to_string(i) + ".plg"));
      }
      size_t size = 0;
      const unsigned char *bytes = reinterpret_cast<const unsigned char *>(loaded(&size));
      EXPECT_EQ(Bytes(bytes, bytes + size), plain[i]) << "length " << lengths[i];
      unsigned file_mode = 0, dir_mode = 0;
      modes(&file_mode, &dir_mode);
      if (row.file_mode != 0) {
        EXPECT_EQ(file_mode, row.file_mode);
        EXPECT_EQ(dir_mode, row.dir_mode);
      }
    }
    const std::string trap = CopyName(dir + "/copy0.plg");
    EXPECT_EQ(ReadFile(victim), row.through_trap ? plain[0] : Bytes{});
    EXPECT_EQ(fs::is_symlink(fs::symlink_status(trap)), !row.through_trap);
    fs::remove(trap);
    EXPECT_TRUE(fs::is_empty(private_root)) << "a private directory was left behind";
    for (void *handle : handles) {
      PluginFile::Close(handle);
    }
    EXPECT_EQ(kest_test::TakePrinted(), "");
  }
}

} // namespace
