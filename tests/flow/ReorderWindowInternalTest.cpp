#include "InstanceFixture.h"

#include "flow/ReorderWindow.h"

#include <kest/Configuration.h>
#include <kest/FlowBuffer.h>
#include <kest/fdt/TextSearch.h>

#include <atomic>
#include <string>
#include <thread>

namespace {

using kest_test::Heap;
using kest_test::LiveBlocks;
using oru::Configuration;
using oru::FlowBuffer;
using oru::ReorderWindow;

const char *const kKey = ReorderWindow::kKey;

// Runs the instance entry on a fresh instance. Should the start-up already
// have run it, its validator is taken away first, so that the entry is seen
// doing the whole of its work either way.
class ReorderWindowTest : public kest_test::InstanceFixture {
protected:
  void SetUp() override {
    InstanceFixture::SetUp();
    h = Open();
    ASSERT_GT(h, 0);
    Enter();
    Configuration::UnregisterValidator(kKey, ReorderWindow::ValidateReorderWindow);
    const bool started = ReorderWindow::InitInstance();
    Leave();
    ASSERT_TRUE(started);
  }
  void Enter() { oru::Runtime::l_instance_id = h; }
  void Leave() { oru::Runtime::l_instance_id = 0; }

  // kest_init, then this thread's entry run afresh, with the cell spoiled
  // beforehand so that the entry must fill it.
  void StartThread() {
    ASSERT_EQ(kest_init(h), 0);
    Enter();
    ReorderWindow::ExitThread();
    Cell() = 0xDEAD;
    const bool started = ReorderWindow::InitThread();
    Leave();
    ASSERT_TRUE(started);
  }
  void StopThread() {
    Enter();
    ReorderWindow::ExitThread();
    Leave();
    ASSERT_EQ(kest_fini(h), 0);
  }
  // This thread's cell; inside Enter/Leave only.
  static uint32_t &Cell() { return oru::ThreadWord(FlowBuffer::l_reorder_window); }
  uint32_t CellOutside() {
    Enter();
    const uint32_t value = Cell();
    Leave();
    return value;
  }
  bool Subscribed() {
    Configuration *config = Configuration::Instance();
    return oru::FindText(config->m_subscriptions, kKey) != config->m_subscriptions.end();
  }
  std::string Stored() {
    char buffer[64];
    return kest_config_get(h, kKey, buffer, sizeof buffer) == 0 ? buffer : "<error>";
  }

  kest_handle_t h = -1;
};

TEST_F(ReorderWindowTest, TheInstanceStartsWithTheDefault) {
  EXPECT_EQ(Stored(), "7500");
}

TEST_F(ReorderWindowTest, ValidatorAcceptsZeroAndOneToOneHundredThousand) {
  struct Row {
    const char *value;
    bool accepted;
  };
  const Row rows[] = {
      {"100000", true}, {"100001", false}, {"0", true},        {"abc", false},
      {"", false},      {"-1", false},     {"1", true},        {"-0", false},
      {"00", false},    {"12abc", true},   {"-100000", false},
  };
  std::string current = "7500";
  for (const Row &row : rows) {
    kest_errno = 0;
    const int result = kest_config_set(h, kKey, row.value);
    EXPECT_EQ(result, row.accepted ? 0 : -1) << '"' << row.value << '"';
    if (row.accepted) {
      current = row.value;
    } else {
      EXPECT_EQ(kest_errno, KEST_EINVAL) << '"' << row.value << '"';
    }
    EXPECT_EQ(Stored(), current) << "a refused value is not stored: \"" << row.value << '"';
  }
}

TEST_F(ReorderWindowTest, ThreadStartFillsTheCellAndExitUndoesEverything) {
  ASSERT_EQ(kest_init(h), 0);
  Enter();
  ReorderWindow::ExitThread();
  const long before = LiveBlocks(Heap::Local);
  Cell() = 0xDEAD;
  ASSERT_TRUE(ReorderWindow::InitThread());
  EXPECT_EQ(Cell(), 7500u);
  ASSERT_NE(ReorderWindow::Observer(), nullptr);
  EXPECT_EQ(ReorderWindow::Observer()->use_count(), 2) << "the slot and the subscription";
  EXPECT_TRUE(Subscribed());

  ReorderWindow::ExitThread();
  EXPECT_EQ(ReorderWindow::Observer(), nullptr);
  EXPECT_FALSE(Subscribed());
  EXPECT_EQ(LiveBlocks(Heap::Local), before) << "the observer and its map are freed";
  ReorderWindow::ExitThread(); // a second exit finds nothing to do
  Leave();
  EXPECT_EQ(kest_fini(h), 0);
}

TEST_F(ReorderWindowTest, ExitAfterTheConfigurationDroppedItsSubscriptions) {
  ASSERT_EQ(kest_init(h), 0);
  Enter();
  ReorderWindow::ExitThread();
  Configuration::Instance()->ExitThread(); // the other subscriptions go first
  const long before = LiveBlocks(Heap::Local);
  ASSERT_TRUE(ReorderWindow::InitThread());
  Configuration::Instance()->ExitThread();
  EXPECT_EQ(ReorderWindow::Observer()->use_count(), 1);
  ReorderWindow::ExitThread();
  EXPECT_EQ(ReorderWindow::Observer(), nullptr);
  EXPECT_EQ(LiveBlocks(Heap::Local), before);
  Leave();
  EXPECT_EQ(kest_fini(h), 0);
}

TEST_F(ReorderWindowTest, EveryAllocationOfTheThreadStartCanFail) {
  ASSERT_EQ(kest_init(h), 0);
  Enter();
  ReorderWindow::ExitThread();
  const long before = LiveBlocks(Heap::Local);
  bool started = false;
  for (long n = 1; !started && n <= 20; ++n) {
    SCOPED_TRACE(n);
    Cell() = 0xDEAD;
    kest_test::FailNthAllocation(n);
    started = ReorderWindow::InitThread();
    kest_test::FailNthAllocation(0);
    if (!started) {
      EXPECT_EQ(ReorderWindow::Observer(), nullptr);
      EXPECT_FALSE(Subscribed());
      EXPECT_EQ(LiveBlocks(Heap::Local), before);
    }
  }
  ASSERT_TRUE(started);
  EXPECT_EQ(Cell(), 7500u);
  ReorderWindow::ExitThread();
  EXPECT_EQ(LiveBlocks(Heap::Local), before);
  Leave();
  EXPECT_EQ(kest_fini(h), 0);
}

TEST_F(ReorderWindowTest, AChangeReachesTheCellAtTheNextIdlePass) {
  StartThread();
  struct Row {
    const char *value;
    uint32_t cell; // after the idle pass
  };
  // A refused value never travels; the cell keeps the last accepted one.
  const Row rows[] = {{"100", 100}, {"abc", 100}, {"0", 0}, {"100000", 100000}, {"100001", 100000}};
  for (const Row &row : rows) {
    SCOPED_TRACE(row.value);
    const uint32_t previous = CellOutside();
    kest_config_set(h, kKey, row.value);
    EXPECT_EQ(CellOutside(), previous) << "nothing before the idle pass";
    kest_idle(h);
    EXPECT_EQ(CellOutside(), row.cell);
  }
  StopThread();
}

TEST_F(ReorderWindowTest, EachThreadHearsOfAChangeAtItsOwnIdlePass) {
  ASSERT_EQ(kest_config_set(h, kKey, "250"), 0);
  StartThread();
  EXPECT_EQ(CellOutside(), 250u) << "a thread starts with the stored value";
  std::atomic<int> stage{0};
  uint32_t worker_start = 0, worker_before = 0, worker_after = 0;
  std::thread worker([&] {
    StartThread();
    worker_start = CellOutside();
    stage = 1;
    while (stage != 2) {
      std::this_thread::yield();
    }
    worker_before = CellOutside();
    kest_idle(h);
    worker_after = CellOutside();
    StopThread();
  });
  while (stage != 1) {
    std::this_thread::yield();
  }
  ASSERT_EQ(kest_config_set(h, kKey, "900"), 0);
  kest_idle(h);
  EXPECT_EQ(CellOutside(), 900u);
  stage = 2;
  worker.join();
  EXPECT_EQ(worker_start, 250u);
  EXPECT_EQ(worker_before, 250u) << "the main thread's idle pass is not the worker's";
  EXPECT_EQ(worker_after, 900u);
  StopThread();
}

TEST_F(ReorderWindowTest, UpdateTouchesOnlyWatchedKeysAndNumbers) {
  StartThread();
  Enter();
  ReorderWindow::ConfigObserver *observer = ReorderWindow::Observer();
  ASSERT_NE(observer, nullptr);
  struct Row {
    const char *key;
    const char *value;
    uint32_t cell;
  };
  const Row rows[] = {
      {kKey, "42", 42}, {kKey, "abc", 42}, {kKey, "", 42},    {"flow.other", "7", 42},
      {kKey, "0", 0},   {kKey, "17", 17},  {"flow", "5", 17},
  };
  for (const Row &row : rows) {
    observer->Update(row.key, row.value);
    EXPECT_EQ(Cell(), row.cell) << row.key << "=" << row.value;
  }
  Leave();
  StopThread();
}

} // namespace
