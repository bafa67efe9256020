#include "TestHooks.h"

#include <gtest/gtest.h>
#include <kest/fdt/basic_string.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using kest_test::Heap;
using oru::fdt::shared_string;
using oru::fdt::string;

template <class S> struct HeapOf;
template <> struct HeapOf<string> { static constexpr Heap heap = Heap::Local; };
template <> struct HeapOf<shared_string> { static constexpr Heap heap = Heap::Shared; };

// The three words of a string, in field order.
struct Words {
  char *begin;
  char *end;
  char *limit;
};

template <class S> Words ReadWords(const S &s) {
  Words words;
  std::memcpy(&words, static_cast<const void *>(&s), sizeof words);
  return words;
}

template <class S> void WriteWords(S &s, const Words &words) {
  std::memcpy(static_cast<void *>(&s), &words, sizeof words);
}

std::vector<size_t> Sizes(const std::vector<kest_test::Allocation> &records, Heap heap) {
  std::vector<size_t> sizes;
  for (const kest_test::Allocation &record : records) {
    EXPECT_EQ(record.heap, heap);
    sizes.push_back(record.size);
  }
  return sizes;
}

template <class S> class BasicStringTest : public ::testing::Test {
protected:
  static constexpr Heap kHeap = HeapOf<S>::heap;

  void SetUp() override {
    kest_test::InstallHooks();
    m_live_local = kest_test::LiveBlocks(Heap::Local);
    m_live_shared = kest_test::LiveBlocks(Heap::Shared);
  }
  void TearDown() override {
    kest_test::FailAllAllocations(false);
    kest_test::FailNthAllocation(0);
    EXPECT_EQ(kest_test::LiveBlocks(Heap::Local), m_live_local);
    EXPECT_EQ(kest_test::LiveBlocks(Heap::Shared), m_live_shared);
  }

  // A string that holds only its terminator, in a 16-byte block of the
  // string's own heap: the second empty state, as a plug-in may leave it.
  static void MakeTerminatorOnly(S &s) {
    char *block = S::allocator_type::allocate(16);
    ASSERT_NE(block, nullptr);
    block[0] = '\0';
    WriteWords(s, Words{block, block + 1, block + 16});
  }

  long m_live_local = 0;
  long m_live_shared = 0;
};

using StringTypes = ::testing::Types<string, shared_string>;
TYPED_TEST_SUITE(BasicStringTest, StringTypes);

TYPED_TEST(BasicStringTest, DefaultAndEmptyConstructionAllocateNothing) {
  TypeParam a;
  TypeParam b("");
  TypeParam c("abc", 0);
  TypeParam d(nullptr);
  for (const TypeParam *s : {&a, &b, &c, &d}) {
    EXPECT_EQ(s->size(), 0u);
    EXPECT_TRUE(s->empty());
    EXPECT_EQ(s->capacity(), 0u);
    ASSERT_NE(s->c_str(), nullptr);
    EXPECT_STREQ(s->c_str(), "");
    EXPECT_EQ(s->begin(), s->end());
  }
  EXPECT_TRUE(a.append("", 0));
  EXPECT_EQ(kest_test::AllocationCount(), 0);
}

TYPED_TEST(BasicStringTest, BothEmptyStatesReadAsTheSameEmptyString) {
  TypeParam never;
  TypeParam terminated;
  this->MakeTerminatorOnly(terminated);

  EXPECT_EQ(terminated.size(), 0u);
  EXPECT_EQ(terminated.length(), 0u);
  EXPECT_TRUE(terminated.empty());
  EXPECT_STREQ(terminated.c_str(), "");
  EXPECT_TRUE(never == terminated);
  EXPECT_FALSE(never != terminated);
  EXPECT_FALSE(never < terminated);
  EXPECT_FALSE(terminated < never);
  EXPECT_EQ(terminated.compare(never), 0);
  EXPECT_EQ(never.c_str(), terminated.c_str());

  // Appending to the terminator-only state writes over the terminator and
  // fits the existing block.
  const long before = kest_test::AllocationCount();
  ASSERT_TRUE(terminated.append("xy"));
  EXPECT_EQ(kest_test::AllocationCount(), before);
  EXPECT_STREQ(terminated.c_str(), "xy");
  EXPECT_EQ(terminated.size(), 2u);
  const Words words = ReadWords(terminated);
  EXPECT_EQ(words.end - words.begin, 3);
}

TYPED_TEST(BasicStringTest, StaticTerminatorsAreDistinctAndStayNul) {
  TypeParam empty;
  const TypeParam &const_empty = empty;
  EXPECT_EQ(const_empty.c_str(), &TypeParam::s_readonly_nul);
  EXPECT_EQ(empty.data(), &TypeParam::s_writable_nul);
  EXPECT_EQ(&empty[0], &TypeParam::s_writable_nul);

  const void *bytes[] = {&string::s_writable_nul, &string::s_readonly_nul,
                         &shared_string::s_writable_nul, &shared_string::s_readonly_nul};
  for (size_t i = 0; i < 4; ++i) {
    for (size_t j = i + 1; j < 4; ++j) {
      EXPECT_NE(bytes[i], bytes[j]);
    }
  }

  ASSERT_TRUE(empty.append("abc"));
  empty.clear();
  EXPECT_EQ(TypeParam::s_writable_nul, '\0');
  EXPECT_EQ(TypeParam::s_readonly_nul, '\0');
}

TYPED_TEST(BasicStringTest, FieldsAreBeginEndLimitWithStoredTerminator) {
  TypeParam s("abc");
  const Words words = ReadWords(s);
  EXPECT_EQ(words.begin, s.c_str());
  EXPECT_EQ(words.end - words.begin, 4);
  EXPECT_EQ(words.limit - words.begin, 16);
  EXPECT_EQ(words.begin[3], '\0');
  EXPECT_EQ(s.capacity(), 16u);

  s.clear();
  const Words cleared = ReadWords(s);
  EXPECT_EQ(cleared.begin, nullptr);
  EXPECT_EQ(cleared.end, nullptr);
  EXPECT_EQ(cleared.limit, nullptr);
}

TYPED_TEST(BasicStringTest, OneByteAppendsClimbTheLadder) {
  TypeParam s;
  std::string expected;
  kest_test::StartRecording();
  for (int i = 0; i < 100; ++i) {
    const char c = static_cast<char>('a' + i % 26);
    ASSERT_TRUE(i % 2 == 0 ? s.push_back(c) : s.append(&c, 1));
    expected += c;
  }
  const std::vector<size_t> sizes = Sizes(kest_test::StopRecording(), this->kHeap);
  EXPECT_EQ(sizes, (std::vector<size_t>{16, 31, 63, 127}));
  EXPECT_EQ(s.size(), 100u);
  EXPECT_EQ(std::string(s.begin(), s.end()), expected);
  EXPECT_STREQ(s.c_str(), expected.c_str());
}

TYPED_TEST(BasicStringTest, ReserveRoundsToOneBelowAPowerOfTwoUnlessExact) {
  const struct {
    size_t request;
    size_t allocated;
  } cases[] = {{1, 1},   {2, 2},   {3, 3},   {5, 7},   {15, 15},   {16, 16},
               {17, 31}, {32, 32}, {33, 63}, {64, 64}, {100, 127}, {1000, 1023}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.request);
    TypeParam s;
    kest_test::StartRecording();
    ASSERT_TRUE(s.reserve(c.request));
    const std::vector<size_t> sizes = Sizes(kest_test::StopRecording(), this->kHeap);
    EXPECT_EQ(sizes, std::vector<size_t>{c.allocated});
    EXPECT_EQ(s.capacity(), c.allocated);
    EXPECT_TRUE(s.empty());

    // A reserve that fits allocates nothing.
    kest_test::StartRecording();
    EXPECT_TRUE(s.reserve(c.request));
    EXPECT_TRUE(s.reserve(0));
    EXPECT_TRUE(kest_test::StopRecording().empty());
  }
}

TYPED_TEST(BasicStringTest, GrowthAfterAnExactReserveStaysOnTheLadder) {
  TypeParam s;
  ASSERT_TRUE(s.reserve(32));
  ASSERT_TRUE(s.append(std::string(31, 'x').c_str()));
  kest_test::StartRecording();
  ASSERT_TRUE(s.push_back('y'));
  EXPECT_EQ(Sizes(kest_test::StopRecording(), this->kHeap), std::vector<size_t>{63});
  EXPECT_EQ(s.size(), 32u);
}

TYPED_TEST(BasicStringTest, FailedAppendLeavesTheStringAsItWas) {
  TypeParam s;
  kest_test::FailNthAllocation(1);
  EXPECT_FALSE(s.append("abc"));
  EXPECT_EQ(ReadWords(s).begin, nullptr);
  EXPECT_STREQ(s.c_str(), "");

  ASSERT_TRUE(s.append("hello"));
  const Words before = ReadWords(s);
  const std::string longer(40, 'z');
  kest_test::FailNthAllocation(1);
  EXPECT_FALSE(s.append(longer.c_str()));
  kest_test::FailNthAllocation(1);
  EXPECT_FALSE(s.reserve(100));
  const Words after = ReadWords(s);
  EXPECT_EQ(after.begin, before.begin);
  EXPECT_EQ(after.end, before.end);
  EXPECT_EQ(after.limit, before.limit);
  EXPECT_STREQ(s.c_str(), "hello");

  // Appends that fit need no memory and still succeed.
  kest_test::FailAllAllocations(true);
  EXPECT_TRUE(s.push_back('!'));
  EXPECT_FALSE(s.append(longer.c_str()));
  kest_test::FailAllAllocations(false);
  EXPECT_STREQ(s.c_str(), "hello!");
}

TYPED_TEST(BasicStringTest, AppendOfItselfSurvivesGrowth) {
  TypeParam s("0123456789");
  ASSERT_TRUE(s.append(s));
  ASSERT_TRUE(s.append(s.c_str() + 15, 5));
  EXPECT_STREQ(s.c_str(), "0123456789012345678956789");
  EXPECT_EQ(s.capacity(), 31u);
}

TYPED_TEST(BasicStringTest, EmbeddedBytesAreStoredButIgnoredByComparison) {
  TypeParam s("ab\0cd", 5);
  EXPECT_EQ(s.size(), 5u);
  EXPECT_EQ(s[3], 'c');
  EXPECT_TRUE(s == TypeParam("ab"));
  EXPECT_TRUE(s == "ab");
}

TYPED_TEST(BasicStringTest, ComparisonFollowsStrcmpNotLength) {
  const struct {
    const char *a;
    const char *b;
    int sign;
  } cases[] = {{"abc", "abc", 0}, {"abc", "abd", -1}, {"b", "abcdef", 1},
               {"ab", "abc", -1}, {"", "a", -1},      {"", "", 0}};
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.a) + " vs " + c.b);
    const TypeParam a(c.a);
    const TypeParam b(c.b);
    const int r = a.compare(b);
    EXPECT_EQ((r > 0) - (r < 0), c.sign);
    EXPECT_EQ(a == b, c.sign == 0);
    EXPECT_EQ(a != b, c.sign != 0);
    EXPECT_EQ(a < b, c.sign < 0);
    EXPECT_EQ(b<a, c.sign> 0);
  }
  EXPECT_EQ(string("abc").compare(shared_string("abc")), 0);
}

TYPED_TEST(BasicStringTest, CopyIsDeepAndEmptyCopyAllocatesNothing) {
  TypeParam empty;
  kest_test::StartRecording();
  TypeParam empty_copy(empty);
  EXPECT_TRUE(kest_test::StopRecording().empty());
  EXPECT_EQ(ReadWords(empty_copy).begin, nullptr);

  TypeParam source("hello");
  kest_test::StartRecording();
  TypeParam copy(source);
  // The source's stored size, 6 bytes, rounds up to 7.
  EXPECT_EQ(Sizes(kest_test::StopRecording(), this->kHeap), std::vector<size_t>{7});
  EXPECT_NE(copy.c_str(), source.c_str());
  EXPECT_TRUE(copy == source);
  source[0] = 'j';
  EXPECT_STREQ(copy.c_str(), "hello");
}

TYPED_TEST(BasicStringTest, CopyWithoutItsBlockGoesByteByByte) {
  const std::string text(40, 'q');
  TypeParam source(text.c_str());

  // The reserve of 41 bytes fails; the bytes then climb the ladder.
  kest_test::FailNthAllocation(1);
  kest_test::StartRecording();
  TypeParam copy(source);
  EXPECT_EQ(Sizes(kest_test::StopRecording(), this->kHeap), (std::vector<size_t>{63, 16, 31, 63}));
  EXPECT_STREQ(copy.c_str(), text.c_str());

  // With no memory at all the copy comes out empty, silently.
  kest_test::FailAllAllocations(true);
  TypeParam starved(source);
  kest_test::FailAllAllocations(false);
  EXPECT_TRUE(starved.empty());
  EXPECT_STREQ(starved.c_str(), "");
}

TYPED_TEST(BasicStringTest, AssignmentReusesALargeEnoughBlock) {
  TypeParam target("a long enough string");
  const char *block = target.c_str();
  const TypeParam shorter("short");
  kest_test::StartRecording();
  target = shorter;
  EXPECT_TRUE(kest_test::StopRecording().empty());
  EXPECT_EQ(target.c_str(), block);
  EXPECT_STREQ(target.c_str(), "short");
  EXPECT_EQ(target.size(), 5u);

  TypeParam &self = target;
  target = self;
  EXPECT_STREQ(target.c_str(), "short");

  TypeParam small("x");
  small = TypeParam(std::string(50, 'm').c_str());
  EXPECT_EQ(small.size(), 50u);

  target = TypeParam();
  EXPECT_TRUE(target.empty());
  EXPECT_EQ(ReadWords(target).begin, nullptr);
}

TYPED_TEST(BasicStringTest, MoveHandsOverTheBlock) {
  TypeParam source("moved");
  const char *block = source.c_str();
  TypeParam moved(static_cast<TypeParam &&>(source));
  EXPECT_EQ(moved.c_str(), block);
  EXPECT_EQ(ReadWords(source).begin, nullptr);
  EXPECT_STREQ(source.c_str(), "");

  TypeParam other("other");
  other.swap(moved);
  EXPECT_STREQ(other.c_str(), "moved");
  EXPECT_STREQ(moved.c_str(), "other");
}

} // namespace
