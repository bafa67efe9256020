#include "InstanceFixture.h"

#include "flow/ReorderWindow.h"

#include <kest/Configuration.h>
#include <kest/FlowBuffer.h>
#include <kest/fdt/TextSearch.h>

#include <string>

namespace {

using kest_test::Heap;
using kest_test::LiveBlocks;
using oru::Configuration;
using oru::ReorderWindow;

const char *const kKey = ReorderWindow::kKey;

// Runs the entries by hand. Where the start-ups have run them already, what
// they did is taken back first, so each entry is seen doing all of its work.
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
  // kest_init, then the thread entry afresh.
  bool StartThread() {
    if (kest_init(h) != 0) {
      return false;
    }
    Enter();
    ReorderWindow::ExitThread();
    const bool started = ReorderWindow::InitThread();
    Leave();
    return started;
  }
  void StopThread() {
    Enter();
    ReorderWindow::ExitThread();
    Leave();
    kest_fini(h);
  }
  // This thread's cell; inside Enter/Leave only.
  static uint32_t &Cell() { return oru::ThreadWord(oru::FlowBuffer::l_reorder_window); }
  uint32_t CellOutside() {
    Enter();
    const uint32_t value = Cell();
    Leave();
    return value;
  }
  // Who is subscribed to the key on this thread, or null.
  static oru::fdt::refcnt *Subscriber() {
    Configuration *config = Configuration::Instance();
    auto found = oru::FindText(config->m_subscriptions, kKey);
    return found != config->m_subscriptions.end() ? found->second.owner.get() : nullptr;
  }
  std::string Stored() {
    char buffer[64];
    return kest_config_get(h, kKey, buffer, sizeof buffer) == 0 ? buffer : "<error>";
  }

  kest_handle_t h = -1;
};

TEST_F(ReorderWindowTest, ValidatorAcceptsZeroAndOneToOneHundredThousand) {
  struct Row {
    const char *value;
    bool accepted;
  } rows[] = {{"100000", true}, {"100001", false}, {"0", true},       {"abc", false},
              {"", false},      {"-1", false},     {"1", true},       {"-0", false},
              {"00", false},    {"12abc", true},   {"-100000", false}};
  std::string current = "7500";
  EXPECT_EQ(Stored(), current);
  for (const Row &row : rows) {
    EXPECT_EQ(kest_config_set(h, kKey, row.value), row.accepted ? 0 : -1) << row.value;
    current = row.accepted ? row.value : current;
    EXPECT_EQ(Stored(), current) << "a refused value is not stored: \"" << row.value << '"';
  }
}

TEST_F(ReorderWindowTest, ThreadEntriesUnderEveryAllocationFailure) {
  ASSERT_EQ(kest_init(h), 0);
  Enter();
  ReorderWindow::ExitThread();
  const long before = LiveBlocks(Heap::Local);
  bool started = false;
  for (long n = 1; !started; ++n) {
    ASSERT_LE(n, 20);
    Cell() = 0xDEAD;
    kest_test::FailNthAllocation(n);
    started = ReorderWindow::InitThread();
    kest_test::FailNthAllocation(0);
    if (!started) {
      EXPECT_EQ(ReorderWindow::Observer(), nullptr) << n;
      EXPECT_EQ(Subscriber(), nullptr) << n;
      EXPECT_EQ(LiveBlocks(Heap::Local), before) << n;
    }
  }
  EXPECT_EQ(Cell(), 7500u);
  ASSERT_NE(ReorderWindow::Observer(), nullptr);
  EXPECT_EQ(Subscriber(), ReorderWindow::Observer());
  ReorderWindow::ExitThread();
  EXPECT_EQ(ReorderWindow::Observer(), nullptr);
  EXPECT_EQ(Subscriber(), nullptr);
  EXPECT_EQ(LiveBlocks(Heap::Local), before);

  // The configuration's own thread exit may drop the subscription first.
  Configuration::Instance()->ExitThread();
  const long quiet = LiveBlocks(Heap::Local);
  ASSERT_TRUE(ReorderWindow::InitThread());
  Configuration::Instance()->ExitThread();
  ReorderWindow::ExitThread();
  ReorderWindow::ExitThread();
  EXPECT_EQ(LiveBlocks(Heap::Local), quiet);
  Leave();
  EXPECT_EQ(kest_fini(h), 0);
}

TEST_F(ReorderWindowTest, AChangeReachesTheCellAtTheNextIdlePass) {
  ASSERT_TRUE(StartThread());
  struct Row {
    const char *value;
    uint32_t cell; // after the idle pass; a refused value never travels
  } rows[] = {{"100", 100}, {"abc", 100}, {"0", 0}, {"100000", 100000}, {"100001", 100000}};
  for (const Row &row : rows) {
    const uint32_t previous = CellOutside();
    kest_config_set(h, kKey, row.value);
    EXPECT_EQ(CellOutside(), previous) << "nothing before the idle pass: " << row.value;
    kest_idle(h);
    EXPECT_EQ(CellOutside(), row.cell) << row.value;
  }
  StopThread();
}

} // namespace
