#include "TestHooks.h"
#include "plugins/PluginFile.h"

#include <algorithm>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <kest/PluginScramble.h>
#include <stdlib.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;
using oru::PluginEntryTable;
using oru::PluginFile;

Bytes ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string &path, const Bytes &bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char *>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

Bytes Scrambled(Bytes bytes) {
  oru::ScrambleBlock(bytes.data(), bytes.size(), 0);
  return bytes;
}

// Files in /tmp whose names start with this process's number and "_": the
// loader's copies.
std::vector<std::string> CopiesInTmp() {
  const std::string prefix = std::to_string(getpid()) + "_";
  std::vector<std::string> found;
  for (const auto &entry : fs::directory_iterator("/tmp")) {
    const std::string name = entry.path().filename().string();
    if (name.compare(0, prefix.size(), prefix) == 0) {
      found.push_back(name);
    }
  }
  return found;
}

std::vector<std::string> ToVector(const oru::List<oru::fdt::string> &list) {
  std::vector<std::string> out;
  for (auto it = list.begin(); it != list.end(); ++it) {
    out.emplace_back(it->c_str());
  }
  return out;
}

class PluginFileTest : public ::testing::Test {
protected:
  void SetUp() override {
    kest_test::InstallHooks();
    char pattern[] = "/tmp/kest-plugin-file-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
    dlerror();
    kest_test::TakePrinted();
  }

  void TearDown() override {
    kest_test::FailAllAllocations(false);
    EXPECT_EQ(CopiesInTmp(), std::vector<std::string>{}) << "an unscrambled copy was left behind";
    fs::remove_all(dir);
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
  }

  // Writes `plain` scrambled as dir/name and returns the path.
  std::string AddPlugin(const std::string &name, const Bytes &plain) {
    const std::string path = dir + "/" + name;
    WriteFile(path, Scrambled(plain));
    return path;
  }

  std::string dir;
};

const PluginEntryTable *const kUntouched = reinterpret_cast<const PluginEntryTable *>(0x5a5a);

// --- The file form ---------------------------------------------------------

TEST(PluginScrambleTest, ZerosScrambleToTheRepeatedKey) {
  Bytes zeros(40, 0);
  oru::ScrambleBlock(zeros.data(), zeros.size(), 0);
  const unsigned char key[] = {0x5a, 0xc3, 0x19, 0xe7, 0x2b, 0x90, 0x7d, 0x44,
                               0xf1, 0x06, 0xb8, 0x3e, 0xa2, 0x6c, 0xd5, 0x18};
  for (size_t i = 0; i < zeros.size(); ++i) {
    EXPECT_EQ(zeros[i], key[i % 16]) << "byte " << i;
  }
}

// The loader restarts the key at every 1024-byte block, the tool carries the
// position across its own blocks; both must agree with one pass over the whole
// file, and a second pass must give the input back, whatever the length.
TEST(PluginScrambleTest, BlockwiseAndWholeAgreeAndTwiceIsIdentity) {
  for (size_t length : {0u, 1u, 15u, 16u, 17u, 1023u, 1024u, 1025u, 2048u, 3001u}) {
    Bytes plain(length);
    for (size_t i = 0; i < length; ++i) {
      plain[i] = static_cast<unsigned char>(i * 7 + 3);
    }
    const Bytes whole = Scrambled(plain);

    Bytes by_block = plain;
    for (size_t at = 0; at < length; at += 1024) {
      oru::ScrambleBlock(by_block.data() + at, std::min<size_t>(1024, length - at), 0);
    }
    Bytes by_odd_chunk = plain;
    for (size_t at = 0; at < length; at += 7) {
      oru::ScrambleBlock(by_odd_chunk.data() + at, std::min<size_t>(7, length - at), at);
    }

    EXPECT_EQ(by_block, whole) << "length " << length;
    EXPECT_EQ(by_odd_chunk, whole) << "length " << length;
    EXPECT_EQ(Scrambled(whole), plain) << "length " << length;
    if (length >= 16) {
      EXPECT_NE(whole, plain);
    }
  }
}

// --- Scanning --------------------------------------------------------------

class PluginScanTest : public PluginFileTest {
protected:
  void SetUp() override {
    PluginFileTest::SetUp();
    for (const char *name : {"c.txt", "a.plg", "UPPER.PLG", ".plg", "B.plg", "a.plgx", "xplg"}) {
      WriteFile(dir + "/" + name, Bytes{1, 2, 3});
    }
  }
};

TEST_F(PluginScanTest, ListsPlgFilesOfAnyCaseInAlphasortOrder) {
  oru::List<oru::fdt::string> list;
  ASSERT_TRUE(PluginFile::ScanDirectory(oru::fdt::string(dir.c_str()), list));
  EXPECT_EQ(ToVector(list),
            (std::vector<std::string>{dir + "/B.plg", dir + "/UPPER.PLG", dir + "/a.plg"}));
}

TEST_F(PluginScanTest, AppendsBehindExistingEntriesAndAlwaysAddsTheSlash) {
  oru::List<oru::fdt::string> list;
  ASSERT_NE(list.push_back(oru::fdt::string("first")), list.end());
  ASSERT_TRUE(PluginFile::ScanDirectory(oru::fdt::string((dir + "/").c_str()), list));
  EXPECT_EQ(ToVector(list), (std::vector<std::string>{"first", dir + "//B.plg", dir + "//UPPER.PLG",
                                                      dir + "//a.plg"}));
}

TEST_F(PluginScanTest, EntryWithoutMemoryIsDroppedAndTheRestListed) {
  const oru::fdt::string path(dir.c_str());
  oru::List<oru::fdt::string> list;
  kest_test::FailNthAllocation(1);
  ASSERT_TRUE(PluginFile::ScanDirectory(path, list));
  EXPECT_EQ(ToVector(list), (std::vector<std::string>{dir + "/UPPER.PLG", dir + "/a.plg"}));
}

TEST_F(PluginScanTest, NoMemoryAtAllStillReadsTheDirectory) {
  const oru::fdt::string path(dir.c_str());
  oru::List<oru::fdt::string> list;
  kest_test::FailAllAllocations(true);
  EXPECT_TRUE(PluginFile::ScanDirectory(path, list));
  kest_test::FailAllAllocations(false);
  EXPECT_TRUE(list.empty());
}

TEST_F(PluginFileTest, EmptyDirectoryGivesTrueAndNothing) {
  oru::List<oru::fdt::string> list;
  EXPECT_TRUE(PluginFile::ScanDirectory(oru::fdt::string(dir.c_str()), list));
  EXPECT_TRUE(list.empty());
}

TEST_F(PluginFileTest, MissingDirectoryGivesFalse) {
  oru::List<oru::fdt::string> list;
  EXPECT_FALSE(PluginFile::ScanDirectory(oru::fdt::string((dir + "/missing").c_str()), list));
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(kest_test::TakePrinted(), "");
}

// --- Loading ---------------------------------------------------------------

TEST_F(PluginFileTest, OpenGivesHandleAndTheTableOfQuery) {
  const std::string path = AddPlugin("query.plg", ReadFile(KEST_TEST_QUERY_PLUGIN));
  const PluginEntryTable *entry = nullptr;
  void *handle = PluginFile::Open(oru::fdt::string(path.c_str()), &entry);
  ASSERT_NE(handle, nullptr) << kest_test::TakePrinted();
  EXPECT_EQ(static_cast<const void *>(entry), dlsym(handle, "kest_test_table"));
  EXPECT_STREQ(reinterpret_cast<const char *>(entry), "kest test plug-in");
  EXPECT_EQ(CopiesInTmp(), std::vector<std::string>{});
  PluginFile::Close(handle);
  EXPECT_EQ(kest_test::TakePrinted(), "");
}

// The plug-in records the file it was loaded from, so the copy the loader
// wrote can be checked: its name, and every byte, for lengths that end inside
// a key period and inside a block as well as on their bounds.
TEST_F(PluginFileTest, CopyHoldsThePlainBytesUnderTheProcessName) {
  const Bytes object = ReadFile(KEST_TEST_QUERY_PLUGIN);
  ASSERT_GT(object.size(), 2048u);
  struct Row {
    const char *name;
    size_t modulus;
    size_t remainder;
  };
  const Row rows[] = {
      {"ends-on-block.plg", 1024, 0},  {"ends-on-key.plg", 1024, 512},
      {"ends-in-key.plg", 16, 7},      {"one-short-of-block.plg", 1024, 1023},
      {"one-past-block.plg", 1024, 1},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    Bytes plain = object;
    while (plain.size() % row.modulus != row.remainder) {
      plain.push_back(static_cast<unsigned char>(plain.size()));
    }
    const std::string path = AddPlugin(row.name, plain);

    const PluginEntryTable *entry = nullptr;
    void *handle = PluginFile::Open(oru::fdt::string(path.c_str()), &entry);
    ASSERT_NE(handle, nullptr) << kest_test::TakePrinted();

    auto loaded_from = reinterpret_cast<const char *(*)()>(dlsym(handle, "kest_test_loaded_from"));
    auto loaded_bytes =
        reinterpret_cast<const char *(*)(size_t *)>(dlsym(handle, "kest_test_loaded_bytes"));
    ASSERT_NE(loaded_from, nullptr);
    ASSERT_NE(loaded_bytes, nullptr);
    std::string flattened = path;
    for (char &c : flattened) {
      c = c == '/' ? '_' : c;
    }
    EXPECT_EQ(std::string(loaded_from()), "/tmp/" + std::to_string(getpid()) + "_" + flattened);
    size_t size = 0;
    const char *bytes = loaded_bytes(&size);
    EXPECT_EQ(size, plain.size());
    ASSERT_EQ(size, plain.size());
    size_t first_difference = 0;
    while (first_difference < size &&
           static_cast<unsigned char>(bytes[first_difference]) == plain[first_difference]) {
      ++first_difference;
    }
    EXPECT_EQ(first_difference, size) << "first byte that differs";
    PluginFile::Close(handle);
  }
  EXPECT_EQ(kest_test::TakePrinted(), "");
}

TEST_F(PluginFileTest, MissingQueryIsReportedAndTheLibraryClosed) {
  const std::string path = AddPlugin("noquery.plg", ReadFile(KEST_TEST_NOQUERY_PLUGIN));
  const PluginEntryTable *entry = kUntouched;
  EXPECT_EQ(PluginFile::Open(oru::fdt::string(path.c_str()), &entry), nullptr);
  EXPECT_EQ(entry, kUntouched);
  EXPECT_EQ(kest_test::TakePrinted(), "No query symbol found in plugin " + path);
}

// The failure lines as the test hooks print them; the loader's own dlerror
// call has taken the text by the time of the second line, which reads null.
struct LoadFailure {
  const char *what;
  std::string name; // file in the test directory
  Bytes content;    // written scrambled; a directory is made when `is_dir`
  bool is_dir;
  std::string expected; // "%s" marks where dlopen's text goes
};

TEST_F(PluginFileTest, LoadFailuresPrintBothLines) {
  const Bytes object = ReadFile(KEST_TEST_QUERY_PLUGIN);
  const LoadFailure rows[] = {
      {"missing file", "missing.plg", {}, false, "library open failed\nerror (null) opening lib\n"},
      {"empty file", "empty.plg", {}, false, "dlopen failed %s\nerror (null) opening lib\n"},
      {"not an object", "text.plg", Bytes(100, 'x'), false,
       "dlopen failed %s\nerror (null) opening lib\n"},
      // Read errors end the copy instead of spinning on an end that never comes.
      {"directory", "dir.plg", {}, true, "dlopen failed %s\nerror (null) opening lib\n"},
      // The slash pass stops short by the length of the process number and its
      // "_", so a one-letter name keeps its slash and the copy cannot be made.
      {"very short name", "x", object, false, "library read failed\nerror (null) opening lib\n"},
  };
  for (const LoadFailure &row : rows) {
    SCOPED_TRACE(row.what);
    const std::string path = dir + "/" + row.name;
    if (row.is_dir) {
      fs::create_directory(path);
    } else if (row.name != "missing.plg") {
      AddPlugin(row.name, row.content);
    }
    const PluginEntryTable *entry = kUntouched;
    EXPECT_EQ(PluginFile::Open(oru::fdt::string(path.c_str()), &entry), nullptr);
    EXPECT_EQ(entry, kUntouched);

    const std::string printed = kest_test::TakePrinted();
    const size_t mark = row.expected.find("%s");
    if (mark == std::string::npos) {
      EXPECT_EQ(printed, row.expected);
      continue;
    }
    // dlopen names the copy it could not load.
    const std::string head = row.expected.substr(0, mark) + "/tmp/" + std::to_string(getpid());
    const std::string tail = row.expected.substr(mark + 2);
    ASSERT_GT(printed.size(), head.size() + tail.size()) << printed;
    EXPECT_EQ(printed.substr(0, head.size()), head) << printed;
    EXPECT_EQ(printed.substr(printed.size() - tail.size()), tail) << printed;
    EXPECT_EQ(printed.find('\n'), printed.size() - tail.size()) << "two lines: " << printed;
  }
}

// The same path loads under the same copy name; the loader lock keeps one
// thread from removing or overwriting the copy another is loading.
TEST_F(PluginFileTest, ThreadsLoadingOneFileDoNotDisturbEachOther) {
  const std::string path = AddPlugin("shared.plg", ReadFile(KEST_TEST_QUERY_PLUGIN));
  constexpr int kThreads = 4;
  constexpr int kRounds = 10;
  int loaded[kThreads] = {};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&path, &loaded, t] {
      for (int round = 0; round < kRounds; ++round) {
        const oru::fdt::string name(path.c_str());
        const PluginEntryTable *entry = nullptr;
        void *handle = PluginFile::Open(name, &entry);
        if (handle != nullptr && entry != nullptr) {
          ++loaded[t];
          PluginFile::Close(handle);
        }
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(loaded[t], kRounds) << "thread " << t;
  }
  EXPECT_EQ(kest_test::TakePrinted(), "");
}

} // namespace
