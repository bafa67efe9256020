// kest_classify's argument checks, and its user word, left in the thread's
// cell for attribute delivery once the arguments before the selector check
// have passed, so a bad selector still stores it.
//
// No reference-counting helpers here: their inline copies, compiled with type
// information into this statically linked test, would replace the library's
// and trip the sanitizer's type check on library objects.
#include "InstanceFixture.h"
#include "runtime/ApiSlots.h"

#include <kest/Classification.h>

namespace {

class ClassifyApiTest : public kest_test::ThreadedFixture {};

TEST_F(ClassifyApiTest, ArgumentsAndTheUserWord) {
  Enter();
  const struct {
    kest_handle_t handle;
    int selector;
    const void *data;
    uint16_t length;
    int error;
    bool stored;
  } cases[] = {
      {h, 1, "x", 1, 0, true},              // no handler: -1 without error
      {h, 4, "x", 1, KEST_EINVAL, true},    // bad selectors
      {h, -1, "x", 1, KEST_EINVAL, true},   //   after the store,
      {h, 0, "x", 1, KEST_ENOTCONN, false}, // the rest before
      {h, 1, nullptr, 1, KEST_EINVAL, false},
      {h, 1, "x", 0, KEST_EINVAL, false},
      {0, 1, "x", 1, KEST_EINVAL, false},
      {32, 1, "x", 1, KEST_EINVAL, false},
  };
  int marker = 0;
  void *&cell = oru::ThreadPointer<void>(oru::ApiSlots::attr_user);
  for (const auto &c : cases) {
    SCOPED_TRACE(&c - cases);
    cell = nullptr;
    kest_errno = 0;
    EXPECT_TRUE(kest_test::Refused(
        kest_classify(c.handle, c.selector, c.data, c.length, nullptr, 0, nullptr, &marker),
        c.error));
    EXPECT_EQ(cell, c.stored ? &marker : nullptr);
  }
  oru::Classification::Instance()->ExitThread();
  oru::Classification::Release();
}

} // namespace
