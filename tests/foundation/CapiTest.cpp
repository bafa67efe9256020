#include "LeakCheck.h"

#include <gtest/gtest.h>
#include <kest.h>
#include <kest/capi.h>

#include <string>
#include <vector>

namespace {

int g_memcmp_calls;
int (*g_real_memcmp)(const void *, const void *, size_t);
int CountingMemcmp(const void *a, const void *b, size_t n) {
  ++g_memcmp_calls;
  return g_real_memcmp(a, b, n);
}

using CapiTest = kest_test::LeakCheck;

// Haystack and needle live in buffers of exactly their length, so that a read
// past either end shows under AddressSanitizer.
TEST_F(CapiTest, MemmemFindsTheFirstFullMatch) {
  struct Row {
    std::string haystack, needle;
    long expected; // offset of the match, -1 for none
  };
  const Row rows[] = {
      {"abcdef", "abcdef", 0}, {"abcde", "abcdef", -1},
      {"abababac", "abac", 4}, {"aaaaaab", "aab", 4},
      {"xxxxab", "ab", 4},     {"abxxab", "ab", 0},
      {"abcdef", "f", 5},      {"abc", "cd", -1},
      {"abcdef", "xyz", -1},   {std::string("a\0b\0c", 5), std::string("\0c", 2), 3},
      {"", "a", -1},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.haystack + " / " + row.needle);
    const std::vector<char> hay(row.haystack.begin(), row.haystack.end());
    const std::vector<char> pin(row.needle.begin(), row.needle.end());
    // An empty vector may have no storage; point somewhere valid instead.
    const char *hay_data = hay.empty() ? row.haystack.c_str() : hay.data();
    const void *found = oru::capi::memmem(hay_data, hay.size(), pin.data(), pin.size());
    if (row.expected < 0) {
      EXPECT_EQ(found, nullptr);
    } else {
      EXPECT_EQ(found, hay_data + row.expected);
    }
  }
  // Null pointers and empty needles find nothing.
  const char hay[] = "abc";
  EXPECT_EQ(oru::capi::memmem(nullptr, 3, "a", 1), nullptr);
  EXPECT_EQ(oru::capi::memmem(hay, 3, nullptr, 1), nullptr);
  EXPECT_EQ(oru::capi::memmem(hay, 3, "a", 0), nullptr);
}

TEST_F(CapiTest, MemmemConfirmsOnlyFirstByteMatchesThroughTheHook) {
  g_real_memcmp = kest_memcmp;
  kest_memcmp = CountingMemcmp;
  g_memcmp_calls = 0;
  const char hay[] = "xxaxxaxab";
  EXPECT_EQ(oru::capi::memmem(hay, 9, "ab", 2), hay + 7);
  EXPECT_EQ(g_memcmp_calls, 3);
  kest_memcmp = g_real_memcmp;
}

} // namespace
