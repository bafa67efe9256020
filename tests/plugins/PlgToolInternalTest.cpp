// The kest-plg tool, run as a program. It sits with the internal tests to
// compare its output with the loader's scrambling step.
#include "TempDir.h"

#include <algorithm>
#include <kest/PluginScramble.h>
#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;
using kest_test::Bytes;
using kest_test::ReadFile;
using kest_test::WriteFile;

std::vector<std::string> Listing(const fs::path &dir) {
  std::vector<std::string> names;
  for (const auto &entry : fs::directory_iterator(dir)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

class PlgToolTest : public kest_test::TempDirFixture {
protected:
  void SetUp() override {
    TempDirFixture::SetUp();
    work = fs::path(dir) / "work";
    fs::create_directory(work);
  }

  // Runs the tool in the work directory with plain (unquoted) arguments; the
  // exit code, with standard error in `err`.
  int Tool(const std::string &args) {
    const std::string command = "cd " + work.string() + " && " + KEST_PLG_TOOL + " " + args + " >" +
                                dir + "/out 2>" + dir + "/err";
    const int status = std::system(command.c_str());
    const Bytes text = ReadFile(dir + "/err");
    err.assign(text.begin(), text.end());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  fs::path work;
  std::string err;
};

TEST_F(PlgToolTest, BadArgumentsAndFailuresExitWithoutOutput) {
  WriteFile(work / "in", Bytes(100, 7));
  WriteFile(work / "old", Bytes{9, 9});
  fs::create_directory(work / "adir");
  const char *usage = "usage: kest-plg [pack|unpack] INPUT OUTPUT\n";
  const struct {
    const char *args;
    int code;
    std::string err;
  } rows[] = {
      {"", 2, usage},
      {"pack in", 2, usage},
      {"copy in out", 2, usage},
      {"in out extra", 2, usage},
      {"-x in out", 2, std::string("kest-plg: unknown option -x\n") + usage},
      {"missing out", 1, "kest-plg: cannot open missing: No such file or directory\n"},
      {"in nodir/out", 1, "kest-plg: cannot create nodir/out: No such file or directory\n"},
      // A failure after the output was started leaves an old output as it was.
      {"adir old", 1, "kest-plg: cannot read adir: Is a directory\n"},
      {"in adir", 1, "kest-plg: cannot write adir: not a regular file\n"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.args);
    EXPECT_EQ(Tool(row.args), row.code);
    EXPECT_EQ(err.substr(0, row.err.size()), row.err);
    EXPECT_EQ(Listing(work), (std::vector<std::string>{"adir", "in", "old"}));
    EXPECT_EQ(ReadFile(work / "old"), (Bytes{9, 9}));
  }
}

TEST_F(PlgToolTest, PackScramblesWithTheKeyAndUnpackRestores) {
  WriteFile(work / "zeros", Bytes(16, 0));
  ASSERT_EQ(Tool("zeros key"), 0);
  EXPECT_EQ(ReadFile(work / "key"), (Bytes{0x5a, 0xc3, 0x19, 0xe7, 0x2b, 0x90, 0x7d, 0x44, 0xf1,
                                           0x06, 0xb8, 0x3e, 0xa2, 0x6c, 0xd5, 0x18}));
  // Lengths around the key period and the tool's own read size.
  for (size_t length : {0u, 17u, 1030u, 65547u}) {
    Bytes plain(length);
    for (size_t i = 0; i < length; ++i) {
      plain[i] = static_cast<unsigned char>(i * 31 + i / 256);
    }
    WriteFile(work / "lib.so", plain);
    Bytes scrambled = plain;
    oru::ScrambleBlock(scrambled.data(), scrambled.size(), 0);

    ASSERT_EQ(Tool("pack lib.so lib.plg"), 0) << err;
    EXPECT_EQ(ReadFile(work / "lib.plg"), scrambled) << "length " << length;
    ASSERT_EQ(Tool("unpack lib.plg lib.plg"), 0) << err;
    EXPECT_EQ(ReadFile(work / "lib.plg"), plain) << "in place, length " << length;
  }
}

} // namespace
