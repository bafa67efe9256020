#include "ConnTestSupport.h"
#include "runtime/ApiSlots.h"

namespace {

// The user word of kest_classify reaches attribute delivery through the
// thread's cell; it is stored once the arguments that precede the selector
// check have passed, so a bad selector still leaves it there.
void *&UserCell() {
  return oru::ThreadPointer<void>(oru::ApiSlots::attr_user);
}

class ClassifyApiTest : public kest_test::ClassificationFixture {};

TEST_F(ClassifyApiTest, UserWordIsStoredForAnySelector) {
  struct Case {
    int selector;
    bool with_data;
    int result;
    bool stored;
  };
  const Case cases[] = {
      {1, true, 0, true},    {4, true, -1, true},
      {-3, true, -1, true},  {0, true, -1, false}, // no connection: refused before
      {1, false, -1, false},                       // no data: refused before
  };
  handler.m_conn = kest_test::TestConn::Make(6);
  oru::fdt::intrusive_ptr<oru::Conn> hold(handler.m_conn);
  handler.m_flags = 1;
  int marker = 0;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.selector);
    UserCell() = nullptr;
    EXPECT_EQ(kest_classify(h, c.selector, c.with_data ? kPacket : nullptr, sizeof(kPacket),
                            nullptr, 0, nullptr, &marker),
              c.result);
    EXPECT_EQ(UserCell(), c.stored ? &marker : nullptr);
  }
}

TEST_F(ClassifyApiTest, HandlerSeesTheUserWordOfTheRunningCall) {
  static void *seen;
  seen = nullptr;
  handler.m_action = [](kest_test::TestClassify *, oru::ClassifyPacket *) { seen = UserCell(); };
  int marker = 0;
  kest_classify(h, 1, kPacket, sizeof(kPacket), nullptr, 0, nullptr, &marker);
  EXPECT_EQ(seen, &marker);
}

} // namespace
