#include "InstanceFixture.h"
#include "ParkedThread.h"

#include <kest/Clock.h>
#include <kest/Runtime.h>

#include <thread>

namespace {

struct timeval g_fake_time;
int FakeGettimeofday(struct timeval *tv, void *) {
  *tv = g_fake_time;
  return 0;
}

unsigned g_slept;
int FakeUsleep(unsigned us) {
  g_slept = us;
  return 0;
}

class ClockTest : public kest_test::ThreadedFixture {
protected:
  void SetUp() override {
    ThreadedFixture::SetUp();
    kest_gettimeofday = FakeGettimeofday;
  }
  // Reads oru::now() inside the instance.
  uint64_t Now() {
    Enter();
    const uint64_t t = oru::now();
    Leave();
    return t;
  }
};

TEST_F(ClockTest, IdleRefreshesFromTheSystemClockIn32BitMilliseconds) {
  struct Row {
    long sec, usec;
    int64_t expected;
  };
  const Row rows[] = {
      {10, 999999, 10999},
      {0, 0, 0},
      // 2147484000 does not fit 31 bits: the cell holds the low word,
      // sign-extended.
      {2147484, 0, static_cast<int32_t>(2147484000u)},
      {4294967, 296000, 0}, // 2^32 ms wraps to 0
      {1700000000, 123456, static_cast<int32_t>(static_cast<uint32_t>(1700000000u * 1000u + 123u))},
  };
  for (const Row &row : rows) {
    g_fake_time.tv_sec = row.sec;
    g_fake_time.tv_usec = row.usec;
    kest_idle(h);
    EXPECT_EQ(static_cast<int64_t>(Now()), row.expected) << row.sec << "." << row.usec;
  }
  EXPECT_LT(static_cast<int64_t>(Now()), 0) << "present-day times are negative half the time";
}

TEST_F(ClockTest, HostModeHoldsTheTimeThroughIdle) {
  g_fake_time = {100, 0};
  kest_clock_set_mode(h, 1);
  kest_clock_set(h, 5000);
  kest_idle(h);
  EXPECT_EQ(Now(), 5000u);
  uint64_t other = 0;
  kest_test::RunOnThread(h, [&] {
    kest_idle(h);
    other = oru::now();
    EXPECT_EQ(oru::update_clock(true), 100000u) << "a forced update reads the system clock";
  });
  EXPECT_EQ(other, 0u) << "a new thread's clock starts at 0 and the host has not set it";
  EXPECT_EQ(Now(), 5000u);
  kest_clock_set_mode(h, 0);
  kest_idle(h);
  EXPECT_EQ(Now(), 100000u);
}

// In system mode a time set by the host lasts until the next idle pass;
// seconds divide the unsigned word.
TEST_F(ClockTest, ClockSetInSystemModeLastsUntilTheNextIdleAndDelayTakesTheLowWord) {
  g_fake_time = {7, 0};
  kest_clock_set(h, 2500);
  EXPECT_EQ(Now(), 2500u);
  Enter();
  EXPECT_EQ(oru::now_sec(), 2u);
  oru::set_clock(static_cast<uint64_t>(-1000));
  EXPECT_EQ(oru::now_sec(), static_cast<uint64_t>(-1000) / 1000u);
  Leave();
  // A thread without a context changes nothing; a bad handle is refused.
  std::thread([&] {
    kest_errno = 0;
    kest_clock_set(h, 99);
    EXPECT_EQ(kest_errno, 0) << "no handler installed on this thread yet";
    kest_clock_set(0, 99);
    EXPECT_EQ(kest_errno, KEST_EINVAL);
  }).join();
  EXPECT_EQ(Now(), static_cast<uint64_t>(-1000));
  kest_idle(h);
  EXPECT_EQ(Now(), 7000u);
  // A delay sleeps for the low word only.
  kest_usleep = FakeUsleep;
  oru::delay((1ull << 32) + 25);
  EXPECT_EQ(g_slept, 25u);
}

} // namespace
