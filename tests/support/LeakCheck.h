// A fixture for tests that run on the hooks: installs them and, after the
// test, turns off any planned allocation failure and checks that every block
// taken from either heap went back and every Counted was destroyed.
#ifndef KEST_TESTS_LEAKCHECK_H
#define KEST_TESTS_LEAKCHECK_H

#include "Counted.h"
#include "TestHooks.h"

#include <gtest/gtest.h>

#include <vector>

namespace kest_test {

// Stops recording and gives the sizes asked for, in units of `unit` bytes,
// checking that each came from `heap`.
inline std::vector<size_t> RecordedSizes(Heap heap, size_t unit = 1) {
  std::vector<size_t> sizes;
  for (const Allocation &a : StopRecording()) {
    EXPECT_EQ(a.heap, heap);
    sizes.push_back(a.size / unit);
  }
  return sizes;
}

class LeakCheck : public ::testing::Test {
protected:
  void SetUp() override {
    InstallHooks();
    m_local = LiveBlocks(Heap::Local);
    m_shared = LiveBlocks(Heap::Shared);
    Counted::live = 0;
  }
  void TearDown() override {
    FailNthAllocation(0);
    FailAllAllocations(false);
    EXPECT_EQ(Counted::live, 0);
    EXPECT_EQ(LiveBlocks(Heap::Local), m_local);
    EXPECT_EQ(LiveBlocks(Heap::Shared), m_shared);
  }
  long m_local = 0;
  long m_shared = 0;
};

} // namespace kest_test

#endif
