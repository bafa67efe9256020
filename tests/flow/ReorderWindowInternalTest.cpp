#include "InstanceFixture.h"
#include "TableFile.h"

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

// The instance and thread start-ups run the entries; the tests run the thread
// entries again by hand where they look at them under failure.
class ReorderWindowTest : public kest_test::ThreadedFixture {
protected:
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
};

TEST_F(ReorderWindowTest, ThreadEntriesUnderEveryAllocationFailure) {
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
}

// The validator takes 0 and 1 to 100000, by kest_atoi, so trailing text
// passes; a refused value is neither stored nor sent. An accepted one reaches
// the cell at the next idle pass.
TEST_F(ReorderWindowTest, ValuesAreCheckedAndReachTheCellAtTheNextIdlePass) {
  EXPECT_EQ(Stored(), "7500");
  std::string stored = "7500";
  for (const std::string &row : kest_test::TableRows(__FILE__, "flow_rows.txt", "reorder")) {
    SCOPED_TRACE(row);
    std::istringstream in(row);
    std::string value;
    int accepted = 0;
    uint32_t cell = 0;
    in >> value >> accepted >> cell;
    value = kest_test::Field(value);
    const uint32_t previous = CellOutside();
    EXPECT_EQ(kest_config_set(h, kKey, value.c_str()), accepted != 0 ? 0 : -1);
    stored = accepted != 0 ? value : stored;
    EXPECT_EQ(Stored(), stored);
    EXPECT_EQ(CellOutside(), previous) << "nothing before the idle pass";
    kest_idle(h);
    EXPECT_EQ(CellOutside(), cell);
  }
}

} // namespace
