// The SDK's containers. Each runs random operations beside a plain standard
// model, with an element that counts its lives and cannot be assigned (the
// containers move elements by copy construction alone), on the test allocator,
// which fails the allocation it is told to: after every step the contents
// equal the model, the invariants hold, and an operation whose allocation
// failed left the container as it was. Then what is particular to each
// container, in tables, and the layouts that plug-ins compile against.
#include "LeakCheck.h"

#include <gtest/gtest.h>
#include <kest/fdt/List.h>
#include <kest/fdt/ObjectPrefix.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/hash_table.h>
#include <kest/fdt/intrusive_ptr.h>
#include <kest/fdt/map.h>
#include <kest/fdt/refcnt.h>
#include <kest/fdt/vector.h>
#include <kest/trie.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>
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
using Ints = std::vector<int>;
using Sizes = std::vector<size_t>;
using oru::fdt::shared_string;
using oru::fdt::string;
using Local = oru::local_container_alloc<int>;
using Shared = oru::shared_container_alloc<int>;
using ContainerTest = kest_test::LeakCheck;

struct Elem : Counted {
  explicit Elem(int value = -1) : Counted(value) {}
  Elem(const Elem &) = default;
  Elem &operator=(const Elem &) = delete;
};

template <class A> constexpr Heap HeapOf() {
  return A::is_shared ? Heap::Shared : Heap::Local;
}

// ---------------------------------------------------------------------------
// One face over each container for the model suites. Sequences are modelled
// by a vector of values.

template <class A> struct VectorOf {
  using C = oru::fdt::vector<Elem, typename A::template rebind<Elem>::other>;
  static constexpr Heap kHeap = HeapOf<A>();
  static bool Insert(C &c, size_t i, int v) { return c.insert(c.begin() + i, Elem(v)) != c.end(); }
  static void Erase(C &c, size_t i) {
    const auto next = c.erase(c.begin() + i);
    EXPECT_EQ(next, c.begin() + i);
  }
  static Ints Contents(const C &c) {
    EXPECT_LE(c.size(), c.capacity());
    Ints out;
    for (const Elem &e : c) {
      out.push_back(e.v);
    }
    return out;
  }
};

template <class A> struct ListOf {
  using C = oru::List<Elem, typename A::template rebind<Elem>::other>;
  static constexpr Heap kHeap = HeapOf<A>();
  static typename C::iterator At(C &c, size_t i) {
    auto it = c.begin();
    while (i-- > 0) {
      ++it;
    }
    return it;
  }
  static bool Insert(C &c, size_t i, int v) {
    return (i == 0 ? c.push_front(Elem(v)) : c.insert(At(c, i), Elem(v))) != c.end();
  }
  static void Erase(C &c, size_t i) {
    const auto next = c.erase(At(c, i));
    EXPECT_EQ(next, At(c, i));
  }
  // Forward by next links, then backward by previous links.
  static Ints Contents(const C &c) {
    Ints forward, backward;
    for (const Elem &e : c) {
      forward.push_back(e.v);
    }
    for (auto it = c.end(); it != c.begin();) {
      backward.insert(backward.begin(), (--it)->v);
    }
    EXPECT_EQ(forward, backward);
    EXPECT_EQ(c.size(), forward.size());
    return forward;
  }
};

// Keyed containers are modelled by (key, value) pairs in the container's own
// order: by key for the map, least recently inserted or touched first for the
// hash table.
using Pairs = std::vector<std::pair<int, int>>;

// Checks parent links and key order of an AVL subtree; with `balanced`, also
// exact heights and no lean beyond one. Returns the subtree's real height.
template <class Node>
int CheckAvl(const Node *n, const Node *parent, long lo, long hi, bool balanced, size_t &count) {
  if (n == nullptr) {
    return -1;
  }
  ++count;
  const long key = n->m_value.first;
  EXPECT_EQ(n->m_parent, parent) << "key " << key;
  EXPECT_TRUE(lo < key && key < hi) << "key " << key;
  const int l = CheckAvl(n->m_left, n, lo, key, balanced, count);
  const int r = CheckAvl(n->m_right, n, key, hi, balanced, count);
  if (balanced) {
    EXPECT_EQ(n->m_height, std::max(l, r) + 1) << "key " << key;
    EXPECT_LE(std::abs(l - r), 1) << "key " << key;
  }
  return std::max(l, r) + 1;
}
template <class Tree> size_t CheckAvl(const Tree &t, bool balanced) {
  size_t count = 0;
  CheckAvl(t.tree().root(), static_cast<decltype(t.tree().root())>(nullptr), -1L << 40, 1L << 40,
           balanced, count);
  return count;
}

template <class A> struct MapOf {
  using C = oru::fdt::map<int, Elem, oru::fdt::less<int>,
                          typename A::template rebind<oru::fdt::pair<int, Elem>>::other>;
  static constexpr Heap kHeap = HeapOf<A>();
  static const Elem *Insert(C &c, int k, int v) {
    auto it = c.insert(k, Elem(v));
    return it == c.end() ? nullptr : &it->second;
  }
  static const Elem *Find(C &c, int k, bool /*touch*/) {
    auto it = c.find(k);
    return it == c.end() ? nullptr : &it->second;
  }
  static bool Erase(C &c, int k) { return c.erase(k); }
  static void Order(Pairs &model, size_t /*touched*/) { std::sort(model.begin(), model.end()); }
  // Erase does not rebalance: heights are checked while nothing was erased.
  // Also the walk down from the greatest key, and lower_bound and at_or_before
  // of a random key.
  static Pairs Contents(const C &c, bool balanced, std::mt19937 &random) {
    const size_t count = CheckAvl(c, balanced);
    Pairs out, down;
    for (auto it = c.begin(); it != c.end(); ++it) {
      out.emplace_back(it->first, it->second.v);
    }
    EXPECT_EQ(count, out.size());
    for (auto it = c.last(); it != c.end(); it = C::prev(it)) {
      down.emplace(down.begin(), it->first, it->second.v);
    }
    EXPECT_EQ(down, out);
    const int probe = static_cast<int>(random() % 110) - 5;
    auto want = std::lower_bound(out.begin(), out.end(), std::make_pair(probe, INT32_MIN));
    auto got = c.lower_bound(probe);
    EXPECT_EQ(got == c.end() ? -1000 : got->first, want == out.end() ? -1000 : want->first);
    auto after = std::upper_bound(out.begin(), out.end(), std::make_pair(probe, INT32_MAX));
    auto floor = c.at_or_before(probe);
    EXPECT_EQ(floor == c.end() ? -1000 : floor->first,
              after == out.begin() ? -1000 : std::prev(after)->first);
    return out;
  }
};

// Pointer keys are addresses in a pool that is never read.
char g_pool[1 << 17];
template <class K> K KeyOf(uint32_t i) {
  if constexpr (std::is_pointer_v<K>) {
    return &g_pool[i];
  } else {
    return i;
  }
}
template <class K> uint32_t IndexOf(K key) {
  if constexpr (std::is_pointer_v<K>) {
    return static_cast<uint32_t>(key - g_pool);
  } else {
    return key;
  }
}

#define CHECK_OR_FAIL(cond, what)                                                                  \
  if (!(cond))                                                                                     \
  return ::testing::AssertionFailure() << what

// Keys are unique; each entry is pointed at by exactly one chain node, in the
// bucket of its key modulo the count of the buckets it lies in; old buckets
// before the cursor are drained; outside a rehash the alternate ones are empty.
template <class Table>::testing::AssertionResult ValidateHash(const Table &t) {
  std::set<const void *> entries, seen;
  std::set<uintptr_t> keys;
  for (auto it = t.begin(); it != t.end(); ++it) {
    entries.insert(it.node());
    CHECK_OR_FAIL(keys.insert(oru::fdt::hash_table_key_number(it->first)).second, "duplicate key");
  }
  CHECK_OR_FAIL(entries.size() == t.size(), "count " << t.size() << " but " << entries.size());
  CHECK_OR_FAIL(!t.migrating() || t.alternate_buckets().size() == t.new_buckets(), "alternate");
  for (const auto *buckets : {&t.active_buckets(), &t.alternate_buckets()}) {
    const size_t first_filled = buckets == &t.active_buckets() && t.migrating() ? t.cursor() : 0;
    for (size_t i = 0; i < buckets->size(); ++i) {
      for (const auto *e : (*buckets)[i]) {
        CHECK_OR_FAIL(t.migrating() || buckets == &t.active_buckets(), "alternate filled");
        CHECK_OR_FAIL(i >= first_filled, "old bucket " << i << " behind the cursor");
        CHECK_OR_FAIL(entries.count(e) == 1, "chain node points outside the entries");
        CHECK_OR_FAIL(seen.insert(e).second, "entry in two chains");
        CHECK_OR_FAIL(oru::fdt::hash_table_key_number(e->m_value.first) % buckets->size() == i,
                      "entry in the wrong bucket " << i);
      }
    }
  }
  CHECK_OR_FAIL(seen.size() == entries.size(), "an entry has no chain node");
  return ::testing::AssertionSuccess();
}
#undef CHECK_OR_FAIL

template <class K> struct HashOf {
  using C = oru::fdt::hash_table<K, Elem>;
  static constexpr Heap kHeap = Heap::Local;
  static const Elem *Insert(C &c, int k, int v) {
    auto it = c.insert(KeyOf<K>(static_cast<uint32_t>(k)), Elem(v));
    return it == c.end() ? nullptr : &it->second;
  }
  static const Elem *Find(C &c, int k, bool touch) {
    const K key = KeyOf<K>(static_cast<uint32_t>(k));
    auto it = touch ? c.touch(key) : c.find(key);
    return it == c.end() ? nullptr : &it->second;
  }
  static bool Erase(C &c, int k) {
    auto it = c.find(KeyOf<K>(static_cast<uint32_t>(k)));
    c.erase(it);
    return it != c.end();
  }
  // A touch moves its element to the tail.
  static void Order(Pairs &model, size_t touched) {
    std::rotate(model.begin() + static_cast<long>(touched),
                model.begin() + static_cast<long>(touched) + 1, model.end());
  }
  static Pairs Contents(const C &c, bool, std::mt19937 &) {
    EXPECT_TRUE(ValidateHash(c));
    Pairs out;
    for (auto it = c.begin(); it != c.end(); ++it) {
      out.emplace_back(IndexOf(it->first), it->second.v);
    }
    return out;
  }
};

// ---------------------------------------------------------------------------
// The model suites

// Every few steps the next operation's first, second or third allocation
// fails; Hit tells whether the operation reached it.
struct FailurePlan {
  std::mt19937 &random;
  long nth = 0;
  void Arm() {
    nth = random() % 3 == 0 ? 1 + static_cast<long>(random() % 3) : 0;
    kest_test::ResetCounts();
    kest_test::FailNthAllocation(nth);
  }
  bool Hit() {
    kest_test::FailNthAllocation(0);
    return nth != 0 && kest_test::AllocationCount() >= nth;
  }
};

template <class Adapter> class SequenceTest : public kest_test::LeakCheck {};
using Sequences =
    ::testing::Types<VectorOf<Local>, VectorOf<Shared>, ListOf<Local>, ListOf<Shared>>;
TYPED_TEST_SUITE(SequenceTest, Sequences);

// Every hundred steps the container trades places with a second one, so that
// swaps relink between empty and filled containers both ways.
TYPED_TEST(SequenceTest, RandomOperationsMatchAModel) {
  std::mt19937 random(7);
  typename TypeParam::C c, other;
  Ints model, other_model;
  FailurePlan fail{random};
  int next = 0;
  for (int step = 0; step < 1500; ++step) {
    SCOPED_TRACE(step);
    // Phases of growing and shrinking, so that blocks go both ways.
    const bool growing = (step / 300) % 2 == 0;
    if (step % 100 == 50) {
      c.swap(other);
      model.swap(other_model);
      ASSERT_EQ(TypeParam::Contents(other), other_model);
    } else if (model.empty() || random() % 10 < (growing ? 7u : 3u)) {
      const size_t i = random() % (model.size() + 1);
      fail.Arm();
      const bool done = TypeParam::Insert(c, i, ++next);
      ASSERT_TRUE(fail.Hit() || done) << "an insert failed without a failed allocation";
      if (done) {
        model.insert(model.begin() + static_cast<long>(i), next);
      }
    } else {
      const size_t i = random() % model.size();
      TypeParam::Erase(c, i);
      model.erase(model.begin() + static_cast<long>(i));
    }
    ASSERT_EQ(TypeParam::Contents(c), model);
    ASSERT_EQ(Counted::live, static_cast<long>(model.size() + other_model.size()));
    constexpr bool local = TypeParam::kHeap == Heap::Local;
    ASSERT_EQ(LiveBlocks(local ? Heap::Shared : Heap::Local),
              local ? this->m_shared : this->m_local)
        << "memory from the other heap";
  }
}

// A copy is deep; with an allocation failing it keeps the rest of the
// elements in order; a copy without any memory is empty.
TYPED_TEST(SequenceTest, CopiesAreDeepAndComeOutShortUnderFailure) {
  typename TypeParam::C source;
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(TypeParam::Insert(source, static_cast<size_t>(i), i));
  }
  const Ints all = TypeParam::Contents(source);
  for (long n = 0; n < 4; ++n) {
    kest_test::FailNthAllocation(n);
    typename TypeParam::C copy(source);
    kest_test::FailNthAllocation(0);
    const Ints got = TypeParam::Contents(copy);
    EXPECT_TRUE(std::includes(all.begin(), all.end(), got.begin(), got.end())) << n;
    EXPECT_GE(got.size(), n == 0 ? all.size() : 1u) << n;
    EXPECT_TRUE(n != 0 || &*copy.begin() != &*source.begin());
    copy = source;
    EXPECT_EQ(TypeParam::Contents(copy), all);
  }
  kest_test::FailAllAllocations(true);
  typename TypeParam::C starved(source);
  kest_test::FailAllAllocations(false);
  EXPECT_TRUE(starved.empty());
}

template <class Adapter> class KeyedTest : public kest_test::LeakCheck {};
using Keyed = ::testing::Types<MapOf<Local>, MapOf<Shared>, HashOf<uint32_t>, HashOf<const char *>>;
TYPED_TEST_SUITE(KeyedTest, Keyed);

// Inserts keep the stored value of a present key; touches reorder the hash
// table; elements never move while they are stored.
TYPED_TEST(KeyedTest, RandomOperationsMatchAModel) {
  std::mt19937 random(20261123);
  typename TypeParam::C c;
  Pairs model;
  std::map<int, const Elem *> where;
  FailurePlan fail{random};
  bool erased = false;
  for (int step = 0; step < 3000; ++step) {
    SCOPED_TRACE(step);
    // Phases of mostly growing and mostly shrinking, so that a hash table
    // rehashes both ways, with and without migrations of many steps.
    const bool growing = (step / 750) % 2 == 0;
    const int k = static_cast<int>(random() % 400);
    const unsigned op = random() % 10;
    auto at = std::find_if(model.begin(), model.end(), [&](auto &p) { return p.first == k; });
    const bool present = at != model.end();
    fail.Arm();
    if (op < (growing ? 5u : 2u)) {
      const Elem *e = TypeParam::Insert(c, k, step);
      ASSERT_TRUE(fail.Hit() || e != nullptr || present) << "an insert failed without a cause";
      ASSERT_FALSE(e != nullptr && present) << "a present key was replaced";
      if (e != nullptr) {
        model.emplace_back(k, step);
        TypeParam::Order(model, model.size() - 1);
        where[k] = e;
      }
    } else if (op < 8) {
      const bool touch = op < 7;
      const Elem *e = TypeParam::Find(c, k, touch);
      fail.Hit();
      ASSERT_EQ(e != nullptr, present);
      if (present) {
        ASSERT_EQ(e, where[k]) << "the element moved";
        ASSERT_EQ(e->v, at->second);
        if (touch) {
          TypeParam::Order(model, static_cast<size_t>(at - model.begin()));
        }
      }
    } else {
      ASSERT_EQ(TypeParam::Erase(c, k), present);
      fail.Hit();
      if (present) {
        model.erase(at);
        where.erase(k);
        erased = true;
      }
    }
    ASSERT_EQ(TypeParam::Contents(c, !erased, random), model);
    ASSERT_EQ(Counted::live, static_cast<long>(model.size()));
  }
}

// ---------------------------------------------------------------------------
// vector and basic_string: growth ladders, failures, copies

template <class A> Sizes Recorded(size_t unit = 1) {
  return kest_test::RecordedSizes(HeapOf<A>(), unit);
}

template <class A> void VectorLadders() {
  // No block for nothing, nor for more than the address space holds.
  EXPECT_TRUE(A::allocate(0) == nullptr && A::allocate(SIZE_MAX / 2) == nullptr);
  oru::fdt::vector<int, A> v;
  kest_test::StartRecording();
  for (int i = 1; i <= 100; ++i) {
    ASSERT_TRUE(v.push_back(i));
  }
  EXPECT_EQ(Recorded<A>(sizeof(int)), (Sizes{16, 31, 63, 127}));
  // Shrinking goes down the powers of two; a failed move keeps the block and
  // the next removal tries again.
  kest_test::FailNthAllocation(1);
  const std::pair<size_t, Sizes> shrinks[] = {{63, {64, 64}}, {10, {32, 16}}, {0, {8, 4, 2, 1}}};
  for (const auto &[size, blocks] : shrinks) {
    kest_test::StartRecording();
    ASSERT_TRUE(v.resize(size));
    EXPECT_EQ(Recorded<A>(sizeof(int)), blocks) << size;
    EXPECT_EQ(size == 0 ? 1 : v.back(), size == 0 ? 1 : static_cast<int>(size));
  }
  EXPECT_EQ(v.data(), nullptr);
  // Growing value-initialises; reserve rounds to one less than a power of
  // two, or to the power of two itself. Neither changes anything on failure.
  ASSERT_TRUE(v.resize(3));
  EXPECT_EQ(Ints(v.begin(), v.end()), (Ints{0, 0, 0}));
  kest_test::FailAllAllocations(true);
  EXPECT_FALSE(v.resize(40) || v.reserve(40));
  kest_test::FailAllAllocations(false);
  EXPECT_EQ(v.size(), 3u);
  v.clear();
  kest_test::StartRecording();
  ASSERT_TRUE(v.reserve(32) && v.reserve(33));
  EXPECT_EQ(Recorded<A>(sizeof(int)), (Sizes{32, 63}));
  // A copy whose reserve fails grows step by step.
  oru::fdt::vector<int, A> source;
  ASSERT_TRUE(source.resize(20));
  kest_test::FailNthAllocation(1);
  kest_test::StartRecording();
  oru::fdt::vector<int, A> copy(source);
  EXPECT_EQ(Recorded<A>(sizeof(int)), (Sizes{31, 16, 31}));
  EXPECT_EQ(copy.size(), 20u);
  // A move takes the block over and leaves the source empty.
  const int *block = copy.data();
  oru::fdt::vector<int, A> moved(std::move(copy)), assigned;
  assigned = std::move(moved);
  EXPECT_EQ(assigned.data(), block);
  EXPECT_EQ(assigned.size(), 20u);
  EXPECT_TRUE(copy.empty() && moved.empty() && moved.data() == nullptr);
}

TEST_F(ContainerTest, VectorGrowthAndShrinkFollowTheLadders) {
  VectorLadders<Local>();
  VectorLadders<Shared>();
}

// Elements that own memory are copied deeply whenever they move, also when
// the element copied in is one of the vector's own.
TEST_F(ContainerTest, VectorMovesCopyStringsDeeplyEvenFromItself) {
  oru::fdt::vector<string> v;
  const char *blocks[16];
  for (int i = 0; i < 16; ++i) {
    ASSERT_TRUE(v.push_back(string(std::to_string(i).c_str())));
    blocks[i] = v[i].c_str();
  }
  // Full: the source is relocated while it is being copied.
  ASSERT_TRUE(v.push_back(v[0]));
  for (int i = 0; i < 16; ++i) {
    EXPECT_NE(v[i].c_str(), blocks[i]);
    EXPECT_STREQ(v[i].c_str(), std::to_string(i).c_str());
  }
  EXPECT_STREQ(v[16].c_str(), "0");
  // Room left: the source shifts up while the gap opens.
  v.insert(v.begin() + 2, v[5]);
  EXPECT_STREQ(v[2].c_str(), "5");
  EXPECT_STREQ(v[6].c_str(), "5");
  EXPECT_EQ(LiveBlocks(Heap::Local) - m_local, 19);
}

template <class S> void StringStates() {
  constexpr Heap heap = HeapOf<typename S::allocator_type>();
  kest_test::ResetCounts();
  S never, from_empty("");
  EXPECT_EQ(kest_test::AllocationCount(), 0);
  EXPECT_EQ(never.data(), &S::s_writable_nul);
  // Only the terminator stored, as a plug-in may leave a string.
  S terminated;
  char *block = S::allocator_type::allocate(16);
  block[0] = '\0';
  char *const words[3] = {block, block + 1, block + 16};
  std::memcpy(static_cast<void *>(&terminated), words, sizeof words);
  for (const S *s : {&never, &from_empty, &terminated}) {
    EXPECT_EQ(s->size(), 0u);
    EXPECT_EQ(s->c_str(), &S::s_readonly_nul);
    EXPECT_TRUE(*s == never && !(*s < never) && !(never < *s));
  }
  // The first characters go over the terminator, within the block.
  ASSERT_TRUE(terminated.append("xy"));
  EXPECT_STREQ(terminated.c_str(), "xy");
  EXPECT_EQ(terminated.c_str(), block);
  EXPECT_EQ(terminated.capacity(), 16u);
  EXPECT_EQ(S::s_writable_nul, '\0');

  // The ladder, by append and push_back; reserve takes the rung at or above.
  S s;
  std::string expected;
  kest_test::StartRecording();
  for (int i = 0; i < 100; ++i) {
    const char c = static_cast<char>('a' + i % 26);
    ASSERT_TRUE(i % 2 == 0 ? s.push_back(c) : s.append(&c, 1));
    expected += c;
  }
  EXPECT_EQ(kest_test::RecordedSizes(heap), (Sizes{16, 31, 63, 127}));
  EXPECT_EQ(std::string(s.begin(), s.end()), expected);
  const size_t reserves[][2] = {{1, 1}, {5, 7}, {16, 16}, {17, 31}, {32, 32}, {33, 63}, {100, 127}};
  for (const auto &[asked, block_size] : reserves) {
    S r;
    kest_test::StartRecording();
    ASSERT_TRUE(r.reserve(asked) && r.reserve(asked - 1));
    EXPECT_EQ(kest_test::RecordedSizes(heap), Sizes{block_size}) << "reserve(" << asked << ")";
  }

  // Failures leave the string; what fits needs no memory.
  S hello;
  kest_test::FailNthAllocation(1);
  EXPECT_FALSE(hello.append("abc"));
  EXPECT_EQ(hello.capacity(), 0u);
  ASSERT_TRUE(hello.append("hello"));
  const char *before = hello.c_str();
  kest_test::FailAllAllocations(true);
  EXPECT_FALSE(hello.append(std::string(40, 'z').c_str()) || hello.reserve(100));
  EXPECT_TRUE(hello.push_back('!'));
  kest_test::FailAllAllocations(false);
  EXPECT_EQ(hello.c_str(), before);
  EXPECT_STREQ(hello.c_str(), "hello!");

  // Appending itself survives the growth it causes.
  S digits("0123456789");
  ASSERT_TRUE(digits.append(digits) && digits.append(digits.c_str() + 15, 5));
  EXPECT_STREQ(digits.c_str(), "0123456789012345678956789");

  // Copies are deep; one whose reserve fails climbs the ladder byte by byte;
  // without memory a copy is empty, and an assignment that fits its block
  // needs none.
  S source("hello");
  kest_test::StartRecording();
  S copy(source), none_copy(never);
  EXPECT_EQ(kest_test::RecordedSizes(heap), Sizes{7});
  source[0] = 'j';
  EXPECT_STREQ(copy.c_str(), "hello");
  const std::string text(40, 'q');
  S long_source(text.c_str());
  kest_test::FailNthAllocation(1);
  kest_test::StartRecording();
  S long_copy(long_source);
  EXPECT_EQ(kest_test::RecordedSizes(heap), (Sizes{63, 16, 31, 63}));
  EXPECT_STREQ(long_copy.c_str(), text.c_str());
  kest_test::FailAllAllocations(true);
  S starved(long_source);
  copy = long_source;
  long_copy = source;
  kest_test::FailAllAllocations(false);
  EXPECT_STREQ(starved.c_str(), "");
  EXPECT_STREQ(copy.c_str(), "");
  EXPECT_STREQ(long_copy.c_str(), "jello");
  EXPECT_EQ(long_copy.capacity(), 63u);

  // Order is strcmp's, not the length's.
  const struct {
    S a, b;
    int sign;
  } cases[] = {{"abc", "abc", 0}, {"abc", "abd", -1}, {"b", "abcdef", 1},
               {"ab", "abc", -1}, {"", "a", -1},      {S("ab\0cd", 5), "ab", 0}};
  for (const auto &c : cases) {
    const int r = c.a.compare(c.b);
    EXPECT_EQ((r > 0) - (r < 0), c.sign) << c.a.c_str() << " vs " << c.b.c_str();
    EXPECT_EQ(c.a == c.b, c.sign == 0);
    EXPECT_EQ(c.a != c.b, c.sign != 0);
    EXPECT_EQ(c.a < c.b, c.sign < 0);
    EXPECT_EQ(c.a == c.b.c_str(), c.sign == 0);
  }
  EXPECT_EQ(S("ab\0cd", 5).size(), 5u);
}

TEST_F(ContainerTest, StringEmptyStatesLadderFailuresCopiesAndOrder) {
  StringStates<string>();
  StringStates<shared_string>();
  EXPECT_NE(&string::s_readonly_nul, &shared_string::s_readonly_nul);
  EXPECT_NE(&string::s_writable_nul, &shared_string::s_writable_nul);
}

// ---------------------------------------------------------------------------
// List and map

TEST_F(ContainerTest, ListEndsOfAnEmptyList) {
  oru::List<int> list;
  EXPECT_EQ(list.erase(list.end()), list.end());
  list.pop_back(); // nothing happens
  EXPECT_TRUE(list.empty());
}

template <class M> std::vector<std::string> Keys(const M &m) {
  std::vector<std::string> out;
  for (auto it = m.begin(); it != m.end(); ++it) {
    out.push_back(it->first.c_str());
  }
  return out;
}

TEST_F(ContainerTest, MapStringKeysOrderByStrcmpUnlessFolded) {
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
  EXPECT_EQ(folded.find("delta"), folded.end());
  EXPECT_EQ(kest_test::AllocationCount(), 0);
  EXPECT_TRUE(folded.erase(string("GAMMA")));
  EXPECT_EQ(Keys(folded), (std::vector<std::string>{"Alpha", "beta"}));

  const oru::Less_strcmp_forward less;
  const struct {
    const char *a, *b;
    bool a_before_b;
  } rows[] = {{"abc", "ABD", true},  {"ABD", "abc", false}, {"abc", "ABC", false},
              {"ABC", "abc", false}, {"", "a", true},       {nullptr, "a", true},
              {"Z", "a", false}};
  for (const auto &r : rows) {
    const string sa(r.a), sb(r.b);
    std::string mutable_b = r.b;
    EXPECT_EQ(less(r.a, r.b), r.a_before_b) << r.b;
    EXPECT_EQ(less(sa, sb), r.a_before_b);
    EXPECT_EQ(less(sa, r.b), r.a_before_b);
    EXPECT_EQ(less(r.a, mutable_b.data()), r.a_before_b);
  }
  EXPECT_TRUE(less(shared_string("a"), string("B")));
}

// A value that owns memory is copied deeply into the map and by a map copy;
// one that cannot be copied is built in its node.
TEST_F(ContainerTest, MapValuesCopiedDeeplyOrBuiltInPlace) {
  oru::Map<int, oru::List<int>> table;
  oru::List<int> rules;
  rules.push_back(7);
  ASSERT_NE(table.insert(6, rules), table.end());
  rules.clear();
  table.find(6)->second.push_back(9);
  oru::Map<int, oru::List<int>> copy(table);
  EXPECT_EQ(copy.find(6)->second.size(), 2u);
  EXPECT_NE(copy.find(6)->second.begin().node(), table.find(6)->second.begin().node());

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
  EXPECT_EQ(m.find(1)->second.value + m.find(2)->second.value, 16);
  kest_test::FailNthAllocation(1);
  EXPECT_EQ(m.try_emplace(3), m.end());
  EXPECT_EQ(m.size(), 2u);
}

// ---------------------------------------------------------------------------
// avl_tree, through the map over it

using Tree = oru::Map<int, int>;
using TreeNode = Tree::node;

// Pre-order "key(left,right)" with "-" for a missing child of a node that has
// the other one.
std::string Shape(const TreeNode *n) {
  if (n == nullptr) {
    return "-";
  }
  std::string s = std::to_string(n->m_value.first);
  if (n->m_left != nullptr || n->m_right != nullptr) {
    s += "(" + Shape(n->m_left) + "," + Shape(n->m_right) + ")";
  }
  return s;
}

void Build(Tree &tree, const Ints &keys, bool check = false) {
  for (int k : keys) {
    ASSERT_NE(tree.insert(k, k), tree.end());
    if (check) {
      CheckAvl(tree, true);
    }
  }
}

// Balanced full tree of 15 keys, inserted level by level so no rotation runs.
const Ints kFull = {40, 20, 60, 10, 30, 50, 70, 5, 15, 25, 35, 45, 55, 65, 75};

// Each row: keys inserted, keys then erased (erase does not rebalance), keys
// then inserted with the balance checked, and the shape that comes out.
TEST_F(ContainerTest, AvlInsertRotatesByTheHeavyChildsInnerSide) {
  const struct {
    Ints keys, erased, then;
    const char *shape;
  } cases[] = {
      {{3, 2, 1}, {}, {}, "2(1,3)"},                                           // outer left
      {{1, 2, 3}, {}, {}, "2(1,3)"},                                           // outer right
      {{3, 1, 2}, {}, {}, "2(1,3)"},                                           // inner left
      {{1, 3, 2}, {}, {}, "2(1,3)"},                                           // inner right
      {{5, 3, 8, 2, 4, 1}, {}, {}, "3(2(1,-),5(4,8))"},                        // at the root
      {{5, 3, 8, 2, 4, 6}, {}, {}, "5(3(2,4),8(6,-))"},                        // no rotation
      {{5, 3, 8, 4, 7, 9, 6, 10, 11}, {}, {}, "5(3(-,4),8(7(6,-),10(9,11)))"}, // below the root
      // The heavy child's subtrees are of equal height: a single rotation.
      {kFull, {45, 55, 65, 75, 50, 70, 60}, {80}, "20(10(5,15),40(30(25,35),80))"},
  };
  for (const auto &c : cases) {
    Tree tree;
    Build(tree, c.keys, c.erased.empty());
    for (int k : c.erased) {
      tree.erase(k);
    }
    Build(tree, c.then, true);
    EXPECT_EQ(Shape(tree.tree().root()), c.shape);
  }
}

// The erased node's successor takes its place and height; no other node moves.
TEST_F(ContainerTest, AvlEraseRelinksWithoutMovingOtherNodes) {
  const struct {
    int erased;
    const char *shape;
    int replacement; // node expected at the erased node's place, 0 for none
  } cases[] = {
      {5, "40(20(10(-,15),30(25,35)),60(50(45,55),70(65,75)))", 0},  // leaf
      {10, "40(20(15(5,-),30(25,35)),60(50(45,55),70(65,75)))", 15}, // successor is right child
      {40, "45(20(10(5,15),30(25,35)),60(50(-,55),70(65,75)))", 45}, // successor deeper
      {60, "40(20(10(5,15),30(25,35)),65(50(45,55),70(-,75)))", 65}, // inner successor
  };
  for (const auto &c : cases) {
    Tree tree;
    Build(tree, kFull);
    const int32_t height = tree.find(c.erased).node()->m_height;
    tree.erase(c.erased);
    EXPECT_EQ(Shape(tree.tree().root()), c.shape) << c.erased;
    CheckAvl(tree, false);
    EXPECT_TRUE(c.replacement == 0 || tree.find(c.replacement).node()->m_height == height);
  }
  // One-child node: its only child takes the link.
  Tree tree;
  Build(tree, {2, 1, 3, 4});
  const TreeNode *four = tree.find(4).node();
  tree.erase(3);
  EXPECT_EQ(Shape(tree.tree().root()), "2(1,4)");
  EXPECT_EQ(four->m_parent, tree.tree().root());
  tree.erase(tree.end()); // nothing happens
}

// A copy is built element by element: one that cannot be allocated is left
// out, the rest still go in, balanced.
TEST_F(ContainerTest, AvlCopyLeavesOutWhatCannotBeAllocated) {
  Tree tree;
  Build(tree, {4, 2, 6, 1, 3, 5, 7});
  Tree copy(tree);
  EXPECT_NE(copy.tree().root(), tree.tree().root());
  EXPECT_EQ(Shape(copy.tree().root()), Shape(tree.tree().root()));
  kest_test::FailNthAllocation(2);
  Tree shorter(tree);
  Ints keys;
  for (auto it = shorter.begin(); it != shorter.end(); ++it) {
    keys.push_back(it->first);
  }
  EXPECT_EQ(keys, (Ints{1, 3, 4, 5, 6, 7}));
  CheckAvl(shorter, true);
}

// ---------------------------------------------------------------------------
// hash_table

template <class K> class HashTableTest : public kest_test::LeakCheck {
public:
  using Table = oru::fdt::hash_table<K, int>;
  static K Key(uint32_t i) { return KeyOf<K>(i); }
  static std::vector<uint32_t> Order(const Table &t) {
    std::vector<uint32_t> out;
    for (auto it = t.begin(); it != t.end(); ++it) {
      out.push_back(IndexOf(it->first));
    }
    return out;
  }
  // Chain nodes in the old (active) buckets.
  static size_t InActive(const Table &t) {
    size_t n = 0;
    for (const auto &c : t.active_buckets()) {
      n += c.size();
    }
    return n;
  }
};
using KeyTypes = ::testing::Types<uint32_t, const char *>;
TYPED_TEST_SUITE(HashTableTest, KeyTypes);

// A fresh table holds no memory and answers look-ups without buckets; inserts
// climb the ladder of primes, erases from the front walk it down to nothing.
// Each row: elements, then the bucket count and thresholds the policy gives.
TYPED_TEST(HashTableTest, InsertsClimbAndErasesDescendThePrimeLadder) {
  kest_test::ResetCounts();
  typename TestFixture::Table t;
  EXPECT_EQ(kest_test::AllocationCount(), 0);
  EXPECT_EQ(t.find(TestFixture::Key(1)), t.end());
  EXPECT_EQ(t.touch(TestFixture::Key(1)), t.end());
  const uint32_t steps[][4] = {
      {1, 2, 1, 1},       {2, 3, 2, 2},       {3, 5, 4, 2},     {4, 5, 4, 2},     {5, 11, 8, 4},
      {8, 11, 8, 4},      {9, 17, 13, 5},     {13, 17, 13, 5},  {14, 29, 23, 9},  {24, 47, 37, 13},
      {38, 73, 58, 20},   {59, 127, 101, 35}, // the top; erases from here on
      {35, 127, 101, 35}, {34, 53, 101, 35},  {33, 53, 42, 14}, {13, 23, 42, 14}, {12, 23, 18, 6},
      {5, 11, 18, 6},     {4, 11, 8, 4},      {3, 7, 8, 4},     {2, 7, 5, 3},     {1, 7, 5, 3},
      {0, 0, 0, 0}};
  for (const auto &[elements, buckets, next_resize, next_shrink] : steps) {
    SCOPED_TRACE(elements);
    if (elements == 34) {
      // This erase asks for 53 buckets; while they cannot be had the elements
      // stay in the old ones, and the next erase asks again. An insert then
      // brings the count back to 34.
      kest_test::FailAllAllocations(true);
      t.erase(t.begin());
      kest_test::FailAllAllocations(false);
      EXPECT_EQ(t.bucket_count(), 127u);
      t.erase(t.begin());
      ASSERT_EQ(t.bucket_count(), 53u);
      ASSERT_NE(t.insert(TestFixture::Key(500), 500), t.end());
    }
    while (t.size() < elements) {
      ASSERT_NE(t.insert(TestFixture::Key(t.size()), 0), t.end());
    }
    while (t.size() > elements) {
      t.erase(t.begin());
    }
    EXPECT_FALSE(t.migrating()); // under 100 elements a rehash is one step
    EXPECT_EQ(t.bucket_count(), buckets);
    EXPECT_EQ(t.next_resize(), next_resize);
    EXPECT_EQ(t.next_shrink(), next_shrink);
    EXPECT_TRUE(ValidateHash(t));
  }
  EXPECT_EQ(LiveBlocks(Heap::Local), this->m_local);
  // An emptied table starts over.
  ASSERT_NE(t.insert(TestFixture::Key(7), 7), t.end());
  EXPECT_EQ(t.bucket_count(), 2u);
}

// A fixed table refuses from trunc(0.8 * buckets) elements on.
TYPED_TEST(HashTableTest, FixedTableStopsAtEightyPerCent) {
  for (const auto &[buckets, accepted] :
       {std::pair<uint32_t, uint32_t>{0, 0}, {1, 0}, {2, 1}, {3, 2}, {5, 4}, {10, 8}, {101, 80}}) {
    SCOPED_TRACE(buckets);
    typename TestFixture::Table t;
    t.set_auto_resize(false);
    ASSERT_TRUE(t.rehash(buckets));
    for (uint32_t i = 0; i < accepted; ++i) {
      ASSERT_NE(t.insert(TestFixture::Key(i), static_cast<int>(i)), t.end());
    }
    const long blocks = LiveBlocks(Heap::Local);
    EXPECT_EQ(t.insert(TestFixture::Key(1000), 0), t.end());
    EXPECT_EQ(LiveBlocks(Heap::Local), blocks);
    EXPECT_EQ(t.size(), accepted);
    // Room again after an erase; the bucket count does not move.
    if (accepted > 0) {
      t.erase(t.find(TestFixture::Key(0)));
      EXPECT_NE(t.insert(TestFixture::Key(1000), 0), t.end());
    }
    EXPECT_EQ(t.bucket_count(), buckets);
    EXPECT_TRUE(ValidateHash(t));
  }
}

TYPED_TEST(HashTableTest, RehashMovesAHundredNodesPerStep) {
  typename TestFixture::Table t;
  for (uint32_t i = 0; i < 250; ++i) {
    ASSERT_NE(t.insert(TestFixture::Key(i), static_cast<int>(i)), t.end());
  }
  while (t.migrating()) {
    t.touch(TestFixture::Key(0));
  }
  const uint32_t old_buckets = t.bucket_count();
  ASSERT_TRUE(t.rehash(1009));
  // The first step ran inside rehash.
  ASSERT_TRUE(t.migrating());
  EXPECT_EQ(t.bucket_count(), old_buckets);
  EXPECT_EQ(t.new_buckets(), 1009u);
  EXPECT_EQ(TestFixture::InActive(t), 150u);
  // Every key is found, wherever it lies, and find moves nothing.
  for (uint32_t i = 0; i < 250; ++i) {
    ASSERT_NE(t.find(TestFixture::Key(i)), t.end()) << i;
  }
  EXPECT_EQ(TestFixture::InActive(t), 150u);
  // A rehash under way is not restarted or redirected.
  EXPECT_TRUE(t.rehash(7));
  EXPECT_EQ(t.new_buckets(), 1009u);
  // An equal key is refused wherever the first one lies; a new one goes to
  // the new buckets.
  EXPECT_EQ(t.insert(TestFixture::Key(0), 0), t.end());
  EXPECT_EQ(t.insert(TestFixture::Key(249), 0), t.end());
  ASSERT_NE(t.insert(TestFixture::Key(5000), 5000), t.end());
  EXPECT_EQ(TestFixture::InActive(t), 150u);
  // Erasing during the rehash, from either side, never starts another one.
  t.erase(t.find(TestFixture::Key(5000)));
  t.erase(t.begin());
  ASSERT_TRUE(t.migrating());
  EXPECT_EQ(t.new_buckets(), 1009u);
  ASSERT_TRUE(ValidateHash(t));
  // Each touch moves the next hundred.
  const size_t left = TestFixture::InActive(t);
  t.touch(TestFixture::Key(7000));
  EXPECT_EQ(TestFixture::InActive(t), left - 100);
  t.touch(TestFixture::Key(7000));
  EXPECT_FALSE(t.migrating());
  EXPECT_EQ(t.bucket_count(), 1009u);
  EXPECT_EQ(t.size(), 249u);
  EXPECT_TRUE(t.alternate_buckets().empty());
  EXPECT_TRUE(ValidateHash(t));
}

TEST_F(ContainerTest, HashTouchMovesToChainFrontAndEntriesTail) {
  oru::fdt::hash_table<uint32_t, int> t;
  t.set_auto_resize(false);
  ASSERT_TRUE(t.rehash(11));
  // 0, 11, 22 and 33 share bucket 0.
  for (uint32_t i : {0u, 11u, 1u, 22u, 33u, 2u}) {
    ASSERT_NE(t.insert(i, static_cast<int>(i)), t.end());
  }
  auto chain0 = [&] {
    std::vector<uint32_t> out;
    for (const auto *e : t.active_buckets()[0]) {
      out.push_back(e->m_value.first);
    }
    return out;
  };
  EXPECT_EQ(chain0(), (std::vector<uint32_t>{0, 11, 22, 33}));
  EXPECT_EQ(t.touch(22)->second, 22);
  EXPECT_EQ(chain0(), (std::vector<uint32_t>{22, 0, 11, 33}));
  // The head of its chain still moves to the tail of the entries.
  t.touch(22);
  t.touch(0);
  // A miss changes nothing; find never reorders.
  EXPECT_EQ(t.touch(44), t.end());
  EXPECT_EQ(t.find(33)->second, 33);
  EXPECT_EQ(chain0(), (std::vector<uint32_t>{0, 22, 11, 33}));
  EXPECT_EQ(HashTableTest<uint32_t>::Order(t), (std::vector<uint32_t>{11, 1, 33, 2, 22, 0}));
}

// The policy alone: one table, calls in order, each with what it must answer
// and leave behind.
TEST_F(ContainerTest, HashNeedRehashFollowsThePolicy) {
  const struct {
    uint32_t buckets, elements;
    int32_t change;
    bool rehash;
    uint32_t prime, next_resize, next_shrink;
  } calls[] = {
      {0, 0, 1, true, 2, 1, 1},      // first element: two buckets
      {2, 1, 1, true, 3, 2, 2},      // 1.5 times 2 wins over 2 / 0.8
      {3, 0, 1, false, 0, 2, 2},     // below next_resize: nothing
      {5, 3, 1, false, 0, 4, 2},     // 4 / 0.8 is not more than 5
      {5, 4, 1, true, 11, 8, 4},     // 7.5 wanted
      {11, 3, 50, true, 67, 53, 19}, // a large change: 53 / 0.8 wins
      {11, 5, -1, true, 29, 8, 4},   // 1.5 * 19 wanted; thresholds from the 11 buckets
      {67, 2, -1, false, 0, 8, 4},   // down to 1: no
      {67, 1, -1, true, 0, 0, 0},    // down to 0: empty
      {63313, 60000, 1, true, 102013, 81610, 27204}, // beyond the ladder: the last prime
      {102013, 81608, 1, false, 0, 81610, 27204},
      {102013, 81609, 1, false, 0, 81610, 27204}, // 81610 / 0.8 is not more than 102013
      {102013, 81610, 1, true, 102013, 81610, 27204},
      {102013, 90000, 1, true, 102013, 81610, 27204},
  };
  oru::fdt::hash_table<uint32_t, int> t;
  for (const auto &c : calls) {
    SCOPED_TRACE(testing::Message() << c.buckets << " " << c.elements << " " << c.change);
    const auto r = t.need_rehash(c.buckets, c.elements, c.change);
    EXPECT_EQ(r.first, c.rehash);
    EXPECT_EQ(c.rehash ? r.second : 0, c.prime);
    EXPECT_EQ(t.next_resize(), c.next_resize);
    EXPECT_EQ(t.next_shrink(), c.next_shrink);
  }
  using oru::fdt::hash_table_prime_at_least;
  using oru::fdt::hash_table_primes;
  EXPECT_EQ(hash_table_prime_at_least(0.0f), 2u);
  EXPECT_EQ(hash_table_prime_at_least(5e6f), 102013u);
  // Each bucket count is a prime, ascending up to the last.
  EXPECT_EQ(hash_table_primes[oru::fdt::hash_table_prime_count - 1], 102013u);
  for (size_t i = 0; i < oru::fdt::hash_table_prime_count; ++i) {
    for (uint32_t d = 2; d * d <= hash_table_primes[i]; ++d) {
      EXPECT_NE(hash_table_primes[i] % d, 0u) << hash_table_primes[i];
    }
    EXPECT_GT(hash_table_primes[i], 1u);
  }
  for (size_t i = 1; i < oru::fdt::hash_table_prime_count; ++i) {
    EXPECT_LT(hash_table_primes[i - 1], hash_table_primes[i]);
    EXPECT_EQ(hash_table_prime_at_least(hash_table_primes[i]), hash_table_primes[i]);
    EXPECT_EQ(hash_table_prime_at_least(hash_table_primes[i - 1] + 0.5f), hash_table_primes[i]);
  }
}

// Past the largest prime the table keeps its buckets and chains grow longer:
// the policy's answer of the present count must start no rehash.
TEST_F(ContainerTest, HashBeyondTheLargestPrimeChainsGrowLonger) {
  oru::fdt::hash_table<uint32_t, int> t;
  const uint32_t n = 90000; // more than 0.8 * 102013
  for (uint32_t i = 0; i < n; ++i) {
    ASSERT_NE(t.insert(i * 7u, static_cast<int>(i)), t.end()) << i;
    t.touch(i * 7u);
  }
  EXPECT_FALSE(t.migrating());
  EXPECT_EQ(t.bucket_count(), 102013u);
  EXPECT_EQ(t.find(7u * (n - 1))->second, static_cast<int>(n - 1));
  EXPECT_TRUE(ValidateHash(t));
}

// ---------------------------------------------------------------------------
// trie

int AsInt(int v) {
  return v;
}
int AsInt(const Counted &c) {
  return c.v;
}

std::string Fold(std::string s) {
  for (char &c : s) {
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return s;
}

template <class Trie> Ints Values(const Trie *node) {
  Ints out;
  if (node != nullptr) {
    for (const auto &v : node->values()) {
      out.push_back(AsInt(v));
    }
  }
  return out;
}

using Names = std::map<std::string, Ints>;

// Every name that holds values, spelled as stored, with its values.
template <class Trie> Names Dump(const Trie &node, const std::string &prefix = "") {
  Names out;
  if (!node.values().empty()) {
    out[prefix] = Values(&node);
  }
  for (const Trie *child : node.children()) {
    out.merge(Dump(*child, prefix + child->letter()));
  }
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
using TrieValues = ::testing::Types<int, Counted>;
TYPED_TEST_SUITE(TrieTest, TrieValues);

// Names added at random, against a map by folded name: exactly the names
// added hold values, in the order added, with one node per folded prefix.
// A fresh trie is a blank root without memory.
TYPED_TEST(TrieTest, RandomAddsMatchAModel) {
  kest_test::ResetCounts();
  typename TestFixture::Trie t;
  EXPECT_EQ(kest_test::AllocationCount(), 0);
  EXPECT_EQ(t.find("a"), nullptr);
  EXPECT_EQ(t.find(""), &t);
  std::mt19937 rng(1123);
  const char alphabet[] = "aAbB-_0";
  Names ref;
  std::set<std::string> prefixes;
  for (int i = 0; i < 800; ++i) {
    std::string name;
    for (size_t j = rng() % 6; j > 0; --j) {
      name += alphabet[rng() % (sizeof alphabet - 1)];
    }
    ASSERT_TRUE(t.add(name.c_str(), i));
    ref[Fold(name)].push_back(i);
    for (size_t j = 1; j <= name.size(); ++j) {
      prefixes.insert(Fold(name.substr(0, j)));
    }
  }
  EXPECT_EQ(Nodes(t), prefixes.size());
  Names held;
  for (const auto &[name, values] : Dump(t)) {
    held[Fold(name)] = values;
  }
  EXPECT_EQ(held, ref);
  for (const auto &[name, values] : ref) {
    EXPECT_EQ(Values(t.find(name.c_str())), values) << name;
  }
}

// Case variants share a node, which keeps the first spelling; children sort
// by folded letter, so '_' (95) follows 'C' (67) although unfolded it would
// come before 'a' (97). The empty name's values are the root's.
TYPED_TEST(TrieTest, CaseVariantsShareANodeAndChildrenSortFolded) {
  typename TestFixture::Trie t;
  const char *const names[] = {"host", "HOST", "hose", "Content-Type", "content-type", "_", "1",
                               "b",    "B",    ""};
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(t.add(names[i], i));
  }
  EXPECT_EQ(Dump(t), (Names{{"", {9}},
                            {"1", {6}},
                            {"Content-Type", {3, 4}},
                            {"_", {5}},
                            {"b", {7, 8}},
                            {"hose", {2}},
                            {"host", {0, 1}}}));
  std::string letters;
  for (const auto *child : t.children()) {
    letters += child->letter();
  }
  EXPECT_EQ(letters, "1bCh_");
  for (const char *key : {"1", "B", "c", "H", "_"}) {
    EXPECT_EQ(t.find(key), t.child(key[0])) << key;
  }
  EXPECT_EQ(t.find("d"), nullptr);
  EXPECT_EQ(t.find("hosts"), nullptr);
  EXPECT_TRUE(Values(t.find("CONTENT")).empty()); // a prefix holds nothing
  // By length, as a name inside a longer text is looked up.
  EXPECT_EQ(t.find("Content-Type: text/html", 12), t.find("CONTENT-TYPE"));
  EXPECT_EQ(t.find("host", 0), &t);
  EXPECT_EQ(Nodes(t), 20u);
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
  EXPECT_EQ(Values(t.find("a")), (Ints{3, 3, 1}));
  EXPECT_EQ(LiveBlocks(Heap::Local), blocks - 2);
  t.remove("ABC", 3);
  // c went with its three values (one of them removed first), a lost one.
  EXPECT_EQ(LiveBlocks(Heap::Local), blocks - 7);
  ASSERT_EQ(b->children().size(), 2u);
  EXPECT_EQ(b->children()[0], c);
  EXPECT_TRUE(Values(&t).empty());
  EXPECT_EQ(Values(t.find("a")), (Ints{3, 1}));
  EXPECT_TRUE((!std::is_same_v<TypeParam, Counted> || Counted::live == values - 6));
  b->children().erase(b->children().begin());
  EXPECT_EQ(Values(t.find("abd")), (Ints{3}));
  Nodes(t);
}

// The root holds 16 children, so a new first letter also needs a larger
// root vector; every allocation of the add fails in turn. Each new letter
// is one prefixed local block.
TYPED_TEST(TrieTest, FailedAddLosesTheNameAndLeavesTheTrieAsItWas) {
  for (long n = 1;; ++n) {
    SCOPED_TRACE(n);
    typename TestFixture::Trie t;
    for (char c = 'a'; c < 'a' + 16; ++c) {
      const char name[] = {c, 'z', '\0'};
      ASSERT_TRUE(t.add(name, c));
    }
    const Names before = Dump(t);
    const size_t nodes = Nodes(t);
    const long blocks = LiveBlocks(Heap::Local);
    kest_test::ResetCounts();
    kest_test::FailNthAllocation(n);
    kest_test::StartRecording();
    const bool added = t.add("qRs", 7);
    const Sizes sizes = kest_test::RecordedSizes(Heap::Local);
    kest_test::FailNthAllocation(0);
    if (n > kest_test::AllocationCount()) {
      ASSERT_TRUE(added);
      EXPECT_EQ(std::count(sizes.begin(), sizes.end(), sizeof(oru::fdt::ObjectPrefix) + sizeof t),
                3);
      break;
    }
    ASSERT_FALSE(added);
    EXPECT_EQ(Dump(t), before);
    EXPECT_EQ(Nodes(t), nodes);
    EXPECT_EQ(LiveBlocks(Heap::Local), blocks);
    EXPECT_TRUE(t.add("qRs", 7));
    EXPECT_EQ(Values(t.find("QRS")), (Ints{7}));
  }
}

// ---------------------------------------------------------------------------
// intrusive_ptr and refcnt

long g_destroyed = 0;

// Made by CreateObject; released by its prefix.
struct Prefixed : oru::fdt::refcnt {
  KEST_DELETE_BY_PREFIX
  ~Prefixed() override { ++g_destroyed; }
};
// Taken straight from kest_malloc_local.
struct Plain : oru::fdt::refcnt {
  KEST_DELETE_WITH_FREE_LOCAL
  ~Plain() override { ++g_destroyed; }
};
// refcnt as the second base, as connections have it: releasing through the
// base must still free the whole object.
struct Interface {
  virtual ~Interface() = default;
  virtual int Id() const { return 1; }
  long pad = 0;
};
struct SecondBase : Interface, oru::fdt::refcnt {
  KEST_DELETE_BY_PREFIX
  ~SecondBase() override { ++g_destroyed; }
};

using oru::fdt::intrusive_ptr;

TEST_F(ContainerTest, IntrusivePtrCountFollowsHoldersAndTheLastOneDeletes) {
  g_destroyed = 0;
  Prefixed *raw = oru::fdt::CreateObject<Prefixed>(oru::fdt::OBJECT_LOCAL);
  ASSERT_NE(raw, nullptr);
  EXPECT_EQ(raw->use_count(), 0);
  {
    intrusive_ptr<Prefixed> a(raw);
    int32_t count; // the word behind the table pointer
    std::memcpy(&count, reinterpret_cast<const char *>(raw) + sizeof(void *), sizeof count);
    EXPECT_EQ(count, 1);
    intrusive_ptr<Prefixed> b = a;
    intrusive_ptr<Prefixed> c(std::move(b));
    EXPECT_EQ(b.get(), nullptr);
    EXPECT_EQ(raw->use_count(), 2);
    intrusive_ptr<Prefixed> &same = a;
    a = same; // self-assignment keeps the object
    a = raw;
    EXPECT_EQ(raw->use_count(), 2);
    a.reset();
    EXPECT_EQ(raw->use_count(), 1);
    intrusive_ptr<Prefixed> d;
    d = c;
    EXPECT_EQ(raw->use_count(), 2);
    EXPECT_EQ(g_destroyed, 0);
  }
  EXPECT_EQ(g_destroyed, 1);
  // Each deallocation rule frees on its own heap.
  {
    intrusive_ptr<oru::fdt::refcnt> local(oru::fdt::CreateObject<Prefixed>(oru::fdt::OBJECT_LOCAL));
    intrusive_ptr<oru::fdt::refcnt> shared(
        oru::fdt::CreateObject<Prefixed>(oru::fdt::OBJECT_SHARED));
    intrusive_ptr<oru::fdt::refcnt> plain(::new (kest_malloc_local(sizeof(Plain))) Plain());
    EXPECT_EQ(LiveBlocks(Heap::Local), m_local + 2);
    EXPECT_EQ(LiveBlocks(Heap::Shared), m_shared + 1);
    shared.reset(local.get());
    EXPECT_EQ(LiveBlocks(Heap::Shared), m_shared);
    EXPECT_EQ(local->use_count(), 2);
  }
  EXPECT_EQ(g_destroyed, 4);
  // Converted to the second base and back, the whole object is released.
  SecondBase *second = oru::fdt::CreateObject<SecondBase>(oru::fdt::OBJECT_LOCAL);
  ASSERT_NE(second, nullptr);
  intrusive_ptr<SecondBase> derived(second);
  intrusive_ptr<oru::fdt::refcnt> base(derived);
  EXPECT_NE(static_cast<void *>(base.get()), static_cast<void *>(second));
  EXPECT_EQ(base, derived);
  intrusive_ptr<SecondBase> back = oru::fdt::static_pointer_cast<SecondBase>(base);
  EXPECT_EQ(back, derived);
  EXPECT_EQ(back->Id(), 1);
  EXPECT_FALSE(back == nullptr || back < derived || derived < back);
  back.reset();
  EXPECT_TRUE(back == nullptr);
  derived.reset();
  EXPECT_EQ(g_destroyed, 4);
  intrusive_ptr<oru::fdt::refcnt> last(std::move(base));
  last = nullptr;
  EXPECT_EQ(g_destroyed, 5);
}

// ---------------------------------------------------------------------------
// Layouts. Plug-ins are compiled against these headers and hand the objects
// to the library and back: the sizes and field offsets below are part of the
// interface, and a change to them breaks every plug-in built before it.

TEST_F(ContainerTest, PluginsDependOnTheseLayouts) {
  constexpr size_t P = sizeof(void *);
  static_assert(sizeof(oru::fdt::vector<int>) == 3 * P); // begin, end, limit
  static_assert(sizeof(string) == 3 * P);                // begin, end, limit
  static_assert(sizeof(oru::List<int>) == 2 * P);        // the sentinel: next, previous
  static_assert(sizeof(oru::Map<int, string>) == P);     // the root
  using AvlNode = oru::fdt::avl_node<int>;
  static_assert(offsetof(AvlNode, m_left) == 0 && offsetof(AvlNode, m_right) == P);
  static_assert(offsetof(AvlNode, m_parent) == 2 * P && offsetof(AvlNode, m_height) == 3 * P);
  static_assert(offsetof(AvlNode, m_value) == 3 * P + 4);
  // entries (two words), nine 32-bit words (the two flags padded) and padding
  // to a pointer, two pointers, two bucket vectors of three pointers.
  static_assert(P != 8 || sizeof(oru::fdt::hash_table<uint32_t, int>) == 16 + 40 + 16 + 48);
  static_assert(sizeof(intrusive_ptr<oru::fdt::refcnt>) == P);
  static_assert(sizeof(oru::fdt::refcnt) == P + 8); // table pointer, count, padding

  // The objects' own addresses: the list's sentinel is the list, the hash
  // table's entries start it, and a node's value follows its links.
  oru::List<int> list;
  EXPECT_EQ(static_cast<const void *>(list.end().node()), static_cast<const void *>(&list));
  oru::fdt::hash_table<uint32_t, int> table;
  EXPECT_EQ(static_cast<const void *>(&table), static_cast<const void *>(table.end().node()));
  kest_test::StartRecording();
  auto it = list.push_back(7);
  EXPECT_EQ(kest_test::RecordedSizes(Heap::Local), Sizes{sizeof(oru::fdt::list_node<int>)});
  EXPECT_EQ(reinterpret_cast<const char *>(&*it) - reinterpret_cast<const char *>(it.node()),
            static_cast<long>(2 * P));
  // A string's words in field order; a leaf's height is 0.
  string s("abc");
  char *words[3];
  std::memcpy(words, static_cast<const void *>(&s), sizeof words);
  EXPECT_EQ(words[0], s.c_str());
  EXPECT_EQ(words[1], words[0] + 4); // the terminator is stored
  EXPECT_EQ(words[2], words[0] + s.capacity());
  Tree leaf;
  Build(leaf, {1});
  EXPECT_EQ(leaf.tree().root()->m_height, 0);
}

} // namespace
