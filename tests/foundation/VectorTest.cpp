#include "TestHooks.h"

#include <gtest/gtest.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/vector.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using kest_test::Heap;

std::vector<size_t> Sizes(const std::vector<kest_test::Allocation> &records, Heap heap) {
  std::vector<size_t> sizes;
  for (const kest_test::Allocation &record : records) {
    EXPECT_EQ(record.heap, heap);
    sizes.push_back(record.size);
  }
  return sizes;
}

std::vector<size_t> Times(std::vector<size_t> counts, size_t unit) {
  for (size_t &n : counts) {
    n *= unit;
  }
  return counts;
}

template <class V> std::vector<int> Contents(const V &v) {
  return std::vector<int>(v.begin(), v.end());
}

class LeakCheck : public ::testing::Test {
protected:
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
  long LiveDelta(Heap heap) const {
    return kest_test::LiveBlocks(heap) - (heap == Heap::Local ? m_live_local : m_live_shared);
  }

  long m_live_local = 0;
  long m_live_shared = 0;
};

// ---------------------------------------------------------------------------
// Plain words, on both heaps.

template <class A> struct IntVectorOf;
template <> struct IntVectorOf<oru::local_container_alloc<int>> {
  static constexpr Heap heap = Heap::Local;
};
template <> struct IntVectorOf<oru::shared_container_alloc<int>> {
  static constexpr Heap heap = Heap::Shared;
};

template <class A> class VectorTest : public LeakCheck {
protected:
  using Vec = oru::fdt::vector<int, A>;
  static constexpr Heap kHeap = IntVectorOf<A>::heap;

  static void Fill(Vec &v, int n) {
    for (int i = 0; i < n; ++i) {
      ASSERT_TRUE(v.push_back(i + 1));
    }
  }
};

using Allocators =
    ::testing::Types<oru::local_container_alloc<int>, oru::shared_container_alloc<int>>;
TYPED_TEST_SUITE(VectorTest, Allocators);

TYPED_TEST(VectorTest, PushBackClimbsTheLadderFromNothing) {
  typename TestFixture::Vec v;
  EXPECT_EQ(kest_test::AllocationCount(), 0);
  EXPECT_TRUE(v.empty());
  EXPECT_EQ(v.data(), nullptr);

  kest_test::StartRecording();
  this->Fill(v, 100);
  EXPECT_EQ(Sizes(kest_test::StopRecording(), this->kHeap), Times({16, 31, 63, 127}, sizeof(int)));
  EXPECT_EQ(v.size(), 100u);
  EXPECT_EQ(v.capacity(), 127u);
  EXPECT_EQ(v.front(), 1);
  EXPECT_EQ(v.back(), 100);
  EXPECT_EQ(v[49], 50);
}

TYPED_TEST(VectorTest, ReserveRoundsLikeStrings) {
  const struct {
    size_t request;
    size_t capacity;
  } cases[] = {{1, 1}, {16, 16}, {17, 31}, {32, 32}, {33, 63}, {200, 255}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.request);
    typename TestFixture::Vec v;
    kest_test::StartRecording();
    ASSERT_TRUE(v.reserve(c.request));
    ASSERT_TRUE(v.reserve(c.request - 1));
    EXPECT_EQ(Sizes(kest_test::StopRecording(), this->kHeap), Times({c.capacity}, sizeof(int)));
    EXPECT_EQ(v.capacity(), c.capacity);
  }
}

TYPED_TEST(VectorTest, FailedGrowthLeavesTheVectorAsItWas) {
  typename TestFixture::Vec v;
  this->Fill(v, 16);
  const int *block = v.data();

  kest_test::FailNthAllocation(1);
  EXPECT_FALSE(v.push_back(17));
  kest_test::FailNthAllocation(1);
  EXPECT_EQ(v.insert(v.begin(), 0), v.end());
  kest_test::FailNthAllocation(1);
  EXPECT_FALSE(v.reserve(40));
  kest_test::FailNthAllocation(1);
  EXPECT_FALSE(v.resize(40));

  EXPECT_EQ(v.data(), block);
  EXPECT_EQ(v.size(), 16u);
  EXPECT_EQ(v.capacity(), 16u);
  EXPECT_EQ(v.back(), 16);
}

TYPED_TEST(VectorTest, ShrinkingWalksDownThePowersOfTwo) {
  typename TestFixture::Vec v;
  this->Fill(v, 100);
  kest_test::StartRecording();
  ASSERT_TRUE(v.resize(10));
  EXPECT_EQ(Sizes(kest_test::StopRecording(), this->kHeap), Times({64, 32, 16}, sizeof(int)));
  EXPECT_EQ(v.capacity(), 16u);
  EXPECT_EQ(Contents(v), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));

  kest_test::StartRecording();
  ASSERT_TRUE(v.resize(0));
  EXPECT_EQ(Sizes(kest_test::StopRecording(), this->kHeap), Times({8, 4, 2, 1}, sizeof(int)));
  EXPECT_EQ(v.data(), nullptr);
  EXPECT_EQ(v.capacity(), 0u);
  EXPECT_EQ(this->LiveDelta(this->kHeap), 0);
}

TYPED_TEST(VectorTest, FailedShrinkKeepsTheBlockAndTriesAgain) {
  typename TestFixture::Vec v;
  this->Fill(v, 100);
  kest_test::FailNthAllocation(1);
  kest_test::StartRecording();
  ASSERT_TRUE(v.resize(63));
  // The step to 64 elements fails at size 64 and succeeds at size 63.
  EXPECT_EQ(Sizes(kest_test::StopRecording(), this->kHeap), Times({64, 64}, sizeof(int)));
  EXPECT_EQ(v.capacity(), 64u);
  EXPECT_EQ(v.size(), 63u);
  EXPECT_EQ(v.back(), 63);
}

TYPED_TEST(VectorTest, ResizeGrowthValueInitialises) {
  typename TestFixture::Vec v;
  this->Fill(v, 5);
  while (!v.empty()) {
    v.pop_back();
  }
  EXPECT_EQ(v.capacity(), 16u);
  ASSERT_TRUE(v.resize(5));
  EXPECT_EQ(Contents(v), (std::vector<int>{0, 0, 0, 0, 0}));

  kest_test::StartRecording();
  ASSERT_TRUE(v.resize(20));
  EXPECT_EQ(Sizes(kest_test::StopRecording(), this->kHeap), Times({31}, sizeof(int)));
  EXPECT_EQ(v.size(), 20u);
  EXPECT_EQ(v[19], 0);
}

TYPED_TEST(VectorTest, InsertAndEraseMatchAReferenceModel) {
  typename TestFixture::Vec v;
  std::vector<int> model;
  struct Step {
    bool insert;
    size_t index;
    int value;
  };
  const Step steps[] = {
      {true, 0, 1},  {true, 1, 2},  {true, 0, 3},  {true, 1, 4},  {false, 0, 0}, {false, 2, 0},
      {true, 2, 5},  {false, 1, 0}, {false, 1, 0}, {false, 0, 0}, {true, 0, 6},  {true, 1, 7},
      {true, 1, 8},  {true, 3, 9},  {true, 0, 10}, {true, 5, 11}, {false, 5, 0}, {true, 2, 12},
      {true, 2, 13}, {true, 7, 14}, {true, 0, 15}, {true, 9, 16}, {true, 4, 17}, {true, 6, 18},
      {true, 1, 19}, {true, 0, 20}, {true, 3, 21}, {true, 9, 22}, {true, 8, 23}, {false, 12, 0},
  };
  for (const Step &step : steps) {
    if (step.insert) {
      auto it = v.insert(v.begin() + step.index, step.value);
      ASSERT_EQ(it, v.begin() + step.index);
      model.insert(model.begin() + static_cast<long>(step.index), step.value);
    } else {
      auto it = v.erase(v.begin() + step.index);
      ASSERT_EQ(it, v.begin() + step.index);
      model.erase(model.begin() + static_cast<long>(step.index));
    }
    ASSERT_EQ(Contents(v), model);
  }
  EXPECT_EQ(v.capacity(), 31u);
}

TYPED_TEST(VectorTest, CopyWithoutItsBlockGrowsStepByStep) {
  typename TestFixture::Vec source;
  this->Fill(source, 20);

  kest_test::FailNthAllocation(1);
  kest_test::StartRecording();
  typename TestFixture::Vec copy(source);
  EXPECT_EQ(Sizes(kest_test::StopRecording(), this->kHeap), Times({31, 16, 31}, sizeof(int)));
  EXPECT_EQ(Contents(copy), Contents(source));

  kest_test::FailAllAllocations(true);
  typename TestFixture::Vec starved(source);
  kest_test::FailAllAllocations(false);
  EXPECT_TRUE(starved.empty());

  typename TestFixture::Vec assigned;
  this->Fill(assigned, 3);
  assigned = source;
  EXPECT_EQ(Contents(assigned), Contents(source));
  assigned = typename TestFixture::Vec();
  EXPECT_TRUE(assigned.empty());
}

TYPED_TEST(VectorTest, FieldsAreBeginEndLimit) {
  typename TestFixture::Vec v;
  this->Fill(v, 3);
  int *words[3];
  static_assert(sizeof(v) == sizeof(words));
  std::memcpy(words, static_cast<const void *>(&v), sizeof words);
  EXPECT_EQ(words[0], v.data());
  EXPECT_EQ(words[1] - words[0], 3);
  EXPECT_EQ(words[2] - words[0], 16);
}

// ---------------------------------------------------------------------------
// Elements that own memory.

// Counts itself and owns a string, so that every relocation is a deep copy.
// It has no assignment: the vector must move elements by copy construction.
struct Tracked {
  static int live;
  static int copies;

  Tracked() : value(-1), name("-1") { ++live; }
  explicit Tracked(int v) : value(v), name(std::to_string(v).c_str()) { ++live; }
  Tracked(const Tracked &other) : value(other.value), name(other.name) {
    ++live;
    ++copies;
  }
  Tracked &operator=(const Tracked &) = delete;
  ~Tracked() { --live; }

  int value;
  oru::fdt::string name;
};
int Tracked::live = 0;
int Tracked::copies = 0;

class ElementVectorTest : public LeakCheck {
protected:
  void SetUp() override {
    LeakCheck::SetUp();
    Tracked::live = 0;
    Tracked::copies = 0;
  }
  void TearDown() override {
    EXPECT_EQ(Tracked::live, 0);
    LeakCheck::TearDown();
  }

  template <class V> static std::vector<int> Values(const V &v) {
    std::vector<int> values;
    for (const Tracked &t : v) {
      EXPECT_EQ(std::to_string(t.value), t.name.c_str());
      values.push_back(t.value);
    }
    return values;
  }
};

TEST_F(ElementVectorTest, ConstructionsAndDestructionsBalance) {
  {
    oru::fdt::vector<Tracked> v;
    std::vector<int> model;
    for (int i = 0; i < 40; ++i) {
      ASSERT_TRUE(v.push_back(Tracked(i)));
      model.push_back(i);
    }
    EXPECT_EQ(Tracked::live, 40);
    EXPECT_EQ(Values(v), model);

    ASSERT_NE(v.insert(v.begin() + 3, Tracked(100)), v.end());
    model.insert(model.begin() + 3, 100);
    v.erase(v.begin());
    model.erase(model.begin());
    v.pop_back();
    model.pop_back();
    EXPECT_EQ(Values(v), model);

    ASSERT_TRUE(v.resize(5));
    model.resize(5);
    ASSERT_TRUE(v.resize(8));
    model.resize(8, -1);
    EXPECT_EQ(Values(v), model);
    EXPECT_EQ(Tracked::live, 8);

    oru::fdt::vector<Tracked> copy(v);
    EXPECT_EQ(Tracked::live, 16);
    copy = v;
    EXPECT_EQ(Tracked::live, 16);
    EXPECT_EQ(Values(copy), model);

    v.clear();
    EXPECT_EQ(v.data(), nullptr);
    EXPECT_EQ(Tracked::live, 8);
  }
  EXPECT_EQ(Tracked::live, 0);
}

TEST_F(ElementVectorTest, GrowthCopiesStringsDeeply) {
  oru::fdt::vector<oru::fdt::string> v;
  const char *blocks[16];
  for (int i = 0; i < 16; ++i) {
    ASSERT_TRUE(v.push_back(oru::fdt::string(std::to_string(i * 7).c_str())));
    blocks[i] = v[i].c_str();
  }
  EXPECT_EQ(LiveDelta(Heap::Local), 17);

  // The vector is full: this push relocates every string into a new block.
  ASSERT_TRUE(v.push_back(oru::fdt::string("last")));
  EXPECT_EQ(v.capacity(), 31u);
  EXPECT_EQ(LiveDelta(Heap::Local), 18);
  for (int i = 0; i < 16; ++i) {
    EXPECT_NE(v[i].c_str(), blocks[i]);
    EXPECT_STREQ(v[i].c_str(), std::to_string(i * 7).c_str());
  }
  EXPECT_STREQ(v.back().c_str(), "last");
}

TEST_F(ElementVectorTest, ElementsOfTheVectorItselfCanBeAdded) {
  oru::fdt::vector<oru::fdt::string> v;
  for (int i = 0; i < 16; ++i) {
    ASSERT_TRUE(v.push_back(oru::fdt::string(std::to_string(i).c_str())));
  }
  // Full block: the source is relocated while it is being copied.
  ASSERT_TRUE(v.push_back(v[0]));
  EXPECT_STREQ(v[16].c_str(), "0");
  // Room left: the source shifts up while the gap opens.
  ASSERT_NE(v.insert(v.begin() + 2, v[5]), v.end());
  EXPECT_STREQ(v[2].c_str(), "5");
  EXPECT_STREQ(v[6].c_str(), "5");
  ASSERT_NE(v.insert(v.begin(), v.back()), v.end());
  EXPECT_STREQ(v[0].c_str(), "0");
  EXPECT_EQ(v.size(), 19u);
}

TEST_F(ElementVectorTest, SharedVectorOfSharedStringsStaysOffTheLocalHeap) {
  using SharedVec = oru::fdt::vector<oru::fdt::shared_string,
                                     oru::shared_container_alloc<oru::fdt::shared_string>>;
  SharedVec v;
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(v.push_back(oru::fdt::shared_string("value")));
  }
  SharedVec copy(v);
  ASSERT_TRUE(copy.resize(3));
  EXPECT_EQ(LiveDelta(Heap::Local), 0);
  EXPECT_EQ(LiveDelta(Heap::Shared), 2 + 20 + 3);
  EXPECT_STREQ(copy[2].c_str(), "value");
}

TEST_F(ElementVectorTest, StarvedCopyIsShorterAndSilent) {
  oru::fdt::vector<Tracked> source;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(source.push_back(Tracked(i)));
  }
  kest_test::FailAllAllocations(true);
  oru::fdt::vector<Tracked> copy(source);
  kest_test::FailAllAllocations(false);
  EXPECT_TRUE(copy.empty());
  EXPECT_EQ(Tracked::live, 3);
}

} // namespace
