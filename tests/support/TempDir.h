// A fixture for tests that work on files: a directory of its own under /tmp,
// removed with everything in it after the test, and whole-file reads and
// writes.
#ifndef KEST_TESTS_TEMPDIR_H
#define KEST_TESTS_TEMPDIR_H

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <stdlib.h>
#include <string>
#include <vector>

namespace kest_test {

using Bytes = std::vector<unsigned char>;

inline Bytes ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFile(const std::string &path, const Bytes &bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char *>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

class TempDirFixture : public ::testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/tmp/kest-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(dir); }
  std::string dir;
};

} // namespace kest_test

#endif
