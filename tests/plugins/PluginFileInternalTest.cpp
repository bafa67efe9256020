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

  void *Open(const std::string &path, const PluginEntryTable **entry) {
    return PluginFile::Open(oru::fdt::string(path.c_str()), entry);
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

TEST_F(PluginFileTest, OpenGivesHandleAndTheTableOfQuery) {
  WritePlugin(dir + "/query.plg", ReadFile(KEST_TEST_QUERY_PLUGIN));
  const PluginEntryTable *entry = nullptr;
  void *handle = Open(dir + "/query.plg", &entry);
  ASSERT_NE(handle, nullptr) << kest_test::TakePrinted();
  EXPECT_EQ(static_cast<const void *>(entry), dlsym(handle, "kest_test_table"));
  EXPECT_EQ(CopiesInTmp(), Strings{});
  PluginFile::Close(handle);
  EXPECT_EQ(kest_test::TakePrinted(), "");
}

// The test plug-in keeps the name and bytes of the file it was loaded from, so
// the copy can be checked for lengths that end on and inside key periods and
// blocks.
TEST_F(PluginFileTest, CopyHoldsThePlainBytesUnderTheProcessName) {
  const Bytes object = ReadFile(KEST_TEST_QUERY_PLUGIN);
  for (size_t length : {object.size() / 1024 * 1024 + 1024, object.size() + 16 - object.size() % 16,
                        object.size() + 23 - object.size() % 16}) {
    Bytes plain = object;
    plain.resize(length, 0xa5);
    const std::string path = dir + "/len" + std::to_string(length) + ".plg";
    WritePlugin(path, plain);
    const PluginEntryTable *entry = nullptr;
    void *handle = Open(path, &entry);
    ASSERT_NE(handle, nullptr) << kest_test::TakePrinted();

    auto loaded_from = reinterpret_cast<const char *(*)()>(dlsym(handle, "kest_test_loaded_from"));
    auto loaded =
        reinterpret_cast<const char *(*)(size_t *)>(dlsym(handle, "kest_test_loaded_bytes"));
    EXPECT_EQ(loaded_from(), CopyName(path));
    size_t size = 0;
    const unsigned char *bytes = reinterpret_cast<const unsigned char *>(loaded(&size));
    EXPECT_EQ(Bytes(bytes, bytes + size), plain) << "length " << length;
    PluginFile::Close(handle);
  }
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
  const struct {
    const char *name;
    std::string first_line;
  } rows[] = {
      {"missing.plg", "library open failed"},
      {"empty.plg", "dlopen failed " + CopyName(dir + "/empty.plg")},
      {"dir.plg", "dlopen failed " + CopyName(dir + "/dir.plg")},
      {"x", "library read failed"},
  };
  for (const auto &row : rows) {
    const PluginEntryTable *entry = kUntouched;
    EXPECT_EQ(Open(dir + "/" + row.name, &entry), nullptr) << row.name;
    EXPECT_EQ(entry, kUntouched);
    const std::string printed = kest_test::TakePrinted();
    const size_t end = printed.find('\n');
    ASSERT_NE(end, std::string::npos) << printed;
    EXPECT_EQ(printed.substr(end), "\nerror (null) opening lib\n") << row.name;
    EXPECT_EQ(printed.substr(0, row.first_line.size()), row.first_line) << row.name;
  }
}

} // namespace
