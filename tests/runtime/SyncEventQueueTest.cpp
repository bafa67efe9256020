#include "InstanceFixture.h"
#include "ParkedThread.h"

#include <kest/SyncEventQueue.h>

#include <atomic>
#include <barrier>
#include <string>
#include <thread>
#include <vector>

namespace {

using kest_test::Heap;
using kest_test::LiveBlocks;
using kest_test::ParkedThread;
using oru::SyncEventQueue;

// Records what it receives; optionally posts a follow-up once.
class Recorder : public oru::EventTarget {
public:
  void OnEvent(const void *data, uint32_t length) {
    seen.push_back(data == nullptr ? std::string("<null>")
                                   : std::string(static_cast<const char *>(data), length));
    if (follow_up != 0) {
      const uint32_t id = follow_up;
      follow_up = 0;
      SyncEventQueue::PostEvent(id, "follow", 6);
    }
  }
  std::vector<std::string> seen;
  uint32_t follow_up = 0;
};

// Registers `name` and installs `r` for it on the calling thread.
uint32_t Install(const char *name, Recorder &r) {
  const uint32_t id = SyncEventQueue::RegisterEvent(name);
  EXPECT_TRUE(
      SyncEventQueue::Instance()->InstallHandler(id, &r, oru::MakeEventMethod(&Recorder::OnEvent)));
  return id;
}

class SyncEventQueueTest : public kest_test::ThreadedFixture {
protected:
  void SetUp() override {
    ThreadedFixture::SetUp();
    kest_clock_set_mode(h, 1);
    Enter();
  }
  void IdleAt(uint64_t clock) {
    kest_clock_set(h, clock);
    kest_idle(h);
  }
};

// Without memory no id is given, and a post (its node, then its payload) is
// dropped without a leak.
TEST_F(SyncEventQueueTest, EventIdsArePerInstanceFromOneAndNeedMemory) {
  Recorder r;
  const uint32_t first = Install("test.one", r);
  EXPECT_EQ(SyncEventQueue::RegisterEvent("test.two"), first + 1);
  EXPECT_EQ(SyncEventQueue::RegisterEvent("test.one"), first);
  kest_errno = 0;
  kest_test::FailAllAllocations(true);
  EXPECT_EQ(SyncEventQueue::RegisterEvent("nomem"), 0u);
  kest_test::FailAllAllocations(false);
  EXPECT_EQ(kest_errno, KEST_ENOMEM);
  const long before = LiveBlocks(Heap::Shared);
  for (long n = 1; n <= 2; ++n) {
    kest_test::FailNthAllocation(n);
    SyncEventQueue::PostEvent(first, "lost", 4);
    kest_test::FailNthAllocation(0);
    EXPECT_EQ(LiveBlocks(Heap::Shared), before) << "failing allocation " << n;
  }
  SyncEventQueue::DrainEvents();
  EXPECT_TRUE(r.seen.empty());
  // The configuration store registers the first event of every instance.
  Leave();
  oru::Runtime::l_instance_id = Open();
  EXPECT_EQ(SyncEventQueue::RegisterEvent("config.sync"), 1u);
  EXPECT_EQ(SyncEventQueue::RegisterEvent("fresh"), 2u);
}

TEST_F(SyncEventQueueTest, DrainCountsAndSkipsUnhandledAndRunsFollowUpsInTheSamePass) {
  Recorder r;
  const uint32_t handled = Install("test.handled", r);
  const uint32_t unhandled = SyncEventQueue::RegisterEvent("test.unhandled");
  const uint64_t before = SyncEventQueue::Instance()->Processed();
  r.follow_up = handled;
  SyncEventQueue::PostEvent(unhandled, "x", 1);
  SyncEventQueue::PostEvent(handled, "y", 1);
  SyncEventQueue::PostEvent(handled, "ignored", 0); // an empty payload arrives as null
  SyncEventQueue::DrainEvents();
  EXPECT_EQ(SyncEventQueue::Instance()->Processed(), before + 4);
  EXPECT_EQ(r.seen, (std::vector<std::string>{"y", "<null>", "follow"}));
}

TEST_F(SyncEventQueueTest, ALateJoinerDoesNotSeeEarlierPosts) {
  Recorder r, late;
  const uint32_t id = Install("test.late", r);
  SyncEventQueue::PostEvent(id, "early", 5);
  kest_test::RunOnThread(h, [&] {
    Install("test.late", late);
    SyncEventQueue::DrainEvents();
    SyncEventQueue::PostEvent(id, "later", 5);
    SyncEventQueue::DrainEvents();
  });
  SyncEventQueue::DrainEvents();
  EXPECT_EQ(late.seen, std::vector<std::string>{"later"});
  EXPECT_EQ(r.seen, (std::vector<std::string>{"early", "later"}));
}

// The collector frees only nodes that every thread has passed, and keeps the
// last. A thread that drains nothing for a while holds the rest, and still
// gets every post, in order, once it drains.
TEST_F(SyncEventQueueTest, CollectorFreesWhatEveryThreadPassedButKeepsTheLast) {
  Recorder r, theirs;
  const uint32_t id = Install("test.gc", r);
  ParkedThread behind(h, [&] { Install("test.gc", theirs); });
  IdleAt(1000); // settles the time of the last pass
  const long before = LiveBlocks(Heap::Shared);
  for (const char *text : {"0", "1", "2"}) {
    SyncEventQueue::PostEvent(id, text, 1);
  }
  EXPECT_EQ(LiveBlocks(Heap::Shared), before + 6) << "three nodes with a payload each";
  IdleAt(2000);
  EXPECT_EQ(LiveBlocks(Heap::Shared), before + 6) << "the parked thread still stands before them";
  behind.Release();
  EXPECT_EQ(theirs.seen, (std::vector<std::string>{"0", "1", "2"}));
  EXPECT_EQ(theirs.seen, r.seen);
  const long nodes_left = LiveBlocks(Heap::Shared); // the thread's own blocks are gone
  IdleAt(3000);
  // The old head (no payload) and the first node (with payload) are gone; the
  // second, whose references reached 0 last, is the new head.
  EXPECT_EQ(LiveBlocks(Heap::Shared), nodes_left - 1 - 2);
}

// Four threads post and drain at once while this thread collects behind them:
// every thread ends with the same sequence, holding each poster's events in
// the order posted, and the queue shrinks to its last node once all have left.
TEST_F(SyncEventQueueTest, FourThreadsPostingAndDrainingSeeOneOrder) {
  constexpr int kThreads = 4, kPosts = 2000;
  Recorder collector;
  const uint32_t id = Install("test.order", collector);
  IdleAt(1);
  const long before = LiveBlocks(Heap::Shared);
  std::vector<Recorder> seen(kThreads);
  std::barrier joined(kThreads + 1);
  std::atomic<int> posted{0};
  Leave();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.push_back(kest_test::InstanceThread(h, [&, t] {
      Install("test.order", seen[t]);
      joined.arrive_and_wait();
      for (int i = 0; i < kPosts; ++i) {
        const std::string payload = std::to_string(t) + ":" + std::to_string(i);
        SyncEventQueue::PostEvent(id, payload.data(), static_cast<uint32_t>(payload.size()));
        if (i % 16 == 0) {
          kest_idle(h);
        }
      }
      // The last pass comes after every post, so it drains them all.
      for (++posted; posted != kThreads;) {
        std::this_thread::yield();
      }
      kest_idle(h);
    }));
  }
  joined.arrive_and_wait();
  uint64_t clock = 2;
  while (posted != kThreads) {
    IdleAt(clock++);
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  Enter();
  IdleAt(clock++);
  IdleAt(clock++);

  ASSERT_EQ(collector.seen.size(), static_cast<size_t>(kThreads * kPosts));
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(seen[t].seen, collector.seen) << "thread " << t;
  }
  std::vector<int> next(kThreads, 0);
  for (const std::string &event : collector.seen) {
    const int poster = std::stoi(event.substr(0, event.find(':')));
    ASSERT_EQ(event, std::to_string(poster) + ":" + std::to_string(next[poster]++));
  }
  // What stays is independent of the traffic: the tail, on which this thread
  // stands, and the passed node before it as head, in place of the old head.
  EXPECT_EQ(LiveBlocks(Heap::Shared), before - 1 + 4);
}

TEST_F(SyncEventQueueTest, CloseFreesEverythingLeftInTheQueue) {
  Recorder r;
  SyncEventQueue::PostEvent(Install("test.close", r), "never drained", 13);
  Leave();
  ASSERT_EQ(kest_fini(h), 0);
  ASSERT_EQ(kest_close(h), 0);
  EXPECT_EQ(LiveBlocks(Heap::Shared), 0);
  h = Open();
  ASSERT_EQ(kest_init(h), 0);
  Enter();
}

} // namespace
