// The kest-plg tool, run as a program. It lives with the internal tests
// because it checks the tool's output against the loader's scrambling step and
// loads a packed file through the loader.
#include "TestHooks.h"
#include "plugins/PluginFile.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <kest/PluginScramble.h>
#include <stdlib.h>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

Bytes ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string ReadText(const std::string &path) {
  const Bytes bytes = ReadFile(path);
  return std::string(bytes.begin(), bytes.end());
}

void WriteFile(const std::string &path, const Bytes &bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char *>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

std::vector<std::string> Listing(const std::string &dir) {
  std::vector<std::string> names;
  for (const auto &entry : fs::directory_iterator(dir)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

struct ToolRun {
  int code;
  std::string out;
  std::string err;
};

class PlgToolTest : public ::testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/tmp/kest-plg-tool-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
    work = dir + "/work";
    fs::create_directory(work);
  }
  void TearDown() override { fs::remove_all(dir); }

  // Runs the tool with `args` (no quoting: the tests use plain names) inside
  // the work directory; its output is caught beside it.
  ToolRun Tool(const std::string &args) {
    const std::string command = "cd " + work + " && " + KEST_PLG_TOOL + " " + args + " >" + dir +
                                "/stdout 2>" + dir + "/stderr";
    const int status = std::system(command.c_str());
    EXPECT_TRUE(WIFEXITED(status)) << command;
    return ToolRun{WEXITSTATUS(status), ReadText(dir + "/stdout"), ReadText(dir + "/stderr")};
  }

  std::string dir;
  std::string work;
};

TEST_F(PlgToolTest, WrongArgumentsPrintUsageAndExitTwo) {
  WriteFile(work + "/in", Bytes{1, 2, 3});
  for (const char *args : {"", "in", "copy in out", "pack in", "pack in out extra", "in out extra",
                           "-x in out", "pack --force in out"}) {
    SCOPED_TRACE(args);
    const ToolRun run = Tool(args);
    EXPECT_EQ(run.code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("usage: kest-plg [pack|unpack] INPUT OUTPUT\n"), std::string::npos);
    EXPECT_EQ(Listing(work), std::vector<std::string>{"in"}) << "no output may appear";
  }
}

TEST_F(PlgToolTest, HelpGoesToStandardOutput) {
  const ToolRun run = Tool("--help");
  EXPECT_EQ(run.code, 0);
  EXPECT_EQ(run.out.rfind("usage: kest-plg [pack|unpack] INPUT OUTPUT\n", 0), 0u);
  EXPECT_EQ(run.err, "");
}

TEST_F(PlgToolTest, FailuresNameTheFileAndTheReasonAndLeaveNoOutput) {
  WriteFile(work + "/in", Bytes(5000, 7));
  WriteFile(work + "/old", Bytes{9, 9});
  fs::create_directory(work + "/adir");
  struct Row {
    const char *args;
    const char *message;
  };
  const Row rows[] = {
      {"missing out", "kest-plg: cannot open missing: No such file or directory\n"},
      {"in nodir/out", "kest-plg: cannot create nodir/out: No such file or directory\n"},
      {"adir out", "kest-plg: cannot read adir: Is a directory\n"},
      // An output that exists stays as it was when the input fails.
      {"adir old", "kest-plg: cannot read adir: Is a directory\n"},
      {"in adir", "kest-plg: cannot write adir: not a regular file\n"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.args);
    const ToolRun run = Tool(row.args);
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.err, row.message);
    EXPECT_EQ(Listing(work), (std::vector<std::string>{"adir", "in", "old"}));
    EXPECT_TRUE(fs::is_empty(work + "/adir"));
    EXPECT_EQ(ReadFile(work + "/old"), (Bytes{9, 9}));
  }
}

// Lengths around the key period, the loader's block and the tool's own block.
TEST_F(PlgToolTest, PackMatchesTheLoaderAndUnpackGivesTheOriginal) {
  for (size_t length : {0u, 1u, 15u, 17u, 1024u, 1030u, 65536u, 65547u, 200001u}) {
    SCOPED_TRACE(length);
    Bytes plain(length);
    for (size_t i = 0; i < length; ++i) {
      plain[i] = static_cast<unsigned char>(i * 31 + i / 256);
    }
    WriteFile(work + "/lib.so", plain);
    Bytes expected = plain;
    oru::ScrambleBlock(expected.data(), expected.size(), 0);

    ASSERT_EQ(Tool("pack lib.so lib.plg").code, 0);
    EXPECT_EQ(ReadFile(work + "/lib.plg"), expected);
    ASSERT_EQ(Tool("lib.so plain-verb.plg").code, 0);
    EXPECT_EQ(ReadFile(work + "/plain-verb.plg"), expected);
    ASSERT_EQ(Tool("unpack lib.plg back.so").code, 0);
    EXPECT_EQ(ReadFile(work + "/back.so"), plain);
    // In place, twice: the file is replaced whole each time.
    ASSERT_EQ(Tool("back.so back.so").code, 0);
    EXPECT_EQ(ReadFile(work + "/back.so"), expected);
    ASSERT_EQ(Tool("back.so back.so").code, 0);
    EXPECT_EQ(ReadFile(work + "/back.so"), plain);
    EXPECT_EQ(Listing(work),
              (std::vector<std::string>{"back.so", "lib.plg", "lib.so", "plain-verb.plg"}));
  }
}

TEST_F(PlgToolTest, PackedPluginLoads) {
  kest_test::InstallHooks();
  ASSERT_EQ(Tool(std::string("pack ") + KEST_TEST_QUERY_PLUGIN + " query.plg").code, 0);
  const oru::fdt::string path((work + "/query.plg").c_str());
  const oru::PluginEntryTable *entry = nullptr;
  void *handle = oru::PluginFile::Open(path, &entry);
  ASSERT_NE(handle, nullptr) << kest_test::TakePrinted();
  EXPECT_STREQ(reinterpret_cast<const char *>(entry), "kest test plug-in");
  oru::PluginFile::Close(handle);
}

} // namespace
