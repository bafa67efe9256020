#include "ConnTestSupport.h"

#include <string>

namespace {

using kest_test::TestClassify;
using oru::Classification;
using oru::ClassifyPacket;

// Public: handlers reach the test through their context pointer.
class ClassificationTest : public kest_test::ClassificationFixture {
public:
  // Appends a deferred request named `name` (its data) with the log hook.
  void Defer(int type, const char *name) {
    oru::ClassifyRequest request{};
    request.type = type;
    request.packet.data = reinterpret_cast<const uint8_t *>(name);
    request.packet.release = LogRelease;
    request.packet.release_arg = &log;
    ASSERT_NE(classification->m_deferred.push_back(request), classification->m_deferred.end());
  }
  static void LogRelease(ClassifyPacket *packet, void *arg) {
    *static_cast<std::string *>(arg) += reinterpret_cast<const char *>(packet->data);
  }
  static ClassificationTest *Of(TestClassify *self) {
    return static_cast<ClassificationTest *>(self->m_context);
  }

  std::string log;
  oru::Conn *other = nullptr;
};

TEST_F(ClassificationTest, FlagsMapToCodesInTableOrder) {
  const struct {
    unsigned flags;
    int code; // -1: no result
  } cases[] = {{0x0, -1}, {0x200, -1}, {0x103, 0}, {0x1C0, 0}, {0x43, 1}, {0xC2, 1},
               {0x44, 2}, {0x20, 2},   {0xC0, 3},  {0x80, 3},  {0x240, 3}};
  handler.m_conn = MakeConn(6);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.flags);
    recorder.calls.clear();
    handler.m_flags = c.flags;
    EXPECT_EQ(ClassifyForm1(), c.code < 0 ? -1 : 0);
    EXPECT_EQ(kest_errno, 0);
    ASSERT_EQ(recorder.calls.size(), c.code < 0 ? 0u : 1u);
    if (c.code >= 0) {
      EXPECT_EQ(recorder.calls[0].code, c.code);
    }
  }
}

TEST_F(ClassificationTest, SelectorsReachTheirRowsAndSelectorZeroTheConnection) {
  TestClassify row1, row2, row3, own;
  ASSERT_TRUE(classification->Register(Classification::CLASSIFY_TYPE_1, &row1, owner));
  ASSERT_TRUE(classification->Register(Classification::CLASSIFY_TYPE_2, &row2, owner));
  ASSERT_TRUE(classification->Register(Classification::CLASSIFY_CONN, &row3, owner));
  kest_test::TestConn *conn = MakeConn(6, &own);
  for (TestClassify *t : {&handler, &row1, &row2, &own}) {
    t->m_conn = conn;
    t->m_flags = 1;
  }
  // Selector 0 sets the side before its handler runs.
  own.m_action = [](TestClassify *self, ClassifyPacket *) {
    self->m_flags = self->m_conn->m_side <= 1 ? self->m_conn->m_side : 0;
  };
  const struct {
    int selector, side;
    TestClassify *reached;
    int result;
  } cases[] = {{1, 1, &handler, 0}, {2, 0, &row1, 0}, {3, 0, &row2, 0},
               {0, 7, &own, 0},     {0, -1, &own, 0}, {0, 0, &own, -1}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.selector);
    const int before = c.reached->m_calls;
    EXPECT_EQ(kest_classify(h, c.selector, kPacket, 1, conn, c.side, kest_test::RecordingCallback,
                            &recorder),
              c.result);
    EXPECT_EQ(c.reached->m_calls, before + 1);
  }
  EXPECT_EQ(row3.m_calls, 0) << "row 3 is never read";
  // A connection without an IClassify of its own fails the request.
  EXPECT_EQ(
      kest_classify(h, 0, kPacket, 1, MakeConn(6), 0, kest_test::RecordingCallback, &recorder), -1);
}

TEST_F(ClassificationTest, ArgumentErrors) {
  const struct {
    kest_handle_t handle;
    int selector;
    const void *data;
    uint16_t length;
    int error;
  } cases[] = {{0, 1, kPacket, 1, KEST_EINVAL},   {32, 1, kPacket, 1, KEST_EINVAL},
               {h, 1, nullptr, 1, KEST_EINVAL},   {h, 1, kPacket, 0, KEST_EINVAL},
               {h, 0, kPacket, 1, KEST_ENOTCONN}, {h, 4, kPacket, 1, KEST_EINVAL},
               {h, -1, kPacket, 1, KEST_EINVAL}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.selector);
    kest_errno = 0;
    EXPECT_TRUE(kest_test::Refused(kest_classify(c.handle, c.selector, c.data, c.length, nullptr, 0,
                                                 kest_test::RecordingCallback, &recorder),
                                   c.error));
  }
  EXPECT_EQ(handler.m_calls, 0);
}

TEST_F(ClassificationTest, CallbackGetsCursorNumberAndError) {
  kest_test::TestConn *conn = MakeConn(6);
  handler.m_conn = conn;
  handler.m_flags = 0xC0;
  handler.m_action = [](TestClassify *, ClassifyPacket *) { kest_errno = 61; };
  oru::AppStack *stack = conn->GetAppStack();
  ASSERT_EQ(ClassifyForm1(), 0);
  ASSERT_NE(stack->entries.push_back(oru::AppEntry{3}), stack->entries.end());
  ASSERT_EQ(ClassifyForm1(), 0);
  ASSERT_EQ(recorder.calls.size(), 2u);
  for (const kest_test::CallbackRecord &call : recorder.calls) {
    EXPECT_EQ(call.handle, h);
    EXPECT_EQ(call.code, 3);
    EXPECT_EQ(call.conn_id, conn->m_number);
    EXPECT_EQ(call.error, 61);
    EXPECT_EQ(call.conn, conn);
    EXPECT_EQ(call.cursor.stack, stack);
  }
  EXPECT_EQ(recorder.calls[0].cursor.current, stack) << "an empty stack starts at its end";
  EXPECT_EQ(recorder.calls[1].cursor.current, stack->entries.begin().node());
}

TEST_F(ClassificationTest, RefusedConnectionIsDestroyedByTheFactoryOfItsProtocol) {
  const struct {
    uint8_t protocol;
    kest_test::TestFactory *factory;
    int error;
  } cases[] = {{6, &tcp, 0}, {17, &udp, 0}, {0, nullptr, KEST_EPROTONOSUPPORT}};
  recorder.result = 1;
  handler.m_flags = 1;
  for (const auto &c : cases) {
    SCOPED_TRACE(int(c.protocol));
    oru::Tuple tuple{};
    tuple.protocol = c.protocol;
    oru::Conn *conn = c.factory != nullptr ? Classification::CreateConn(tuple) : MakeConn(0);
    handler.m_conn = conn;
    const long live = kest_test::LiveBlocks(kest_test::Heap::Local);
    EXPECT_EQ(ClassifyForm1(), 0) << "the request counts as done";
    EXPECT_EQ(kest_errno, c.error);
    if (c.factory != nullptr) {
      EXPECT_EQ(c.factory->m_destroyed, std::vector<oru::Conn *>{conn});
      EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), live - 1) << "last reference gone";
    } else {
      EXPECT_EQ(conn->use_count(), 1) << "left alone";
    }
  }
  EXPECT_EQ(tcp.m_destroyed.size() + udp.m_destroyed.size(), 2u);
  oru::Tuple sctp{};
  sctp.protocol = 132;
  kest_errno = 0;
  EXPECT_EQ(Classification::CreateConn(sctp), nullptr);
  EXPECT_EQ(kest_errno, KEST_EPROTONOSUPPORT);
  // Without a factory nothing happens and nothing is raised.
  oru::InterfaceBroker::Instance()->UnregisterInterface(oru::MODULE_TCP,
                                                        oru::INTERFACE_CONN_FACTORY, nullptr);
  handler.m_conn = MakeConn(6);
  EXPECT_EQ(ClassifyForm1(), 0);
  EXPECT_EQ(kest_errno, 0);
}

TEST_F(ClassificationTest, FirstRegistrationWinsAndUnregisterNeedsBothHandlerAndOwner) {
  TestClassify second;
  oru::fdt::intrusive_ptr<oru::fdt::refcnt> other_owner(new kest_test::TestOwner);
  EXPECT_FALSE(classification->Register(Classification::CLASSIFY_TYPE_0, &second, other_owner));
  EXPECT_EQ(other_owner->use_count(), 1);
  classification->Unregister(Classification::CLASSIFY_TYPE_0, &handler, other_owner);
  classification->Unregister(Classification::CLASSIFY_TYPE_0, &second, owner);
  EXPECT_EQ(owner->use_count(), 2) << "the row holds its owner";
  ClassifyForm1();
  EXPECT_EQ(handler.m_calls, 1);
  EXPECT_EQ(second.m_calls, 0);

  classification->Unregister(Classification::CLASSIFY_TYPE_0, &handler, owner);
  EXPECT_EQ(owner->use_count(), 1);
  EXPECT_EQ(ClassifyForm1(), -1);
  EXPECT_TRUE(classification->Register(Classification::CLASSIFY_TYPE_0, &second, other_owner));
}

TEST_F(ClassificationTest, FailingDeferredRequestDropsTheRest) {
  handler.m_conn = MakeConn(6);
  handler.m_flags = 1;
  handler.m_context = this;
  // Row 2 is empty, so "a" fails and "b" is never run.
  handler.m_action = [](TestClassify *self, ClassifyPacket *) {
    Of(self)->Defer(Classification::CLASSIFY_TYPE_2, "a");
    Of(self)->Defer(Classification::CLASSIFY_TYPE_0, "b");
  };
  EXPECT_EQ(ClassifyForm1(), -1);
  EXPECT_EQ(handler.m_calls, 1);
  EXPECT_EQ(recorder.calls.size(), 1u) << "the packet's result stands";
  EXPECT_EQ(log, "ab") << "both released";
  EXPECT_TRUE(classification->m_deferred.empty());
}

TEST_F(ClassificationTest, RecordsAppendedDuringTheWalkRunThenTheRequestIsReleased) {
  handler.m_conn = MakeConn(6);
  other = MakeConn(6);
  handler.m_flags = 1;
  handler.m_context = this;
  handler.m_action = [](TestClassify *self, ClassifyPacket *packet) {
    if (self->m_calls == 1) {
      packet->release = LogRelease;
      packet->release_arg = &Of(self)->log;
      Of(self)->Defer(Classification::CLASSIFY_TYPE_0, "a");
    } else if (self->m_calls == 2) {
      Of(self)->Defer(Classification::CLASSIFY_TYPE_0, "b");
      self->m_conn = Of(self)->other;
      kest_errno = 5;
    }
  };
  EXPECT_EQ(ClassifyForm1(), 0);
  ASSERT_EQ(recorder.calls.size(), 3u);
  EXPECT_EQ(recorder.calls[1].conn_id, other->m_number) << "a result of another connection";
  EXPECT_EQ(recorder.calls[1].error, 5);
  EXPECT_EQ(recorder.calls[2].error, 0) << "each deferred request starts at kest_errno 0";
  EXPECT_EQ(log, std::string("ab") +
                     std::string(reinterpret_cast<const char *>(kPacket), sizeof kPacket))
      << "the packet's own hook runs last";
}

TEST_F(ClassificationTest, DestructionReleasesDeferredRequestsAndOwners) {
  Defer(Classification::CLASSIFY_TYPE_0, "x");
  Defer(Classification::CLASSIFY_TYPE_0, "y");
  classification->ExitThread();
  Classification::Release();
  EXPECT_EQ(log, "xy");
  EXPECT_EQ(handler.m_calls, 0);
  EXPECT_EQ(owner->use_count(), 1);
}

} // namespace
