#include "LeakCheck.h"

#include <kest/fdt/List.h>

#include <gtest/gtest.h>
#include <vector>

namespace {

using kest_test::Counted;
using kest_test::Heap;
using kest_test::LiveBlocks;

using CountedList = oru::List<Counted>;

// Forward by next links, then backward by previous links, so both chains are
// checked.
std::vector<int> Contents(const CountedList &list) {
  std::vector<int> forward, backward;
  for (const Counted &c : list) {
    forward.push_back(c.v);
  }
  for (CountedList::const_iterator it = list.end(); it != list.begin();) {
    backward.insert(backward.begin(), (--it)->v);
  }
  EXPECT_EQ(forward, backward);
  return forward;
}

CountedList Make(const std::vector<int> &values) {
  CountedList list;
  for (int v : values) {
    list.push_back(v);
  }
  return list;
}

class ListTest : public kest_test::LeakCheck {};

TEST_F(ListTest, SentinelLivesInTheListAndNodesAreNextPrevValue) {
  static_assert(sizeof(oru::List<int>) == 2 * sizeof(void *));
  CountedList list;
  const oru::fdt::list_link *head = list.end().node();
  EXPECT_EQ(static_cast<const void *>(head), static_cast<const void *>(&list));
  EXPECT_EQ(head->m_next, head);
  EXPECT_EQ(head->m_prev, head);
  EXPECT_TRUE(list.empty());

  kest_test::StartRecording();
  CountedList::iterator it = list.push_back(7);
  EXPECT_EQ(kest_test::RecordedSizes(Heap::Local),
            std::vector<size_t>{sizeof(oru::fdt::list_node<Counted>)});
  EXPECT_EQ(reinterpret_cast<const char *>(&*it) - reinterpret_cast<const char *>(it.node()),
            2 * static_cast<long>(sizeof(void *)));
  EXPECT_EQ(head->m_next, it.node());
  EXPECT_EQ(it.node()->m_next, head);
}

TEST_F(ListTest, AddAndEraseKeepOrderAndOtherNodes) {
  CountedList list;
  list.push_back(2);
  list.push_front(1);
  CountedList::iterator four = list.push_back(4);
  CountedList::iterator three = list.insert(four, 3);
  list.insert(list.begin(), 0);
  EXPECT_EQ(Contents(list), (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(list.size(), 5u);

  EXPECT_EQ(list.erase(three), four);
  EXPECT_EQ(list.erase(list.end()), list.end()); // no-op
  EXPECT_EQ(four->v, 4);                         // untouched node, same place
  list.pop_front();
  list.pop_back();
  EXPECT_EQ(Contents(list), (std::vector<int>{1, 2}));
  EXPECT_EQ(list.front().v, 1);
  EXPECT_EQ(list.back().v, 2);
  list.clear();
  list.pop_back(); // empty: no-op
  EXPECT_TRUE(list.empty());
}

TEST_F(ListTest, FailedAllocationLeavesListAsItWas) {
  CountedList list = Make({1, 2});
  for (int which = 0; which < 3; ++which) {
    kest_test::FailNthAllocation(1);
    CountedList::iterator it = which == 0   ? list.push_back(9)
                               : which == 1 ? list.push_front(9)
                                            : list.insert(++list.begin(), 9);
    EXPECT_EQ(it, list.end()) << which;
    EXPECT_EQ(Contents(list), (std::vector<int>{1, 2})) << which;
    EXPECT_EQ(Counted::live, 2) << which;
  }
}

TEST_F(ListTest, CopyIsDeepAndComesOutShorterWhenMemoryRunsOut) {
  const CountedList source = Make({0, 1, 2, 3, 4});
  CountedList full(source);
  EXPECT_EQ(Contents(full), Contents(source));
  EXPECT_NE(full.begin().node(), source.begin().node());

  kest_test::FailNthAllocation(3);
  CountedList shorter(source);
  EXPECT_EQ(Contents(shorter), (std::vector<int>{0, 1, 3, 4}));
  kest_test::FailNthAllocation(0);
  shorter = source;
  EXPECT_EQ(Contents(shorter), Contents(source));
}

TEST_F(ListTest, SwapRelinksTheSentinels) {
  const std::vector<int> values[][2] = {{{}, {}}, {{1, 2}, {}}, {{1, 2}, {3, 4, 5}}};
  for (const auto &pair : values) {
    CountedList a = Make(pair[0]), b = Make(pair[1]);
    a.swap(b);
    EXPECT_EQ(Contents(a), pair[1]);
    EXPECT_EQ(Contents(b), pair[0]);
  }
}

TEST_F(ListTest, SharedVariantTakesNodesFromTheSharedHeap) {
  oru::List<int, oru::shared_container_alloc<int>> list;
  list.push_back(1);
  list.push_back(2);
  EXPECT_EQ(LiveBlocks(Heap::Shared), m_shared + 2);
  EXPECT_EQ(LiveBlocks(Heap::Local), m_local);
}

} // namespace
