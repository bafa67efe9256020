#include "LeakCheck.h"

#include <gtest/gtest.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/vector.h>

#include <string>
#include <vector>

namespace {

using kest_test::Heap;
using Sizes = std::vector<size_t>;

template <class V> std::vector<int> Contents(const V &v) {
  return {v.begin(), v.end()};
}

template <class A> class VectorTest : public kest_test::LeakCheck {
protected:
  using Vec = oru::fdt::vector<int, A>;
  static constexpr Heap kHeap = A::is_shared ? Heap::Shared : Heap::Local;
  // Blocks asked for since StartRecording, in ints.
  static Sizes Recorded() { return kest_test::RecordedSizes(kHeap, sizeof(int)); }

  static void Fill(Vec &v, int n) {
    for (int i = 1; i <= n; ++i) {
      ASSERT_TRUE(v.push_back(i));
    }
  }
};

using Allocators =
    ::testing::Types<oru::local_container_alloc<int>, oru::shared_container_alloc<int>>;
TYPED_TEST_SUITE(VectorTest, Allocators);

TYPED_TEST(VectorTest, GrowsUpTheLadderAndShrinksDownThePowersOfTwo) {
  typename TestFixture::Vec v;
  EXPECT_EQ(kest_test::AllocationCount(), 0);
  kest_test::StartRecording();
  this->Fill(v, 100);
  EXPECT_EQ(this->Recorded(), (Sizes{16, 31, 63, 127}));

  kest_test::StartRecording();
  ASSERT_TRUE(v.resize(10));
  EXPECT_EQ(this->Recorded(), (Sizes{64, 32, 16}));
  EXPECT_EQ(Contents(v), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  kest_test::StartRecording();
  ASSERT_TRUE(v.resize(0));
  EXPECT_EQ(this->Recorded(), (Sizes{8, 4, 2, 1}));
  EXPECT_EQ(v.data(), nullptr);

  kest_test::StartRecording();
  ASSERT_TRUE(v.reserve(32));
  ASSERT_TRUE(v.reserve(33));
  EXPECT_EQ(this->Recorded(), (Sizes{32, 63}));
}

TYPED_TEST(VectorTest, FailuresLeaveTheVectorAsItWas) {
  typename TestFixture::Vec v;
  this->Fill(v, 16);
  const int *block = v.data();
  kest_test::FailAllAllocations(true);
  EXPECT_FALSE(v.push_back(17));
  EXPECT_EQ(v.insert(v.begin(), 0), v.end());
  EXPECT_FALSE(v.reserve(40));
  EXPECT_FALSE(v.resize(40));
  kest_test::FailAllAllocations(false);
  EXPECT_EQ(v.data(), block);
  EXPECT_EQ(Contents(v).size(), 16u);
  EXPECT_EQ(v.back(), 16);

  // A failed shrink keeps the block; the next removal tries again.
  this->Fill(v, 84);
  kest_test::FailNthAllocation(1);
  kest_test::StartRecording();
  ASSERT_TRUE(v.resize(63));
  EXPECT_EQ(this->Recorded(), (Sizes{64, 64}));
  EXPECT_EQ(v.capacity(), 64u);
  EXPECT_EQ(v.back(), 47);
}

TYPED_TEST(VectorTest, ResizeValueInitialisesAndCopiesGrowStepByStep) {
  typename TestFixture::Vec v;
  this->Fill(v, 20);
  while (!v.empty()) {
    v.pop_back();
  }
  ASSERT_TRUE(v.resize(3));
  EXPECT_EQ(Contents(v), (std::vector<int>{0, 0, 0}));

  typename TestFixture::Vec source;
  this->Fill(source, 20);
  kest_test::FailNthAllocation(1); // the reserve of 31
  kest_test::StartRecording();
  typename TestFixture::Vec copy(source);
  EXPECT_EQ(this->Recorded(), (Sizes{31, 16, 31}));
  EXPECT_EQ(Contents(copy), Contents(source));
  v = source;
  EXPECT_EQ(Contents(v), Contents(source));
}

TYPED_TEST(VectorTest, InsertAndEraseMatchAReferenceModel) {
  typename TestFixture::Vec v;
  std::vector<int> model;
  // Positive: insert the step's number at that index; negative: erase -index.
  const int steps[] = {0, 1, 0,  1, -1, 2, -2, 0,  3,  1, 4,  5,  0, 2, 8,  6,
                       9, 3, 12, 5, 7,  1, 0,  -4, 10, 2, 11, 20, 4, 3, -9, 6};
  int n = 0;
  for (int step : steps) {
    if (step >= 0) {
      const int *placed = v.insert(v.begin() + step, ++n);
      ASSERT_EQ(placed, v.begin() + step);
      model.insert(model.begin() + step, n);
    } else {
      const int *next = v.erase(v.begin() - step);
      ASSERT_EQ(next, v.begin() - step);
      model.erase(model.begin() - step);
    }
    ASSERT_EQ(Contents(v), model);
  }
}

// Counted, and owns a string, so that every move is a deep copy. It has no
// assignment: the vector must move elements by copy construction.
struct Tracked : kest_test::Counted {
  Tracked() : Tracked(-1) {}
  explicit Tracked(int v) : Counted(v), name(std::to_string(v).c_str()) {}
  Tracked(const Tracked &) = default;
  Tracked &operator=(const Tracked &) = delete;
  oru::fdt::string name;
};

// The values, each checked against the string it owns.
std::vector<int> Values(const oru::fdt::vector<Tracked> &v) {
  std::vector<int> values;
  for (const Tracked &t : v) {
    EXPECT_EQ(std::to_string(t.v), t.name.c_str());
    values.push_back(t.v);
  }
  return values;
}

using ElementVectorTest = kest_test::LeakCheck;

TEST_F(ElementVectorTest, LifetimesBalanceThroughEveryOperation) {
  oru::fdt::vector<Tracked> v;
  std::vector<int> model;
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(v.push_back(Tracked(i)));
    model.push_back(i);
  }
  v.insert(v.begin() + 3, Tracked(100));
  model.insert(model.begin() + 3, 100);
  v.erase(v.begin());
  model.erase(model.begin());
  ASSERT_TRUE(v.resize(5));
  ASSERT_TRUE(v.resize(8));
  model.resize(5);
  model.resize(8, -1);
  EXPECT_EQ(Values(v), model);
  EXPECT_EQ(Tracked::live, 8);

  oru::fdt::vector<Tracked> copy(v);
  copy = v;
  EXPECT_EQ(Values(copy), model);
  EXPECT_EQ(Tracked::live, 16);

  kest_test::FailAllAllocations(true);
  oru::fdt::vector<Tracked> starved(v);
  kest_test::FailAllAllocations(false);
  EXPECT_TRUE(starved.empty());
}

TEST_F(ElementVectorTest, GrowthCopiesStringsDeeplyEvenFromItself) {
  oru::fdt::vector<oru::fdt::string> v;
  const char *blocks[16];
  for (int i = 0; i < 16; ++i) {
    ASSERT_TRUE(v.push_back(oru::fdt::string(std::to_string(i).c_str())));
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
  EXPECT_EQ(kest_test::LiveBlocks(Heap::Local) - m_local, 19);
}

} // namespace
