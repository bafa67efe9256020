#include "LeakCheck.h"

#include <gtest/gtest.h>
#include <kest/fdt/basic_string.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using kest_test::Heap;
using Sizes = std::vector<size_t>;
using oru::fdt::shared_string;
using oru::fdt::string;

// The three words of a string, in field order.
struct Words {
  char *begin, *end, *limit;
};

template <class S> Words ReadWords(const S &s) {
  Words words;
  std::memcpy(&words, static_cast<const void *>(&s), sizeof words);
  return words;
}

template <class S> class BasicStringTest : public kest_test::LeakCheck {
protected:
  static constexpr Heap kHeap = S::allocator_type::is_shared ? Heap::Shared : Heap::Local;
  static Sizes Recorded() { return kest_test::RecordedSizes(kHeap); }
};

using StringTypes = ::testing::Types<string, shared_string>;
TYPED_TEST_SUITE(BasicStringTest, StringTypes);

TYPED_TEST(BasicStringTest, BothEmptyStatesReadAsOneEmptyString) {
  TypeParam never;
  TypeParam from_empty("");
  EXPECT_EQ(kest_test::AllocationCount(), 0);
  EXPECT_EQ(never.c_str(), &TypeParam::s_readonly_nul);
  EXPECT_EQ(never.data(), &TypeParam::s_writable_nul);
  EXPECT_NE(&string::s_readonly_nul, &shared_string::s_readonly_nul);
  EXPECT_NE(&string::s_writable_nul, &shared_string::s_writable_nul);

  // Only the terminator stored, as a plug-in may leave a string.
  TypeParam terminated;
  char *block = TypeParam::allocator_type::allocate(16);
  block[0] = '\0';
  const Words words{block, block + 1, block + 16};
  std::memcpy(static_cast<void *>(&terminated), &words, sizeof words);

  for (const TypeParam *s : {&never, &from_empty, &terminated}) {
    EXPECT_EQ(s->size(), 0u);
    EXPECT_TRUE(s->empty());
    EXPECT_EQ(s->c_str(), &TypeParam::s_readonly_nul);
    EXPECT_TRUE(*s == never);
    EXPECT_FALSE(*s < never || never < *s);
  }

  // The first characters go over the terminator, within the block.
  ASSERT_TRUE(terminated.append("xy"));
  EXPECT_STREQ(terminated.c_str(), "xy");
  EXPECT_EQ(ReadWords(terminated).end, block + 3);
  EXPECT_EQ(TypeParam::s_writable_nul, '\0');
}

TYPED_TEST(BasicStringTest, GrowthFollowsTheLadder) {
  TypeParam s;
  std::string expected;
  kest_test::StartRecording();
  for (int i = 0; i < 100; ++i) {
    const char c = static_cast<char>('a' + i % 26);
    ASSERT_TRUE(i % 2 == 0 ? s.push_back(c) : s.append(&c, 1));
    expected += c;
  }
  EXPECT_EQ(this->Recorded(), (Sizes{16, 31, 63, 127}));
  EXPECT_EQ(std::string(s.begin(), s.end()), expected);
  EXPECT_EQ(ReadWords(s).end - ReadWords(s).begin, 101);

  const size_t cases[][2] = {{1, 1}, {5, 7}, {16, 16}, {17, 31}, {32, 32}, {33, 63}, {100, 127}};
  for (const auto &c : cases) {
    TypeParam r;
    kest_test::StartRecording();
    ASSERT_TRUE(r.reserve(c[0]));
    ASSERT_TRUE(r.reserve(c[0] - 1));
    EXPECT_EQ(this->Recorded(), Sizes{c[1]}) << "reserve(" << c[0] << ")";
  }
}

TYPED_TEST(BasicStringTest, FailedAppendLeavesTheString) {
  TypeParam s;
  kest_test::FailNthAllocation(1);
  EXPECT_FALSE(s.append("abc"));
  EXPECT_EQ(ReadWords(s).begin, nullptr);

  ASSERT_TRUE(s.append("hello"));
  const Words before = ReadWords(s);
  kest_test::FailAllAllocations(true);
  EXPECT_FALSE(s.append(std::string(40, 'z').c_str()));
  EXPECT_FALSE(s.reserve(100));
  EXPECT_TRUE(s.push_back('!')); // fits: needs no memory
  kest_test::FailAllAllocations(false);
  EXPECT_EQ(ReadWords(s).begin, before.begin);
  EXPECT_EQ(ReadWords(s).limit, before.limit);
  EXPECT_STREQ(s.c_str(), "hello!");
}

TYPED_TEST(BasicStringTest, AppendOfItselfSurvivesGrowth) {
  TypeParam s("0123456789");
  ASSERT_TRUE(s.append(s));
  ASSERT_TRUE(s.append(s.c_str() + 15, 5));
  EXPECT_STREQ(s.c_str(), "0123456789012345678956789");
}

TYPED_TEST(BasicStringTest, CopyIsDeepAndGoesByteByByteWithoutItsBlock) {
  TypeParam source("hello");
  const TypeParam none;
  kest_test::StartRecording();
  TypeParam copy(source);
  TypeParam none_copy(none);
  EXPECT_EQ(this->Recorded(), Sizes{7});
  source[0] = 'j';
  EXPECT_STREQ(copy.c_str(), "hello");

  // The reserve of 41 bytes fails; the bytes then climb the ladder.
  const std::string text(40, 'q');
  TypeParam long_source(text.c_str());
  kest_test::FailNthAllocation(1);
  kest_test::StartRecording();
  TypeParam long_copy(long_source);
  EXPECT_EQ(this->Recorded(), (Sizes{63, 16, 31, 63}));
  EXPECT_STREQ(long_copy.c_str(), text.c_str());

  // Without memory a copy comes out empty; an assignment that fits the
  // block it has needs none.
  kest_test::FailAllAllocations(true);
  TypeParam starved(long_source);
  copy = long_source;
  long_copy = source;
  kest_test::FailAllAllocations(false);
  EXPECT_STREQ(starved.c_str(), "");
  EXPECT_STREQ(copy.c_str(), "");
  EXPECT_STREQ(long_copy.c_str(), "jello");
  EXPECT_EQ(long_copy.capacity(), 63u);
}

TYPED_TEST(BasicStringTest, ComparisonFollowsStrcmpNotLength) {
  const struct {
    TypeParam a, b;
    int sign;
  } cases[] = {{"abc", "abc", 0}, {"abc", "abd", -1}, {"b", "abcdef", 1},
               {"ab", "abc", -1}, {"", "a", -1},      {TypeParam("ab\0cd", 5), "ab", 0}};
  for (const auto &c : cases) {
    const int r = c.a.compare(c.b);
    EXPECT_EQ((r > 0) - (r < 0), c.sign) << c.a.c_str() << " vs " << c.b.c_str();
    EXPECT_EQ(c.a == c.b, c.sign == 0);
    EXPECT_EQ(c.a != c.b, c.sign != 0);
    EXPECT_EQ(c.a < c.b, c.sign < 0);
    EXPECT_EQ(c.a == c.b.c_str(), c.sign == 0);
  }
  EXPECT_EQ(TypeParam("ab\0cd", 5).size(), 5u);
}

} // namespace
