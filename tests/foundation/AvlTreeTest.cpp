#include "LeakCheck.h"

#include <kest/fdt/avl_tree.h>

#include <cstddef>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

// Counted keyed by v; the payload shows whether a stored value was overwritten.
struct Item : kest_test::Counted {
  int payload;
  Item(int k, int p) : Counted(k), payload(p) {}
};

// Orders by key and looks up by a bare key.
struct ItemLess {
  bool operator()(const Item &a, const Item &b) const { return a.v < b.v; }
  bool operator()(const Item &a, int b) const { return a.v < b; }
  bool operator()(int a, const Item &b) const { return a < b.v; }
};

using Tree = oru::fdt::avl_tree<Item, ItemLess, oru::local_container_alloc<Item>>;
using Node = Tree::node;

// Checks parent links and key order everywhere; with `balanced`, also that
// every stored height is exact and no node leans by more than one. Returns the
// real height of the subtree.
int Check(const Node *n, const Node *parent, long lo, long hi, bool balanced, size_t &count) {
  if (n == nullptr) {
    return -1;
  }
  ++count;
  EXPECT_EQ(n->m_parent, parent) << "key " << n->m_value.v;
  EXPECT_GT(n->m_value.v, lo);
  EXPECT_LT(n->m_value.v, hi);
  const int l = Check(n->m_left, n, lo, n->m_value.v, balanced, count);
  const int r = Check(n->m_right, n, n->m_value.v, hi, balanced, count);
  const int h = (l > r ? l : r) + 1;
  if (balanced) {
    EXPECT_EQ(n->m_height, h) << "key " << n->m_value.v;
    EXPECT_LE(l - r, 1) << "key " << n->m_value.v;
    EXPECT_GE(l - r, -1) << "key " << n->m_value.v;
  }
  return h;
}

void Validate(const Tree &tree, bool balanced) {
  size_t count = 0;
  Check(tree.root(), nullptr, -1L << 40, 1L << 40, balanced, count);
  EXPECT_EQ(count, tree.size());
}

std::vector<int> Keys(const Tree &tree) {
  std::vector<int> out;
  for (const Item &item : tree) {
    out.push_back(item.v);
  }
  return out;
}

// Pre-order "key(left,right)" with "-" for a missing child of a node that has
// the other one.
std::string Shape(const Node *n) {
  if (n == nullptr) {
    return "-";
  }
  std::string s = std::to_string(n->m_value.v);
  if (n->m_left != nullptr || n->m_right != nullptr) {
    s += "(" + Shape(n->m_left) + "," + Shape(n->m_right) + ")";
  }
  return s;
}

Tree Build(const std::vector<int> &keys) {
  Tree tree;
  for (int k : keys) {
    EXPECT_NE(tree.insert(Item(k, k)), tree.end());
  }
  return tree;
}

class AvlTreeTest : public kest_test::LeakCheck {};

// Balanced full tree of 15 keys, inserted level by level so no rotation runs.
const std::vector<int> kFull = {40, 20, 60, 10, 30, 50, 70, 5, 15, 25, 35, 45, 55, 65, 75};

TEST_F(AvlTreeTest, LayoutIsRootPointerAndLeftRightParentHeightValue) {
  using IntNode = oru::fdt::avl_node<int>;
  static_assert(sizeof(Tree) == sizeof(void *));
  static_assert(offsetof(IntNode, m_left) == 0);
  static_assert(offsetof(IntNode, m_right) == sizeof(void *));
  static_assert(offsetof(IntNode, m_parent) == 2 * sizeof(void *));
  static_assert(offsetof(IntNode, m_height) == 3 * sizeof(void *));
  static_assert(offsetof(IntNode, m_value) == 3 * sizeof(void *) + 4);
  EXPECT_EQ(Build({1}).root()->m_height, 0); // a leaf
}

TEST_F(AvlTreeTest, InsertRotatesByTheHeavyChildsInnerSide) {
  struct Case {
    std::vector<int> keys;
    const char *shape;
  };
  const Case cases[] = {
      {{3, 2, 1}, "2(1,3)"},                                           // outer left: single
      {{1, 2, 3}, "2(1,3)"},                                           // outer right: single
      {{3, 1, 2}, "2(1,3)"},                                           // inner left: double
      {{1, 3, 2}, "2(1,3)"},                                           // inner right: double
      {{5, 3, 8, 2, 4, 1}, "3(2(1,-),5(4,8))"},                        // left-left at the root
      {{5, 3, 8, 2, 4, 6}, "5(3(2,4),8(6,-))"},                        // no rotation
      {{5, 3, 8, 4, 7, 9, 6, 10, 11}, "5(3(-,4),8(7(6,-),10(9,11)))"}, // below the root
  };
  for (const Case &c : cases) {
    Tree tree;
    for (int k : c.keys) {
      ASSERT_NE(tree.insert(Item(k, k)), tree.end());
      Validate(tree, true);
    }
    EXPECT_EQ(Shape(tree.root()), c.shape);
  }
}

TEST_F(AvlTreeTest, EqualSubtreesOfTheHeavyChildGiveASingleRotation) {
  // Erasing the right half leaves the left two taller (erase does not
  // rebalance); the next insert on the right rotates at the root, once, as
  // 20's subtrees are of equal height.
  Tree tree = Build(kFull);
  for (int k : {45, 55, 65, 75, 50, 70, 60}) {
    tree.erase(tree.find(k));
  }
  EXPECT_EQ(tree.root()->m_height, 3); // stale
  ASSERT_NE(tree.insert(Item(80, 80)), tree.end());
  EXPECT_EQ(Shape(tree.root()), "20(10(5,15),40(30(25,35),80))");
  Validate(tree, true);
}

TEST_F(AvlTreeTest, EraseRelinksWithoutMovingOtherNodes) {
  struct Case {
    int erased;
    const char *shape;
    int replacement; // node expected at the erased node's place, 0 for none
  };
  const Case cases[] = {
      {5, "40(20(10(-,15),30(25,35)),60(50(45,55),70(65,75)))", 0},  // leaf
      {10, "40(20(15(5,-),30(25,35)),60(50(45,55),70(65,75)))", 15}, // successor is right child
      {40, "45(20(10(5,15),30(25,35)),60(50(-,55),70(65,75)))", 45}, // successor deeper
      {60, "40(20(10(5,15),30(25,35)),65(50(45,55),70(-,75)))", 65}, // inner successor
  };
  for (const Case &c : cases) {
    Tree tree = Build(kFull);
    const int32_t height = tree.find(c.erased).node()->m_height;
    tree.erase(tree.find(c.erased));
    EXPECT_EQ(Shape(tree.root()), c.shape) << c.erased;
    Validate(tree, false);
    if (c.replacement != 0) {
      EXPECT_EQ(tree.find(c.replacement).node()->m_height, height) << c.erased;
    }
  }
  // One-child node: its only child takes the link.
  Tree tree = Build({2, 1, 3, 4});
  Node *four = tree.find(4).node();
  tree.erase(tree.find(3));
  EXPECT_EQ(Shape(tree.root()), "2(1,4)");
  EXPECT_EQ(four->m_parent, tree.root());
  tree.erase(tree.end()); // no-op
}

// A duplicate keeps the stored value; an element that cannot be allocated is
// left out, also by a copy, which goes on with the rest.
TEST_F(AvlTreeTest, DuplicateOrUnallocatedElementsAreLeftOut) {
  Tree tree = Build({4, 2, 6, 1, 3, 5, 7});
  Tree::iterator first = tree.find(5);
  EXPECT_EQ(tree.insert(Item(5, 99)), tree.end());
  EXPECT_EQ(first->payload, 5);
  EXPECT_EQ(tree.find(5), first);
  const long live = Item::live;
  kest_test::FailNthAllocation(1);
  EXPECT_EQ(tree.insert(Item(8, 8)), tree.end());
  EXPECT_EQ(Item::live, live);
  Validate(tree, true);

  Tree copy(tree);
  EXPECT_EQ(Keys(copy), (std::vector<int>{1, 2, 3, 4, 5, 6, 7}));
  EXPECT_NE(copy.root(), tree.root());
  kest_test::FailNthAllocation(2);
  Tree shorter(tree);
  EXPECT_EQ(Keys(shorter), (std::vector<int>{1, 3, 4, 5, 6, 7}));
  Validate(shorter, true);
}

// Inserts alone keep the tree balanced with exact heights; mixed with erases,
// order, parent links and node identity must still match a reference.
TEST_F(AvlTreeTest, RandomOperationsMatchAReference) {
  for (unsigned seed : {1u, 2u, 3u}) {
    std::mt19937 rng(seed);
    Tree tree;
    std::map<int, Node *> reference; // key -> the node that holds it
    for (int i = 0; i < 3000; ++i) {
      const int key = static_cast<int>(rng() % 300);
      const bool inserting = i < 200 || rng() % 2 == 0;
      if (inserting) {
        Tree::iterator it = tree.insert(Item(key, key));
        ASSERT_EQ(it == tree.end(), reference.count(key) != 0);
        if (it != tree.end()) {
          reference[key] = it.node();
        }
      } else {
        Tree::iterator it = tree.find(key);
        EXPECT_EQ(it != tree.end(), reference.count(key) != 0);
        tree.erase(it);
        reference.erase(key);
      }
      if (i < 200 || i % 25 == 0) {
        Validate(tree, i < 200);
        Tree::iterator it = tree.begin();
        for (const auto &[k, node] : reference) {
          ASSERT_EQ(it.node(), node) << "seed " << seed << " op " << i;
          ++it;
        }
        EXPECT_EQ(it, tree.end());
      }
    }
  }
}

} // namespace
