#include "TestHooks.h"

#include <kest/fdt/List.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/map.h>

#include <cstdio>
#include <gtest/gtest.h>
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

class MapTest : public ::testing::Test {
protected:
  void SetUp() override {
    kest_test::InstallHooks();
    local_ = LiveBlocks(Heap::Local);
    shared_ = LiveBlocks(Heap::Shared);
  }
  void TearDown() override {
    kest_test::FailNthAllocation(0);
    EXPECT_EQ(LiveBlocks(Heap::Local), local_);
    EXPECT_EQ(LiveBlocks(Heap::Shared), shared_);
  }
  long local_ = 0, shared_ = 0;
};

TEST_F(MapTest, FindInsertEraseByKey) {
  oru::Map<int, int> m;
  static_assert(sizeof(m) == sizeof(void *));
  EXPECT_EQ(m.find(1), m.end());
  oru::Map<int, int>::iterator one = m.insert(1, 10);
  ASSERT_NE(one, m.end());
  EXPECT_EQ(one->first, 1);
  EXPECT_EQ(one->second, 10);
  EXPECT_NE(m.insert(oru::fdt::make_pair(3, 30)), m.end());
  EXPECT_NE(m.insert(2, 20), m.end());

  // A second insert of a key is refused and keeps the first value.
  EXPECT_EQ(m.insert(1, 99), m.end());
  EXPECT_EQ(m.insert(oru::fdt::make_pair(1, 99)), m.end());
  EXPECT_EQ(m.find(1), one);
  EXPECT_EQ(one->second, 10);
  EXPECT_EQ(m.size(), 3u);

  EXPECT_TRUE(m.erase(2));
  EXPECT_FALSE(m.erase(2));
  m.erase(m.find(3));
  EXPECT_EQ(m.size(), 1u);
  EXPECT_EQ(m.find(1), one);
}

TEST_F(MapTest, StringKeysOrderByStrcmpUnlessToldOtherwise) {
  const char *keys[] = {"beta", "Alpha", "gamma", "alpha", "Beta"};
  oru::fdt::map<string, int> exact;
  oru::fdt::map<string, int, oru::Less_strcmp_forward> folded;
  for (int i = 0; i < 5; ++i) {
    EXPECT_NE(exact.insert(string(keys[i]), i), exact.end()) << keys[i];
    const bool fresh = i < 3;
    EXPECT_EQ(folded.insert(string(keys[i]), i) != folded.end(), fresh) << keys[i];
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
    char buffer[8];
    std::snprintf(buffer, sizeof buffer, "%s", r.b);
    char *mutable_b = buffer;
    EXPECT_EQ(less(r.a, r.b), r.a_before_b) << r.b;
    EXPECT_EQ(less(sa, sb), r.a_before_b);
    EXPECT_EQ(less(sa, r.b), r.a_before_b);
    EXPECT_EQ(less(r.a, mutable_b), r.a_before_b);
  }
  EXPECT_TRUE(less(oru::fdt::shared_string("a"), string("B")));
}

TEST_F(MapTest, FailedInsertLeavesTheMapAsItWas) {
  oru::Map<int, string> m;
  ASSERT_NE(m.insert(1, string("one")), m.end());
  const string two("two");
  kest_test::FailNthAllocation(1);
  EXPECT_EQ(m.insert(2, two), m.end());
  EXPECT_EQ(m.size(), 1u);
  EXPECT_EQ(m.find(2), m.end());
  EXPECT_STREQ(m.find(1)->second.c_str(), "one");
}

TEST_F(MapTest, ValuesAreCopiedDeeplyAndFreedWithTheMap) {
  oru::Map<int, oru::List<int>> table;
  oru::List<int> rules;
  rules.push_back(7);
  rules.push_back(8);
  ASSERT_NE(table.insert(6, rules), table.end());
  rules.clear();
  oru::Map<int, oru::List<int>>::iterator it = table.find(6);
  ASSERT_NE(it, table.end());
  EXPECT_EQ(it->second.size(), 2u);
  EXPECT_EQ(it->second.front(), 7);
  it->second.push_back(9);

  oru::Map<int, oru::List<int>> copy(table);
  EXPECT_EQ(copy.find(6)->second.size(), 3u);
  EXPECT_NE(copy.find(6).node(), it.node());
}

TEST_F(MapTest, SharedVariantAllocatesFromTheSharedHeap) {
  using SharedMap =
      oru::fdt::map<oru::fdt::shared_string, int, oru::Less_strcmp_forward,
                    oru::shared_container_alloc<oru::fdt::pair<oru::fdt::shared_string, int>>>;
  SharedMap m;
  kest_test::StartRecording();
  m.insert(oru::fdt::shared_string("key"), 1);
  std::vector<kest_test::Allocation> rec = kest_test::StopRecording();
  ASSERT_FALSE(rec.empty());
  for (const kest_test::Allocation &a : rec) {
    EXPECT_EQ(a.heap, Heap::Shared);
  }
  EXPECT_EQ(LiveBlocks(Heap::Local), local_);
  m.clear();
  EXPECT_TRUE(m.empty());
}

} // namespace
