#include "InstanceFixture.h"

#include "runtime/Slots.h"

#include <kest/Runtime.h>

namespace {

class SlotsTest : public kest_test::InstanceFixture {};

// Slots registered after the first instance opened are late: while one is held
// the numbers keep growing; once all are given back, closing rewinds them.
TEST_F(SlotsTest, LateSlotsHoldOffTheRewind) {
  const kest_handle_t h = Open(); // the first open fixes the instance base
  ASSERT_GT(h, 0);
  const oru::SlotCounters start = oru::ReadSlotCounters();
  ASSERT_NE(start.instance_base, 0u) << "the library's own slots lie below the base";
  EXPECT_TRUE(oru::InitInstLocal());
  EXPECT_EQ(oru::ReadSlotCounters().instance_base, start.instance_base) << "set once";

  const unsigned late = oru::RegisterThreadLocal();
  EXPECT_EQ(late, start.slot_count);
  EXPECT_EQ(oru::ReadSlotCounters().late_slots, start.late_slots + 1);

  oru::ExitInstLocal(); // a late slot is held: no rewind
  EXPECT_EQ(oru::ReadSlotCounters().slot_count, start.slot_count + 1);

  oru::UnregisterThreadLocal(late);
  EXPECT_EQ(oru::ReadSlotCounters().late_slots, start.late_slots);
  ASSERT_EQ(kest_close(h), 0); // no late slot left: the count goes back to the base
  EXPECT_EQ(oru::ReadSlotCounters().slot_count, start.instance_base);
}

} // namespace
