#include "InstanceFixture.h"

#include "runtime/ThreadList.h"

#include <latch>
#include <thread>

namespace {

// A thread that inits on start and fini's when told to.
class Worker {
public:
  explicit Worker(kest_handle_t h)
      : m_thread([this, h] {
          EXPECT_EQ(kest_init(h), 0);
          m_id = kest_get_thread_id();
          m_started.count_down();
          m_stop.wait();
          EXPECT_EQ(kest_fini(h), 0);
        }) {
    m_started.wait();
  }
  void Finish() {
    m_stop.count_down();
    m_thread.join();
  }
  uint64_t id() const { return m_id; }

private:
  std::latch m_started{1}, m_stop{1};
  uint64_t m_id = 0;
  std::thread m_thread;
};

class ThreadListTest : public kest_test::InstanceFixture {
protected:
  uint64_t Collector() {
    oru::Runtime::l_instance_id = h;
    const uint64_t c = oru::ThreadList::Collector();
    oru::Runtime::l_instance_id = 0;
    return c;
  }
  kest_handle_t h = -1;
};

TEST_F(ThreadListTest, TheYoungestThreadTakesOverFromALeavingCollector) {
  h = Open();
  Worker first(h), second(h), third(h);
  EXPECT_EQ(Collector(), first.id()) << "the first thread is elected";
  second.Finish();
  EXPECT_EQ(Collector(), first.id()) << "a non-collector leaving changes nothing";
  first.Finish();
  EXPECT_EQ(Collector(), third.id()) << "the youngest remaining thread takes over";
  third.Finish();
  EXPECT_EQ(Collector(), 0u) << "no thread, no collector";
  Worker next(h);
  EXPECT_EQ(Collector(), next.id()) << "the next kest_init takes the role";
  next.Finish();
  EXPECT_EQ(kest_close(h), 0);
}

TEST_F(ThreadListTest, AThreadThatCannotBeListedIsStillElectedAndFailsInit) {
  h = Open();
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
  EXPECT_EQ(kest_close(h), 0);
}

} // namespace
