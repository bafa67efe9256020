#include "LeakCheck.h"

#include <gtest/gtest.h>
#include <kest/trie.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using kest_test::Counted;
using kest_test::Heap;
using kest_test::LiveBlocks;

int AsInt(int v) {
  return v;
}
int AsInt(const Counted &c) {
  return c.v;
}

std::string Fold(const std::string &s) {
  std::string out;
  for (char c : s) {
    out += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return out;
}

template <class Trie> std::vector<int> Values(const Trie *node) {
  std::vector<int> out;
  if (node != nullptr) {
    for (const auto &v : node->values()) {
      out.push_back(AsInt(v));
    }
  }
  return out;
}

// Every name that holds values, spelled as stored, with its values.
template <class Trie>
void Dump(const Trie &node, const std::string &prefix,
          std::map<std::string, std::vector<int>> &out) {
  if (!node.values().empty()) {
    out[prefix] = Values(&node);
  }
  for (const Trie *child : node.children()) {
    Dump(*child, prefix + child->letter(), out);
  }
}
template <class Trie> std::map<std::string, std::vector<int>> Dump(const Trie &t) {
  std::map<std::string, std::vector<int>> out;
  Dump(t, "", out);
  return out;
}

// Counts the nodes below `node`, checking that children are strictly ascending
// by folded letter and each is a local block with a prefix of kind 0,
// reserved 0.
template <class Trie> size_t Nodes(const Trie &node) {
  size_t nodes = 0;
  const auto &children = node.children();
  for (size_t i = 0; i < children.size(); ++i) {
    const auto *prefix = reinterpret_cast<const oru::fdt::ObjectPrefix *>(children[i]) - 1;
    EXPECT_TRUE(prefix->kind == oru::fdt::OBJECT_LOCAL && prefix->reserved == 0) << node.letter();
    EXPECT_TRUE(i == 0 ||
                oru::char_traits_nocase::lt(children[i - 1]->letter(), children[i]->letter()))
        << "children out of order under " << node.letter();
    nodes += 1 + Nodes(*children[i]);
  }
  return nodes;
}

template <class V> class TrieTest : public kest_test::LeakCheck {
protected:
  using Trie = oru::trie<V, oru::char_traits_nocase, true>;
};

using ValueTypes = ::testing::Types<int, Counted>;
TYPED_TEST_SUITE(TrieTest, ValueTypes);

// A fresh trie is a blank root without memory; each new letter then costs one
// prefixed local block.
TYPED_TEST(TrieTest, EachNewLetterIsOnePrefixedLocalBlock) {
  using Trie = typename TestFixture::Trie;
  kest_test::ResetCounts();
  Trie t;
  EXPECT_EQ(kest_test::AllocationCount(), 0);
  EXPECT_EQ(t.find("a"), nullptr);
  EXPECT_EQ(t.find(""), &t);
  const size_t node_block = sizeof(oru::fdt::ObjectPrefix) + sizeof(Trie);
  // Each name added, with the nodes it takes.
  const std::pair<const char *, long> adds[] = {{"Host", 4}, {"Hose", 1}, {"hOSE", 0}, {"", 0}};
  for (const auto &[key, nodes] : adds) {
    kest_test::StartRecording();
    EXPECT_TRUE(t.add(key, 1));
    const std::vector<size_t> sizes = kest_test::RecordedSizes(Heap::Local);
    EXPECT_EQ(std::count(sizes.begin(), sizes.end(), node_block), nodes) << key;
  }
  EXPECT_EQ(Nodes(t), 5u);
}

// Letters that differ only in case share a node, which keeps the first
// spelling and the values in the order added; children sort by folded letter, so '_' (95) follows
// 'C' (67) although unfolded it would come before 'a' (97).
TYPED_TEST(TrieTest, CaseVariantsShareANodeAndChildrenSortFolded) {
  typename TestFixture::Trie t;
  const char *const keys[] = {"host", "HOST", "Content-Type", "content-type", "_", "1", "b", "B"};
  for (int i = 0; i < 8; ++i) {
    ASSERT_TRUE(t.add(keys[i], i));
  }
  EXPECT_EQ(
      Dump(t),
      (std::map<std::string, std::vector<int>>{
          {"1", {5}}, {"Content-Type", {2, 3}}, {"_", {4}}, {"b", {6, 7}}, {"host", {0, 1}}}));
  std::string letters;
  for (const auto *child : t.children()) {
    letters += child->letter();
  }
  EXPECT_EQ(letters, "1bCh_");
  for (const char *key : {"1", "B", "c", "H", "_"}) {
    EXPECT_NE(t.find(key), nullptr) << key;
    EXPECT_EQ(t.find(key), t.child(key[0])) << key;
  }
  EXPECT_EQ(t.find("d"), nullptr);
  EXPECT_EQ(t.find("hosts"), nullptr);
  EXPECT_TRUE(Values(t.find("CONTENT")).empty()); // a prefix holds nothing
  // By length, as a name inside a longer text is looked up.
  EXPECT_EQ(t.find("Content-Type: text/html", 12), t.find("CONTENT-TYPE"));
  EXPECT_EQ(t.find("host", 0), &t);
  Nodes(t);
}

// Every node on the path loses the first equal value; a node left without
// children goes with all its values, but its parent's vector keeps the stale
// pointer, at the same index, for the owner to take out.
TYPED_TEST(TrieTest, RemoveTakesOneValuePerNodeAndLeavesTheParentEntry) {
  using Trie = typename TestFixture::Trie;
  Trie t;
  for (const char *key : {"", "a", "a", "a", "abc", "abc", "abd"}) {
    ASSERT_TRUE(t.add(key, 3));
  }
  ASSERT_TRUE(t.add("a", 1));
  ASSERT_TRUE(t.add("abc", 4)); // goes with its node although not removed
  t.remove("a", 7);             // not there: nothing changes
  Trie *b = t.child('a')->child('b');
  ASSERT_NE(b, nullptr);
  ASSERT_EQ(b->children().size(), 2u);
  const Trie *c = b->children()[0];
  const long blocks = LiveBlocks(Heap::Local);
  const long values = Counted::live;

  t.remove("A", 3); // a keeps its children, so it stays
  EXPECT_EQ(Values(t.find("a")), (std::vector<int>{3, 3, 1}));
  EXPECT_EQ(LiveBlocks(Heap::Local), blocks - 2);
  t.remove("ABC", 3);
  // c went with its three values (one of them removed first), a lost one.
  EXPECT_EQ(LiveBlocks(Heap::Local), blocks - 7);
  ASSERT_EQ(b->children().size(), 2u);
  EXPECT_EQ(b->children()[0], c);
  EXPECT_TRUE(Values(&t).empty());
  EXPECT_EQ(Values(t.find("a")), (std::vector<int>{3, 1}));
  if (std::is_same_v<TypeParam, Counted>) {
    EXPECT_EQ(Counted::live, values - 6);
  }
  b->children().erase(b->children().begin());
  EXPECT_EQ(Values(t.find("abd")), (std::vector<int>{3}));
  Nodes(t);
}

TYPED_TEST(TrieTest, FailedAddLosesTheNameAndLeavesTheTrieAsItWas) {
  // The root holds 16 children, so the new first letter also needs a larger
  // root vector; every allocation of the add fails in turn.
  const char *const key = "qRs";
  for (long n = 1;; ++n) {
    SCOPED_TRACE(n);
    typename TestFixture::Trie t;
    for (char c = 'a'; c < 'a' + 16; ++c) {
      const char name[] = {c, 'z', '\0'};
      ASSERT_TRUE(t.add(name, c));
    }
    const auto before = Dump(t);
    const size_t nodes = Nodes(t);
    const long blocks = LiveBlocks(Heap::Local);
    kest_test::ResetCounts();
    kest_test::FailNthAllocation(n);
    const bool added = t.add(key, 7);
    kest_test::FailNthAllocation(0);
    if (n > kest_test::AllocationCount()) {
      ASSERT_TRUE(added);
      EXPECT_EQ(Values(t.find("QRS")), (std::vector<int>{7}));
      break;
    }
    ASSERT_FALSE(added);
    EXPECT_EQ(Dump(t), before);
    EXPECT_EQ(Nodes(t), nodes);
    EXPECT_EQ(LiveBlocks(Heap::Local), blocks);
    // The trie still takes the name afterwards.
    EXPECT_TRUE(t.add(key, 7));
    EXPECT_EQ(Values(t.find(key)), (std::vector<int>{7}));
  }
}

TYPED_TEST(TrieTest, RandomAddsMatchAReference) {
  std::mt19937 rng(1123);
  const char alphabet[] = "aAbB-_0";
  typename TestFixture::Trie t;
  std::map<std::string, std::vector<int>> ref; // by folded name
  std::set<std::string> prefixes;
  for (int i = 0; i < 800; ++i) {
    std::string name;
    const size_t length = rng() % 6;
    for (size_t j = 0; j < length; ++j) {
      name += alphabet[rng() % (sizeof alphabet - 1)];
    }
    ASSERT_TRUE(t.add(name.c_str(), i));
    ref[Fold(name)].push_back(i);
    for (size_t j = 1; j <= name.size(); ++j) {
      prefixes.insert(Fold(name.substr(0, j)));
    }
  }
  EXPECT_EQ(Nodes(t), prefixes.size());
  // Exactly the names added hold values, reached through their folded form.
  std::map<std::string, std::vector<int>> held;
  for (const auto &[name, values] : Dump(t)) {
    held[Fold(name)] = values;
  }
  EXPECT_EQ(held, ref);
  for (const auto &[name, values] : ref) {
    EXPECT_EQ(Values(t.find(name.c_str())), values) << name;
  }
}

} // namespace
