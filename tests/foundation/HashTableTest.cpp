#include "LeakCheck.h"

#include <gtest/gtest.h>
#include <kest/fdt/hash_table.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <set>
#include <unordered_map>
#include <vector>

namespace {

using kest_test::Counted;
using kest_test::Heap;
using kest_test::LiveBlocks;

// Keys are integers or pointers; pointer keys are addresses in a pool that is
// never read.
char g_pool[1 << 17];

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

// The invariants that every operation must keep: keys are unique; each entry
// is pointed at by exactly one chain node, in the bucket of its key modulo the
// count of the buckets it lies in; old buckets before the cursor are drained;
// outside a rehash the alternate buckets hold nothing.
template <class Table>::testing::AssertionResult Validate(const Table &t) {
  std::set<const void *> entries, seen;
  std::set<uintptr_t> keys;
  for (typename Table::const_iterator it = t.begin(); it != t.end(); ++it) {
    entries.insert(it.node());
    CHECK_OR_FAIL(keys.insert(oru::fdt::hash_table_key_number(it->first)).second, "duplicate key");
  }
  CHECK_OR_FAIL(entries.size() == t.size(), "count " << t.size() << " but " << entries.size());
  CHECK_OR_FAIL(!t.migrating() || t.alternate_buckets().size() == t.new_buckets(), "alternate");
  for (const typename Table::bucket_vector *buckets :
       {&t.active_buckets(), &t.alternate_buckets()}) {
    const size_t first_filled = buckets == &t.active_buckets() && t.migrating() ? t.cursor() : 0;
    for (size_t i = 0; i < buckets->size(); ++i) {
      for (const typename Table::entry_node *e : (*buckets)[i]) {
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

// Elements in entry order, as key indices.
template <class Table> std::vector<uint32_t> Order(const Table &t) {
  std::vector<uint32_t> out;
  for (typename Table::const_iterator it = t.begin(); it != t.end(); ++it) {
    out.push_back(IndexOf(it->first));
  }
  return out;
}

// Chain nodes in the old (active) buckets.
template <class Table> size_t InActive(const Table &t) {
  size_t n = 0;
  for (const auto &c : t.active_buckets()) {
    n += c.size();
  }
  return n;
}

class HashTableCheck : public kest_test::LeakCheck {};

template <class K> class HashTableTest : public HashTableCheck {
protected:
  using Table = oru::fdt::hash_table<K, Counted>;
  static K Key(uint32_t i) {
    if constexpr (std::is_pointer_v<K>) {
      return &g_pool[i];
    } else {
      return i;
    }
  }

  // Inserts and touches each key, so that every rehash finishes.
  static void FillSettled(Table &t, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
      ASSERT_NE(t.insert(Key(i), static_cast<int>(i)), t.end());
    }
    while (t.migrating()) {
      t.touch(Key(0));
    }
  }
};

using KeyTypes = ::testing::Types<uint32_t, const char *>;
TYPED_TEST_SUITE(HashTableTest, KeyTypes);

// Element count, then the bucket count and thresholds the growth rule gives.
struct LadderStep {
  uint32_t elements, buckets, next_resize, next_shrink;
};

// A fresh table holds no memory and answers look-ups without buckets; inserts
// climb the ladder, erases from the front walk it down to nothing.
TYPED_TEST(HashTableTest, InsertsClimbAndErasesDescendThePrimeLadder) {
  kest_test::ResetCounts();
  typename TestFixture::Table t;
  EXPECT_EQ(kest_test::AllocationCount(), 0);
  EXPECT_EQ(t.find(TestFixture::Key(1)), t.end());
  EXPECT_EQ(t.touch(TestFixture::Key(1)), t.end());
  auto check = [&](const LadderStep &s) {
    SCOPED_TRACE(s.elements);
    EXPECT_FALSE(t.migrating()); // under 100 elements a rehash is one step
    EXPECT_EQ(t.size(), s.elements);
    EXPECT_EQ(t.bucket_count(), s.buckets);
    EXPECT_EQ(t.next_resize(), s.next_resize);
    EXPECT_EQ(t.next_shrink(), s.next_shrink);
    EXPECT_TRUE(Validate(t));
  };
  const LadderStep up[] = {{1, 2, 1, 1},    {2, 3, 2, 2},     {3, 5, 4, 2},     {4, 5, 4, 2},
                           {5, 11, 8, 4},   {8, 11, 8, 4},    {9, 17, 13, 5},   {13, 17, 13, 5},
                           {14, 29, 23, 9}, {24, 47, 37, 13}, {38, 73, 58, 20}, {59, 127, 101, 35}};
  for (const LadderStep &s : up) {
    while (t.size() < s.elements) {
      ASSERT_NE(t.insert(TestFixture::Key(t.size()), 0), t.end());
    }
    check(s);
  }
  const LadderStep down[] = {{35, 127, 101, 35}, {34, 53, 101, 35}, {33, 53, 42, 14},
                             {13, 23, 42, 14},   {12, 23, 18, 6},   {5, 11, 18, 6},
                             {4, 11, 8, 4},      {3, 7, 8, 4},      {2, 7, 5, 3},
                             {1, 7, 5, 3},       {0, 0, 0, 0}};
  for (const LadderStep &s : down) {
    if (s.elements == 34) {
      // This erase asks for 53 buckets; while they cannot be had the elements
      // stay in the old ones, and the next erase asks again. An insert then
      // brings the count back to 34.
      kest_test::FailAllAllocations(true);
      t.erase(t.begin());
      kest_test::FailAllAllocations(false);
      EXPECT_EQ(t.bucket_count(), 127u);
      ASSERT_TRUE(Validate(t));
      t.erase(t.begin());
      ASSERT_EQ(t.bucket_count(), 53u);
      ASSERT_NE(t.insert(TestFixture::Key(500), 500), t.end());
    }
    while (t.size() > s.elements) {
      t.erase(t.begin());
    }
    check(s);
  }
  EXPECT_EQ(LiveBlocks(Heap::Local), this->m_local);
  // An emptied table starts over.
  ASSERT_NE(t.insert(TestFixture::Key(7), 7), t.end());
  EXPECT_EQ(t.bucket_count(), 2u);
}

// A fixed table refuses from trunc(0.8 * buckets) elements on.
TYPED_TEST(HashTableTest, FixedTableStopsAtEightyPerCent) {
  const struct {
    uint32_t buckets, accepted;
  } cases[] = {{0, 0}, {1, 0}, {2, 1}, {3, 2}, {5, 4}, {10, 8}, {101, 80}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.buckets);
    typename TestFixture::Table t;
    t.set_auto_resize(false);
    ASSERT_TRUE(t.rehash(c.buckets));
    ASSERT_EQ(t.bucket_count(), c.buckets);
    for (uint32_t i = 0; i < c.accepted; ++i) {
      ASSERT_NE(t.insert(TestFixture::Key(i), static_cast<int>(i)), t.end());
    }
    const long blocks = LiveBlocks(Heap::Local);
    EXPECT_EQ(t.insert(TestFixture::Key(1000), 0), t.end());
    EXPECT_EQ(LiveBlocks(Heap::Local), blocks);
    EXPECT_EQ(t.size(), c.accepted);
    EXPECT_EQ(t.bucket_count(), c.buckets);
    EXPECT_EQ(t.find(TestFixture::Key(1000)), t.end());
    // Room again after an erase; the bucket count does not move.
    if (c.accepted > 0) {
      t.erase(t.find(TestFixture::Key(0)));
      EXPECT_NE(t.insert(TestFixture::Key(1000), 0), t.end());
      EXPECT_EQ(t.bucket_count(), c.buckets);
    }
    EXPECT_TRUE(Validate(t));
  }
}

TEST_F(HashTableCheck, TouchMovesToChainFrontAndEntriesTail) {
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
  EXPECT_EQ(chain0(), (std::vector<uint32_t>{0, 22, 11, 33}));
  EXPECT_EQ(Order(t), (std::vector<uint32_t>{11, 1, 33, 2, 22, 0}));
  // A miss changes nothing; find never reorders.
  EXPECT_EQ(t.touch(44), t.end());
  EXPECT_EQ(t.find(33)->second, 33);
  EXPECT_EQ(chain0(), (std::vector<uint32_t>{0, 22, 11, 33}));
  EXPECT_EQ(Order(t), (std::vector<uint32_t>{11, 1, 33, 2, 22, 0}));
}

TYPED_TEST(HashTableTest, RehashMovesAHundredNodesPerStep) {
  typename TestFixture::Table t;
  TestFixture::FillSettled(t, 250);
  const uint32_t old_buckets = t.bucket_count();
  ASSERT_TRUE(t.rehash(1009));
  // The first step ran inside rehash.
  ASSERT_TRUE(t.migrating());
  EXPECT_EQ(t.bucket_count(), old_buckets);
  EXPECT_EQ(t.new_buckets(), 1009u);
  EXPECT_EQ(InActive(t), 150u);
  ASSERT_TRUE(Validate(t));
  // Every key is found, wherever it lies, and find moves nothing.
  for (uint32_t i = 0; i < 250; ++i) {
    ASSERT_NE(t.find(TestFixture::Key(i)), t.end()) << i;
  }
  EXPECT_EQ(InActive(t), 150u);
  // A rehash under way is not restarted or redirected.
  EXPECT_TRUE(t.rehash(7));
  EXPECT_EQ(t.new_buckets(), 1009u);
  // An equal key is refused wherever the first one lies.
  EXPECT_EQ(t.insert(TestFixture::Key(0), 0), t.end());
  EXPECT_EQ(t.insert(TestFixture::Key(249), 0), t.end());
  // A new key goes to the new buckets.
  ASSERT_NE(t.insert(TestFixture::Key(5000), 5000), t.end());
  EXPECT_EQ(InActive(t), 150u);
  EXPECT_TRUE(Validate(t));
  // Erasing during the rehash, from either side, never starts another one.
  t.erase(t.find(TestFixture::Key(5000)));
  t.erase(t.begin());
  ASSERT_TRUE(t.migrating());
  EXPECT_EQ(t.new_buckets(), 1009u);
  ASSERT_TRUE(Validate(t));
  const size_t left = InActive(t);
  // Each touch moves the next hundred.
  t.touch(TestFixture::Key(7000));
  EXPECT_EQ(InActive(t), left - 100);
  ASSERT_TRUE(t.migrating());
  ASSERT_TRUE(Validate(t));
  t.touch(TestFixture::Key(7000));
  EXPECT_FALSE(t.migrating());
  EXPECT_EQ(t.bucket_count(), 1009u);
  EXPECT_EQ(t.size(), 249u);
  EXPECT_TRUE(t.alternate_buckets().empty());
  EXPECT_TRUE(Validate(t));
}

TYPED_TEST(HashTableTest, FailedAllocationsLeaveTheTableAsItWas) {
  // Each allocation of an insert that grows the table fails in turn: the entry
  // node, the chain node and the new bucket vector.
  for (long n = 1;; ++n) {
    SCOPED_TRACE(n);
    typename TestFixture::Table t;
    TestFixture::FillSettled(t, 4); // the fifth insert grows 5 to 11 buckets
    const std::vector<uint32_t> before = Order(t);
    const long blocks = LiveBlocks(Heap::Local);
    kest_test::ResetCounts();
    kest_test::FailNthAllocation(n);
    typename TestFixture::Table::iterator it = t.insert(TestFixture::Key(4), 4);
    kest_test::FailNthAllocation(0);
    const long made = kest_test::AllocationCount();
    ASSERT_TRUE(Validate(t));
    if (n > made) {
      ASSERT_NE(it, t.end());
      break;
    }
    if (it == t.end()) {
      EXPECT_EQ(Order(t), before);
      EXPECT_EQ(t.size(), 4u);
      EXPECT_EQ(t.find(TestFixture::Key(4)), t.end());
      // A bucket vector bought before the failure may stay.
      EXPECT_LE(LiveBlocks(Heap::Local) - blocks, 1);
      EXPECT_NE(t.insert(TestFixture::Key(4), 4), t.end());
    } else {
      // Only the growth failed: the old buckets took the element.
      EXPECT_EQ(t.bucket_count(), 5u);
      EXPECT_EQ(t.size(), 5u);
      EXPECT_EQ(it->second.v, 4);
    }
  }
}

TYPED_TEST(HashTableTest, RandomOperationsMatchAReference) {
  std::mt19937 rng(20261123);
  typename TestFixture::Table t;
  std::unordered_map<uint32_t, int> ref;
  std::vector<uint32_t> order; // least recently inserted or touched first
  auto forget = [&](uint32_t k) { order.erase(std::find(order.begin(), order.end(), k)); };
  int migrating_steps = 0;
  for (int step = 0; step < 3000; ++step) {
    // Phases of mostly growing and mostly shrinking, so that the table
    // rehashes both ways, with and without large migrations.
    const bool growing = (step / 750) % 2 == 0;
    const uint32_t k = rng() % 400;
    const unsigned op = rng() % 10;
    const bool present = ref.count(k) == 1;
    if (op < (growing ? 5u : 2u)) {
      ASSERT_EQ(t.insert(TestFixture::Key(k), step) != t.end(), !present) << step;
      if (!present) {
        ref[k] = step;
        order.push_back(k);
      }
    } else if (op < 7) {
      typename TestFixture::Table::iterator it = t.touch(TestFixture::Key(k));
      ASSERT_EQ(it != t.end(), present) << step;
      if (present) {
        ASSERT_EQ(it->second.v, ref[k]);
        forget(k);
        order.push_back(k);
      }
    } else {
      typename TestFixture::Table::iterator it = t.find(TestFixture::Key(k));
      ASSERT_EQ(it != t.end(), present) << step;
      if (present && op >= 8) {
        t.erase(it);
        ref.erase(k);
        forget(k);
      }
    }
    ASSERT_EQ(t.size(), ref.size());
    ASSERT_EQ(Order(t), order) << step;
    ASSERT_TRUE(Validate(t)) << step;
    ASSERT_EQ(Counted::live, static_cast<long>(ref.size()));
    migrating_steps += t.migrating() ? 1 : 0;
  }
  // The sequence did exercise rehashes of more than one step.
  EXPECT_GT(migrating_steps, 0);
}

// The policy on its own: one table, calls in order, each with what it must
// answer and leave behind.
struct PolicyCall {
  uint32_t buckets, elements;
  int32_t change;
  bool rehash;
  uint32_t prime, next_resize, next_shrink;
};

TEST_F(HashTableCheck, NeedRehashFollowsThePolicy) {
  const PolicyCall calls[] = {
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
  for (const PolicyCall &c : calls) {
    SCOPED_TRACE(testing::Message() << c.buckets << " " << c.elements << " " << c.change);
    oru::fdt::pair<bool, uint32_t> r = t.need_rehash(c.buckets, c.elements, c.change);
    EXPECT_EQ(r.first, c.rehash);
    if (c.rehash) {
      EXPECT_EQ(r.second, c.prime);
    }
    EXPECT_EQ(t.next_resize(), c.next_resize);
    EXPECT_EQ(t.next_shrink(), c.next_shrink);
  }
}

TEST_F(HashTableCheck, PrimeSearchStopsAtTheLastPrime) {
  using oru::fdt::hash_table_prime_at_least;
  using oru::fdt::hash_table_primes;
  EXPECT_EQ(hash_table_prime_at_least(0.0f), 2u);
  EXPECT_EQ(hash_table_prime_at_least(5e6f), 102013u);
  for (size_t i = 1; i < oru::fdt::hash_table_prime_count; ++i) {
    EXPECT_LT(hash_table_primes[i - 1], hash_table_primes[i]);
    EXPECT_EQ(hash_table_prime_at_least(hash_table_primes[i]), hash_table_primes[i]);
    EXPECT_EQ(hash_table_prime_at_least(hash_table_primes[i - 1] + 0.5f), hash_table_primes[i]);
  }
}

TEST_F(HashTableCheck, BeyondTheLargestPrimeChainsGrowLonger) {
  oru::fdt::hash_table<uint32_t, int> t;
  const uint32_t n = 90000; // more than 0.8 * 102013
  for (uint32_t i = 0; i < n; ++i) {
    ASSERT_NE(t.insert(i * 7u, static_cast<int>(i)), t.end()) << i;
    t.touch(i * 7u);
  }
  while (t.migrating()) {
    t.touch(0);
  }
  EXPECT_EQ(t.bucket_count(), 102013u);
  EXPECT_EQ(t.size(), n);
  EXPECT_EQ(t.next_resize(), 81610u);
  EXPECT_EQ(t.find(7u * (n - 1))->second, static_cast<int>(n - 1));
  EXPECT_TRUE(Validate(t));
}

TEST_F(HashTableCheck, LayoutIsTheFieldTable) {
  using Table = oru::fdt::hash_table<uint32_t, int>;
  // entries (two words), nine 32-bit words (the two flags padded) and padding
  // to a pointer, two pointers, two bucket vectors of three pointers.
  static_assert(sizeof(void *) != 8 || sizeof(Table) == 16 + 40 + 16 + 48);
  Table t;
  EXPECT_EQ(static_cast<const void *>(&t), static_cast<const void *>(t.end().node()));
}

} // namespace
