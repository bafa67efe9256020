#include "InstanceFixture.h"
#include "ParkedThread.h"

#include "runtime/ThreadList.h"

namespace {

using kest_test::ParkedThread;

class ThreadListTest : public kest_test::OpenFixture {
protected:
  uint64_t Collector() {
    Enter();
    const uint64_t c = oru::ThreadList::Collector();
    Leave();
    return c;
  }
};

TEST_F(ThreadListTest, TheYoungestThreadTakesOverFromALeavingCollector) {
  ParkedThread first(h), second(h), third(h);
  EXPECT_EQ(Collector(), first.id()) << "the first thread is elected";
  second.Release();
  EXPECT_EQ(Collector(), first.id()) << "a non-collector leaving changes nothing";
  first.Release();
  EXPECT_EQ(Collector(), third.id()) << "the youngest remaining thread takes over";
  third.Release();
  EXPECT_EQ(Collector(), 0u) << "no thread, no collector";
  ParkedThread next(h);
  EXPECT_EQ(Collector(), next.id()) << "the next kest_init takes the role";
}

TEST_F(ThreadListTest, AThreadThatCannotBeListedIsStillElectedAndFailsInit) {
  // kest_init's last allocation is the list entry: find it by counting a
  // successful init first.
  kest_test::ResetCounts();
  ASSERT_EQ(kest_init(h), 0);
  const long allocations = kest_test::AllocationCount();
  ASSERT_EQ(kest_fini(h), 0);
  kest_test::FailNthAllocation(allocations);
  EXPECT_EQ(kest_init(h), -1);
  kest_test::FailNthAllocation(0);
  EXPECT_EQ(kest_errno, KEST_ENOMEM);
  EXPECT_EQ(Collector(), kest_get_thread_id());
  // The context is fully started; kest_fini gives it back and the role goes.
  EXPECT_EQ(kest_fini(h), 0);
  EXPECT_EQ(Collector(), 0u);
}

} // namespace
