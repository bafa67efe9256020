#include "Counted.h"
#include "TestHooks.h"

#include <gtest/gtest.h>
#include <kest/trie.h>

#include <cctype>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using kest_test::Heap;
using kest_test::LiveBlocks;

using kest_test::Counted;

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

// Children strictly ascending by folded letter, and every node below the root
// a local block with a prefix of kind 0, reserved 0. Counts the nodes.
template <class Trie>::testing::AssertionResult Validate(const Trie &node, size_t &nodes) {
  const auto &children = node.children();
  for (size_t i = 0; i < children.size(); ++i) {
    const Trie *child = children[i];
    ++nodes;
    const auto *prefix = reinterpret_cast<const oru::fdt::ObjectPrefix *>(child) - 1;
    if (prefix->kind != oru::fdt::OBJECT_LOCAL || prefix->reserved != 0) {
      return ::testing::AssertionFailure() << "bad prefix under " << node.letter();
    }
    if (i > 0 && !oru::char_traits_nocase::lt(children[i - 1]->letter(), child->letter())) {
      return ::testing::AssertionFailure() << "children out of order under " << node.letter();
    }
    ::testing::AssertionResult r = Validate(*child, nodes);
    if (!r) {
      return r;
    }
  }
  return ::testing::AssertionSuccess();
}
template <class Trie>::testing::AssertionResult Validate(const Trie &t) {
  size_t nodes = 0;
  return Validate(t, nodes);
}
template <class Trie> size_t Nodes(const Trie &t) {
  size_t nodes = 0;
  EXPECT_TRUE(Validate(t, nodes));
  return nodes;
}

class TrieCheck : public ::testing::Test {
protected:
  void SetUp() override {
    kest_test::InstallHooks();
    m_local = LiveBlocks(Heap::Local);
    Counted::live = 0;
  }
  void TearDown() override {
    kest_test::FailNthAllocation(0);
    EXPECT_EQ(Counted::live, 0);
    EXPECT_EQ(LiveBlocks(Heap::Local), m_local);
    EXPECT_EQ(LiveBlocks(Heap::Shared), 0);
  }
  long m_local = 0;
};

template <class V> class TrieTest : public TrieCheck {
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
  EXPECT_EQ(t.letter(), ' ');
  EXPECT_TRUE(t.children().empty() && t.values().empty());
  EXPECT_EQ(t.find("a"), nullptr);
  EXPECT_EQ(t.find(""), &t);
  const size_t node_block = sizeof(oru::fdt::ObjectPrefix) + sizeof(Trie);
  auto nodes_made = [&](const char *key) {
    kest_test::StartRecording();
    EXPECT_TRUE(t.add(key, 1));
    size_t n = 0;
    for (const kest_test::Allocation &a : kest_test::StopRecording()) {
      EXPECT_EQ(a.heap, Heap::Local);
      n += a.size == node_block ? 1 : 0;
    }
    return n;
  };
  EXPECT_EQ(nodes_made("Host"), 4u);
  EXPECT_EQ(nodes_made("Hose"), 1u);
  EXPECT_EQ(nodes_made("hOSE"), 0u);
  EXPECT_EQ(nodes_made(""), 0u);
  EXPECT_EQ(Nodes(t), 5u);
}

// Names that differ only in case share a node; the node keeps the first spelling.
struct CaseCase {
  const char *first;
  const char *second;
  const char *stored;
};

TYPED_TEST(TrieTest, CaseVariantsReachTheSameNode) {
  const CaseCase cases[] = {{"host", "HOST", "host"},
                            {"Content-Type", "content-type", "Content-Type"},
                            {"X-a_1", "x-A_1", "X-a_1"}};
  for (const CaseCase &c : cases) {
    SCOPED_TRACE(c.first);
    typename TestFixture::Trie t;
    ASSERT_TRUE(t.add(c.first, 1));
    ASSERT_TRUE(t.add(c.second, 2));
    EXPECT_EQ(t.find(c.first), t.find(c.second));
    EXPECT_EQ(Values(t.find(Fold(c.first).c_str())), (std::vector<int>{1, 2}));
    EXPECT_EQ(Dump(t), (std::map<std::string, std::vector<int>>{{c.stored, {1, 2}}}));
  }
}

TYPED_TEST(TrieTest, ChildrenAreOrderedByFoldedLetter) {
  typename TestFixture::Trie t;
  // Unfolded, '_' (95) would sort before 'a' (97); folded, 'A' is 65.
  for (const char *key : {"b", "_", "A", "c", "a", "B", "1"}) {
    ASSERT_TRUE(t.add(key, 0));
  }
  std::string letters;
  for (const auto *child : t.children()) {
    letters += child->letter();
  }
  EXPECT_EQ(letters, "1Abc_");
  for (const char *key : {"1", "a", "A", "b", "c", "C", "_"}) {
    EXPECT_EQ(t.find(key), t.child(key[0])) << key;
    EXPECT_NE(t.find(key), nullptr) << key;
  }
  EXPECT_EQ(t.find("d"), nullptr);
  EXPECT_TRUE(Validate(t));
}

TYPED_TEST(TrieTest, ValuesStayAtTheEndOfTheirName) {
  typename TestFixture::Trie t;
  ASSERT_TRUE(t.add("accept", 1));
  ASSERT_TRUE(t.add("accept", 1));
  ASSERT_TRUE(t.add("Accept-Encoding", 2));
  ASSERT_TRUE(t.add("", 3));
  EXPECT_EQ(Values(t.find("ACCEPT")), (std::vector<int>{1, 1}));
  EXPECT_EQ(Values(t.find("accept-encoding")), (std::vector<int>{2}));
  EXPECT_EQ(Values(&t), (std::vector<int>{3}));
  // Prefixes exist but hold nothing; longer names do not exist.
  EXPECT_NE(t.find("acc"), nullptr);
  EXPECT_TRUE(Values(t.find("acc")).empty());
  EXPECT_EQ(t.find("accepts"), nullptr);
  // By length, as a name inside a longer text is looked up.
  EXPECT_EQ(t.find("accept: */*", 6), t.find("accept"));
  EXPECT_EQ(t.find("accept", 0), &t);
}

TYPED_TEST(TrieTest, RemoveOfANodeWithChildrenKeepsIt) {
  typename TestFixture::Trie t;
  ASSERT_TRUE(t.add("a", 1));
  ASSERT_TRUE(t.add("a", 2));
  ASSERT_TRUE(t.add("a", 1));
  ASSERT_TRUE(t.add("ab", 5));
  const long blocks = LiveBlocks(Heap::Local);
  t.remove("A", 1);
  // Only the first equal value goes.
  EXPECT_EQ(Values(t.find("a")), (std::vector<int>{2, 1}));
  EXPECT_EQ(Values(t.find("ab")), (std::vector<int>{5}));
  EXPECT_EQ(LiveBlocks(Heap::Local), blocks - 1);
  t.remove("a", 7); // not there: nothing changes
  EXPECT_EQ(Values(t.find("a")), (std::vector<int>{2, 1}));
  EXPECT_EQ(Nodes(t), 2u);
}

TYPED_TEST(TrieTest, RemoveDestroysAChildlessNodeButLeavesItsParentEntry) {
  using Trie = typename TestFixture::Trie;
  Trie t;
  ASSERT_TRUE(t.add("", 3));
  ASSERT_TRUE(t.add("a", 3));
  ASSERT_TRUE(t.add("a", 1));
  ASSERT_TRUE(t.add("a", 3));
  ASSERT_TRUE(t.add("abc", 3));
  ASSERT_TRUE(t.add("abc", 4)); // goes with its node although not removed
  ASSERT_TRUE(t.add("abd", 6));
  Trie *b = t.child('a')->child('b');
  ASSERT_NE(b, nullptr);
  ASSERT_EQ(b->children().size(), 2u);
  const Trie *c = b->children()[0];
  const long blocks = LiveBlocks(Heap::Local);
  const long values = Counted::live;

  t.remove("ABC", 3);
  // c went with its two values, root and a lost one value each; b's vector
  // still holds the pointer to c.
  EXPECT_EQ(LiveBlocks(Heap::Local), blocks - 5);
  ASSERT_EQ(b->children().size(), 2u);
  EXPECT_EQ(b->children()[0], c);
  // Every node on the way back lost its first 3.
  EXPECT_EQ(Values(&t), (std::vector<int>{}));
  EXPECT_EQ(Values(t.find("a")), (std::vector<int>{1, 3}));
  if (std::is_same_v<TypeParam, Counted>) {
    EXPECT_EQ(Counted::live, values - 4);
  }

  // The owner takes the stale entry out; the rest of the tree is intact.
  b->children().erase(b->children().begin());
  EXPECT_EQ(Values(t.find("abd")), (std::vector<int>{6}));
  EXPECT_TRUE(Validate(t));
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
    ASSERT_TRUE(Validate(t));
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
  std::map<std::string, bool> prefixes;
  for (int i = 0; i < 800; ++i) {
    std::string name;
    const size_t length = rng() % 6;
    for (size_t j = 0; j < length; ++j) {
      name += alphabet[rng() % (sizeof alphabet - 1)];
    }
    ASSERT_TRUE(t.add(name.c_str(), i));
    ref[Fold(name)].push_back(i);
    for (size_t j = 1; j <= name.size(); ++j) {
      prefixes[Fold(name.substr(0, j))] = true;
    }
  }
  EXPECT_EQ(Nodes(t), prefixes.size());
  for (const auto &[name, values] : ref) {
    EXPECT_EQ(Values(t.find(name.c_str())), values) << name;
  }
  // Names that were never added hold nothing.
  for (int i = 0; i < 200; ++i) {
    std::string name;
    for (size_t j = 0; j < 4; ++j) {
      name += alphabet[rng() % (sizeof alphabet - 1)];
    }
    if (ref.count(Fold(name)) == 0) {
      EXPECT_TRUE(Values(t.find(name.c_str())).empty()) << name;
    }
  }
}

} // namespace
