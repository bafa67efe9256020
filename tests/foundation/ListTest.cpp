#include "TestHooks.h"

#include <kest/fdt/List.h>

#include <gtest/gtest.h>
#include <vector>

namespace {

using kest_test::Heap;
using kest_test::LiveBlocks;

// Counts live instances so that every construction is matched by a
// destruction.
struct Counted {
  static inline long live = 0;
  int v;
  Counted(int value) : v(value) { ++live; }
  Counted(const Counted &other) : v(other.v) { ++live; }
  ~Counted() { --live; }
};

using CountedList = oru::List<Counted>;

std::vector<int> Contents(const CountedList &list) {
  std::vector<int> out;
  for (const Counted &c : list) {
    out.push_back(c.v);
  }
  return out;
}

std::vector<int> Backwards(const CountedList &list) {
  std::vector<int> out;
  for (CountedList::const_iterator it = list.end(); it != list.begin();) {
    --it;
    out.push_back(it->v);
  }
  return out;
}

class ListTest : public ::testing::Test {
protected:
  void SetUp() override {
    kest_test::InstallHooks();
    local_ = LiveBlocks(Heap::Local);
    shared_ = LiveBlocks(Heap::Shared);
    Counted::live = 0;
  }
  void TearDown() override {
    kest_test::FailNthAllocation(0);
    EXPECT_EQ(Counted::live, 0);
    EXPECT_EQ(LiveBlocks(Heap::Local), local_);
    EXPECT_EQ(LiveBlocks(Heap::Shared), shared_);
  }
  long local_ = 0, shared_ = 0;
};

TEST_F(ListTest, LayoutIsSentinelInsideAndNextPrevValueNodes) {
  static_assert(sizeof(oru::List<int>) == 2 * sizeof(void *));
  CountedList list;
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(list.size(), 0u);
  const oru::fdt::list_link *head = list.end().node();
  EXPECT_EQ(static_cast<const void *>(head), static_cast<const void *>(&list));
  EXPECT_EQ(head->m_next, head);
  EXPECT_EQ(head->m_prev, head);

  kest_test::StartRecording();
  CountedList::iterator it = list.push_back(7);
  std::vector<kest_test::Allocation> rec = kest_test::StopRecording();
  ASSERT_EQ(rec.size(), 1u);
  EXPECT_EQ(rec[0].heap, Heap::Local);
  EXPECT_EQ(rec[0].size, sizeof(oru::fdt::list_node<Counted>));
  const char *node = reinterpret_cast<const char *>(it.node());
  EXPECT_EQ(reinterpret_cast<const char *>(&*it) - node, 2 * static_cast<long>(sizeof(void *)));
  EXPECT_EQ(head->m_next, it.node());
  EXPECT_EQ(it.node()->m_next, head);
}

TEST_F(ListTest, AddingKeepsOrderBothWays) {
  CountedList list;
  list.push_back(2);
  list.push_front(1);
  list.push_back(4);
  CountedList::iterator three = list.insert(--list.end(), 3);
  list.insert(list.begin(), 0);
  list.insert(list.end(), 5);
  EXPECT_EQ(three->v, 3);
  EXPECT_EQ(Contents(list), (std::vector<int>{0, 1, 2, 3, 4, 5}));
  EXPECT_EQ(Backwards(list), (std::vector<int>{5, 4, 3, 2, 1, 0}));
  EXPECT_EQ(list.size(), 6u);
  EXPECT_EQ(list.front().v, 0);
  EXPECT_EQ(list.back().v, 5);
  EXPECT_EQ(Counted::live, 6);
}

TEST_F(ListTest, EraseUnlinksOnlyItsNode) {
  CountedList list;
  std::vector<CountedList::iterator> its;
  for (int i = 0; i < 5; ++i) {
    its.push_back(list.push_back(i));
  }
  EXPECT_EQ(list.erase(its[2]), its[3]);
  EXPECT_EQ(list.erase(its[4]), list.end());
  EXPECT_EQ(list.erase(list.end()), list.end()); // no-op
  // The surviving nodes have not moved.
  EXPECT_EQ(its[0]->v, 0);
  EXPECT_EQ(its[1]->v, 1);
  EXPECT_EQ(its[3]->v, 3);
  EXPECT_EQ(Contents(list), (std::vector<int>{0, 1, 3}));
  list.pop_front();
  list.pop_back();
  EXPECT_EQ(Contents(list), (std::vector<int>{1}));
  list.pop_back();
  list.pop_back(); // empty: no-op
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(Counted::live, 0);
  EXPECT_EQ(LiveBlocks(Heap::Local), local_);
}

TEST_F(ListTest, FailedAllocationLeavesListAsItWas) {
  CountedList list;
  list.push_back(1);
  list.push_back(2);
  for (int which = 0; which < 3; ++which) {
    kest_test::FailNthAllocation(1);
    CountedList::iterator it = which == 0   ? list.push_back(9)
                               : which == 1 ? list.push_front(9)
                                            : list.insert(++list.begin(), 9);
    EXPECT_EQ(it, list.end()) << which;
    EXPECT_EQ(Contents(list), (std::vector<int>{1, 2})) << which;
    EXPECT_EQ(Backwards(list), (std::vector<int>{2, 1})) << which;
    EXPECT_EQ(Counted::live, 2) << which;
  }
}

TEST_F(ListTest, CopyIsDeepAndComesOutShorterWhenMemoryRunsOut) {
  CountedList source;
  for (int i = 0; i < 5; ++i) {
    source.push_back(i);
  }
  CountedList full(source);
  EXPECT_EQ(Contents(full), Contents(source));
  EXPECT_NE(full.begin().node(), source.begin().node());

  kest_test::FailNthAllocation(3);
  CountedList shorter(source);
  EXPECT_EQ(Contents(shorter), (std::vector<int>{0, 1, 3, 4}));

  kest_test::FailNthAllocation(0);
  shorter = source;
  EXPECT_EQ(Contents(shorter), Contents(source));
  CountedList &same = shorter;
  shorter = same;
  EXPECT_EQ(Contents(shorter), Contents(source));
}

TEST_F(ListTest, SwapAndMoveRelinkTheSentinels) {
  struct Case {
    std::vector<int> a, b;
  };
  const Case cases[] = {{{}, {}}, {{1, 2}, {}}, {{}, {3}}, {{1, 2}, {3, 4, 5}}};
  for (const Case &c : cases) {
    CountedList a, b;
    for (int v : c.a) {
      a.push_back(v);
    }
    for (int v : c.b) {
      b.push_back(v);
    }
    a.swap(b);
    EXPECT_EQ(Contents(a), c.b);
    EXPECT_EQ(Contents(b), c.a);
    EXPECT_EQ(Backwards(a), std::vector<int>(c.b.rbegin(), c.b.rend()));
    EXPECT_EQ(Backwards(b), std::vector<int>(c.a.rbegin(), c.a.rend()));
    CountedList moved(std::move(a));
    EXPECT_TRUE(a.empty());
    EXPECT_EQ(Contents(moved), c.b);
    moved.push_back(6); // the moved-to sentinel is linked properly
    EXPECT_EQ(moved.back().v, 6);
  }
}

TEST_F(ListTest, SharedVariantTakesNodesFromTheSharedHeap) {
  oru::List<int, oru::shared_container_alloc<int>> list;
  kest_test::StartRecording();
  list.push_back(1);
  list.push_back(2);
  std::vector<kest_test::Allocation> rec = kest_test::StopRecording();
  ASSERT_EQ(rec.size(), 2u);
  EXPECT_EQ(rec[0].heap, Heap::Shared);
  EXPECT_EQ(rec[1].heap, Heap::Shared);
  EXPECT_EQ(LiveBlocks(Heap::Shared), shared_ + 2);
  EXPECT_EQ(LiveBlocks(Heap::Local), local_);
  list.clear();
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(LiveBlocks(Heap::Shared), shared_);
}

} // namespace
