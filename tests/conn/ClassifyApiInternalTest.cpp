// kest_classify leaves its user word in the thread's cell for attribute
// delivery once the arguments before the selector check have passed, so a
// bad selector still stores it.
//
// No reference-counting helpers here: their inline copies, compiled with type
// information into this statically linked test, would replace the library's
// and trip the sanitizer's type check on library objects.
#include "InstanceFixture.h"
#include "runtime/ApiSlots.h"

#include <kest/Classification.h>

namespace {

class ClassifyApiTest : public kest_test::ThreadedFixture {};

TEST_F(ClassifyApiTest, UserWordIsStoredForAnySelector) {
  Enter();
  const struct {
    int selector;
    const void *data;
    int error;
    bool stored;
  } cases[] = {
      {1, "x", 0, true},              // no handler: -1 without error
      {4, "x", KEST_EINVAL, true},    // bad selector
      {0, "x", KEST_ENOTCONN, false}, // refused before
      {1, nullptr, KEST_EINVAL, false},
  };
  int marker = 0;
  void *&cell = oru::ThreadPointer<void>(oru::ApiSlots::attr_user);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.selector);
    cell = nullptr;
    EXPECT_TRUE(kest_test::Refused(
        kest_classify(h, c.selector, c.data, 1, nullptr, 0, nullptr, &marker), c.error));
    EXPECT_EQ(cell, c.stored ? &marker : nullptr);
  }
  oru::Classification::Instance()->ExitThread();
  oru::Classification::Release();
}

} // namespace
