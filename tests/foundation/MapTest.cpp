#include "LeakCheck.h"

#include <kest/fdt/List.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/map.h>

#include <cstdio>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using kest_test::Heap;
using kest_test::LiveBlocks;
using oru::fdt::string;

template <class M> std::vector<std::string> Keys(const M &m) {
  std::vector<std::string> out;
  for (typename M::const_iterator it = m.begin(); it != m.end(); ++it) {
    out.push_back(it->first.c_str());
  }
  return out;
}

class MapTest : public kest_test::LeakCheck {};

// A second insert of a key, or one that cannot be allocated, stores nothing
// and leaves the first value where it was.
TEST_F(MapTest, InsertKeepsTheFirstValueAndStoresNothingOnFailure) {
  oru::Map<int, string> m;
  static_assert(sizeof(m) == sizeof(void *));
  oru::Map<int, string>::iterator one = m.insert(1, string("one"));
  ASSERT_NE(one, m.end());
  ASSERT_NE(m.insert(oru::fdt::make_pair(3, string("three"))), m.end());
  EXPECT_EQ(m.insert(1, string("uno")), m.end());
  EXPECT_EQ(m.insert(oru::fdt::make_pair(1, string("uno"))), m.end());
  EXPECT_EQ(m.find(1), one);
  EXPECT_STREQ(one->second.c_str(), "one");

  const string two("two");
  kest_test::FailNthAllocation(1);
  EXPECT_EQ(m.insert(2, two), m.end());
  EXPECT_EQ(m.find(2), m.end());
  EXPECT_EQ(m.size(), 2u);

  EXPECT_TRUE(m.erase(3));
  EXPECT_FALSE(m.erase(3));
  m.erase(m.find(1));
  EXPECT_TRUE(m.empty());
}

TEST_F(MapTest, StringKeysOrderByStrcmpUnlessToldOtherwise) {
  const char *keys[] = {"beta", "Alpha", "gamma", "alpha", "Beta"};
  oru::fdt::map<string, int> exact;
  oru::fdt::map<string, int, oru::Less_strcmp_forward> folded;
  for (int i = 0; i < 5; ++i) {
    EXPECT_NE(exact.insert(string(keys[i]), i), exact.end()) << keys[i];
    EXPECT_EQ(folded.insert(string(keys[i]), i) != folded.end(), i < 3) << keys[i];
  }
  EXPECT_EQ(Keys(exact), (std::vector<std::string>{"Alpha", "Beta", "alpha", "beta", "gamma"}));
  EXPECT_EQ(Keys(folded), (std::vector<std::string>{"Alpha", "beta", "gamma"}));
  // Looked up with a plain literal, no key string built.
  kest_test::ResetCounts();
  EXPECT_EQ(folded.find("ALPHA")->second, 1);
  EXPECT_EQ(folded.find("BETA")->second, 0);
  EXPECT_EQ(folded.find("delta"), folded.end());
  EXPECT_EQ(kest_test::AllocationCount(), 0);
  EXPECT_TRUE(folded.erase(string("GAMMA")));
  EXPECT_EQ(Keys(folded), (std::vector<std::string>{"Alpha", "beta"}));
}

TEST_F(MapTest, LessStrcmpForwardFoldsCaseOverAnyStringForm) {
  const oru::Less_strcmp_forward less;
  struct Row {
    const char *a, *b;
    bool a_before_b;
  };
  const Row rows[] = {
      {"abc", "ABD", true}, {"ABD", "abc", false}, {"abc", "ABC", false}, {"ABC", "abc", false},
      {"", "a", true},      {nullptr, "a", true},  {"Z", "a", false},
  };
  for (const Row &r : rows) {
    const string sa(r.a), sb(r.b);
    char mutable_b[8];
    std::snprintf(mutable_b, sizeof mutable_b, "%s", r.b);
    EXPECT_EQ(less(r.a, r.b), r.a_before_b) << r.b;
    EXPECT_EQ(less(sa, sb), r.a_before_b);
    EXPECT_EQ(less(sa, r.b), r.a_before_b);
    EXPECT_EQ(less(r.a, static_cast<char *>(mutable_b)), r.a_before_b);
  }
  EXPECT_TRUE(less(oru::fdt::shared_string("a"), string("B")));
}

// A value that owns memory is copied deeply into the map and by a map copy,
// and freed with it (the fixture checks the blocks).
TEST_F(MapTest, ValuesAreCopiedDeeplyAndFreedWithTheMap) {
  oru::Map<int, oru::List<int>> table;
  oru::List<int> rules;
  rules.push_back(7);
  rules.push_back(8);
  ASSERT_NE(table.insert(6, rules), table.end());
  rules.clear();
  oru::Map<int, oru::List<int>>::iterator it = table.find(6);
  EXPECT_EQ(it->second.size(), 2u);
  it->second.push_back(9);
  oru::Map<int, oru::List<int>> copy(table);
  EXPECT_EQ(copy.find(6)->second.size(), 3u);
  EXPECT_NE(copy.find(6)->second.begin().node(), it->second.begin().node());
}

TEST_F(MapTest, SharedVariantAllocatesFromTheSharedHeap) {
  using SharedMap =
      oru::fdt::map<oru::fdt::shared_string, int, oru::Less_strcmp_forward,
                    oru::shared_container_alloc<oru::fdt::pair<oru::fdt::shared_string, int>>>;
  SharedMap m;
  kest_test::StartRecording();
  m.insert(oru::fdt::shared_string("key"), 1);
  ASSERT_FALSE(kest_test::RecordedSizes(Heap::Shared).empty());
  EXPECT_EQ(LiveBlocks(Heap::Local), m_local);
}

} // namespace

namespace {

// Ordered walks from either end and bounds, against std::map, while keys come
// and go.
TEST_F(MapTest, LowerBoundLastAndPrevAgreeWithStdMap) {
  oru::Map<int, int> m;
  std::map<int, int> ref;
  std::mt19937 random(3);
  for (int step = 0; step < 2000; ++step) {
    const int key = static_cast<int>(random() % 300);
    if (random() % 3 == 0) {
      m.erase(key);
      ref.erase(key);
    } else if (m.insert(key, step) != m.end()) {
      ref.emplace(key, step);
    }
    const int probe = static_cast<int>(random() % 310) - 5;
    auto lb = m.lower_bound(probe);
    auto want = ref.lower_bound(probe);
    ASSERT_EQ(lb == m.end(), want == ref.end());
    if (want != ref.end()) {
      ASSERT_EQ(lb->first, want->first);
    }
    if (step % 100 == 0) {
      std::vector<int> down;
      for (auto it = m.last(); it != m.end(); it = m.prev(it)) {
        down.push_back(it->first);
      }
      std::vector<int> expected;
      for (auto it = ref.rbegin(); it != ref.rend(); ++it) {
        expected.push_back(it->first);
      }
      ASSERT_EQ(down, expected);
    }
  }
}

// A value that cannot be copied is built in its node.
TEST_F(MapTest, TryEmplaceBuildsValuesInPlace) {
  struct Pinned {
    Pinned() = default;
    explicit Pinned(int v) : value(v) {}
    Pinned(const Pinned &) = delete;
    int value = 7;
  };
  oru::Map<int, Pinned> m;
  ASSERT_NE(m.try_emplace(1), m.end());
  ASSERT_NE(m.try_emplace(2, 9), m.end());
  EXPECT_EQ(m.try_emplace(2, 5), m.end());
  EXPECT_EQ(m.find(1)->second.value, 7);
  EXPECT_EQ(m.find(2)->second.value, 9);
  kest_test::FailNthAllocation(1);
  EXPECT_EQ(m.try_emplace(3), m.end());
  EXPECT_EQ(m.size(), 2u);
}

} // namespace
