// The user word of kest_classify reaches attribute delivery through the
// thread's cell. It is stored once the arguments before the selector check
// have passed, so a bad selector still leaves it there.
//
// This file stays clear of the reference-counting helpers: compiled here with
// type information, their inline copies would replace the library's in this
// statically linked test and trip the sanitizer's type check on library
// objects.
#include "InstanceFixture.h"
#include "runtime/ApiSlots.h"

#include <kest/Classification.h>

namespace {

void *&UserCell() {
  return oru::ThreadPointer<void>(oru::ApiSlots::attr_user);
}

class ClassifyApiTest : public kest_test::InstanceFixture {
protected:
  void SetUp() override {
    InstanceFixture::SetUp();
    h = Open();
    ASSERT_GT(h, 0);
    ASSERT_EQ(kest_init(h), 0);
    oru::Runtime::l_instance_id = h;
    ASSERT_NE(oru::Classification::Instance(), nullptr);
    ASSERT_TRUE(oru::Classification::Instance()->InitThread());
    oru::Runtime::l_instance_id = 0;
  }
  void TearDown() override {
    oru::Runtime::l_instance_id = h;
    oru::Classification::Instance()->ExitThread();
    oru::Classification::Release();
    oru::Runtime::l_instance_id = 0;
    InstanceFixture::TearDown();
  }
  kest_handle_t h = -1;
};

TEST_F(ClassifyApiTest, UserWordIsStoredForAnySelector) {
  struct Case {
    int selector;
    bool with_data;
    int error;
    bool stored;
  };
  const Case cases[] = {
      {1, true, 0, true},              // valid, but no handler: -1 without error
      {4, true, KEST_EINVAL, true},    // bad selector
      {-3, true, KEST_EINVAL, true},   // bad selector
      {0, true, KEST_ENOTCONN, false}, // no connection: refused before
      {1, false, KEST_EINVAL, false},  // no data: refused before
  };
  const uint8_t data[1] = {0};
  int marker = 0;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.selector);
    oru::Runtime::l_instance_id = h;
    UserCell() = nullptr;
    oru::Runtime::l_instance_id = 0;
    EXPECT_EQ(
        kest_classify(h, c.selector, c.with_data ? data : nullptr, 1, nullptr, 0, nullptr, &marker),
        -1);
    EXPECT_EQ(kest_errno, c.error);
    oru::Runtime::l_instance_id = h;
    EXPECT_EQ(UserCell(), c.stored ? &marker : nullptr);
    oru::Runtime::l_instance_id = 0;
  }
}

} // namespace
