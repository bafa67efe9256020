#include "ConnTestSupport.h"

#include <string>

namespace {

using kest_test::ClassificationFixture;
using kest_test::TestClassify;
using kest_test::TestConn;
using oru::Classification;
using oru::ClassifyPacket;
using oru::ClassifyRequest;
using oru::fdt::intrusive_ptr;

// Public, as handlers reach the test through their context pointer.
class ClassificationTest : public ClassificationFixture {
public:
  // A connection held by the test, freed when the test ends.
  TestConn *MakeConn(uint8_t protocol, oru::IClassify *classify = nullptr) {
    TestConn *conn = TestConn::Make(protocol, classify);
    held.push_back(intrusive_ptr<oru::Conn>(conn));
    return conn;
  }

  // Appends a deferred request of `type` for `conn`, with the log release hook.
  void Defer(int type, oru::Conn *conn, const char *name) {
    ClassifyRequest request{};
    request.type = type;
    request.packet.data = reinterpret_cast<const uint8_t *>(name);
    request.packet.length = 1;
    request.packet.release = LogRelease;
    request.packet.release_arg = &log;
    request.packet.conn = conn;
    ASSERT_NE(classification->m_deferred.push_back(request), classification->m_deferred.end());
  }

  // Release hook: notes the request's name (its data) in the log.
  static void LogRelease(ClassifyPacket *packet, void *arg) {
    static_cast<std::string *>(arg)->append("release:");
    static_cast<std::string *>(arg)->append(reinterpret_cast<const char *>(packet->data));
    static_cast<std::string *>(arg)->append(";");
  }

  void TearDown() override {
    held.clear();
    ClassificationFixture::TearDown();
  }

  std::vector<intrusive_ptr<oru::Conn>> held;
  std::string log;
  oru::Conn *other = nullptr;
};

struct FlagCase {
  unsigned flags;
  int code; // -1: no result
};

TEST_F(ClassificationTest, FlagsMapToCodesInTableOrder) {
  const FlagCase cases[] = {
      {0x0, -1}, {0x200, -1}, {0x100, 0}, {0x103, 0}, {0x1C0, 0}, {0x1, 1},  {0x43, 1},  {0xC2, 1},
      {0x4, 2},  {0x44, 2},   {0x20, 2},  {0xC0, 3},  {0x40, 3},  {0x80, 3}, {0x240, 3},
  };
  handler.m_conn = MakeConn(6);
  for (const FlagCase &c : cases) {
    SCOPED_TRACE(c.flags);
    recorder.calls.clear();
    handler.m_flags = c.flags;
    kest_errno = 0;
    const int rc = ClassifyForm1();
    if (c.code < 0) {
      EXPECT_EQ(rc, -1);
      EXPECT_EQ(kest_errno, 0);
      EXPECT_TRUE(recorder.calls.empty());
    } else {
      EXPECT_EQ(rc, 0);
      ASSERT_EQ(recorder.calls.size(), 1u);
      EXPECT_EQ(recorder.calls[0].code, c.code);
    }
  }
}

TEST_F(ClassificationTest, SelectorsReachTheirRowsAndConnectionsTheirOwnHandler) {
  TestClassify row1, row2, own;
  ASSERT_TRUE(classification->Register(Classification::CLASSIFY_TYPE_1, &row1, owner));
  ASSERT_TRUE(classification->Register(Classification::CLASSIFY_TYPE_2, &row2, owner));
  TestConn *conn = MakeConn(6, &own);
  for (TestClassify *t : {&handler, &row1, &row2, &own}) {
    t->m_conn = conn;
    t->m_flags = 1;
  }
  const uint8_t data[1] = {0};
  // Row 3 is accepted but never read: selector 0 asks the connection.
  TestClassify row3;
  ASSERT_TRUE(classification->Register(Classification::CLASSIFY_CONN, &row3, owner));
  for (int selector = 0; selector <= 3; ++selector) {
    EXPECT_EQ(kest_classify(h, selector, data, 1, conn, 0, kest_test::RecordingCallback, &recorder),
              0);
  }
  EXPECT_EQ(own.m_calls, 1);
  EXPECT_EQ(handler.m_calls, 1);
  EXPECT_EQ(row1.m_calls, 1);
  EXPECT_EQ(row2.m_calls, 1);
  EXPECT_EQ(row3.m_calls, 0);
}

TEST_F(ClassificationTest, SelectorZeroSetsTheSideBeforeTheHandlerRuns) {
  struct Case {
    int side;
    uint8_t stored;
  };
  TestClassify own;
  TestConn *conn = MakeConn(6, &own);
  own.m_conn = conn;
  own.m_flags = 1;
  own.m_context = conn;
  static uint8_t seen;
  own.m_action = [](TestClassify *self, ClassifyPacket *) {
    seen = static_cast<TestConn *>(self->m_context)->m_side;
  };
  const uint8_t data[1] = {0};
  for (const Case &c : {Case{0, 0}, Case{1, 1}, Case{7, 1}, Case{-1, 1}}) {
    SCOPED_TRACE(c.side);
    seen = 0xEE;
    ASSERT_EQ(kest_classify(h, 0, data, 1, conn, c.side, kest_test::RecordingCallback, &recorder),
              0);
    EXPECT_EQ(seen, c.stored);
  }
}

TEST_F(ClassificationTest, ConnectionWithoutClassifyInterfaceFails) {
  TestConn *conn = MakeConn(6);
  const uint8_t data[1] = {0};
  EXPECT_EQ(kest_classify(h, 0, data, 1, conn, 0, kest_test::RecordingCallback, &recorder), -1);
  EXPECT_EQ(kest_errno, 0);
}

TEST_F(ClassificationTest, ArgumentErrors) {
  struct Case {
    kest_handle_t handle;
    int selector;
    const void *data;
    uint16_t length;
    bool with_conn;
    int error;
  };
  const uint8_t data[1] = {0};
  const Case cases[] = {
      {0, 1, data, 1, false, KEST_EINVAL},    {32, 1, data, 1, false, KEST_EINVAL},
      {h, 1, nullptr, 1, false, KEST_EINVAL}, {h, 1, data, 0, false, KEST_EINVAL},
      {h, 0, data, 1, false, KEST_ENOTCONN},  {h, 4, data, 1, false, KEST_EINVAL},
      {h, -1, data, 1, true, KEST_EINVAL},
  };
  handler.m_conn = MakeConn(6);
  handler.m_flags = 1;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.selector);
    kest_errno = 0;
    EXPECT_EQ(kest_classify(c.handle, c.selector, c.data, c.length,
                            c.with_conn ? handler.m_conn : nullptr, 0, kest_test::RecordingCallback,
                            &recorder),
              -1);
    EXPECT_EQ(kest_errno, c.error);
  }
  EXPECT_EQ(handler.m_calls, 0);
  EXPECT_TRUE(recorder.calls.empty());
}

TEST_F(ClassificationTest, CursorAndCallbackArguments) {
  TestConn *conn = MakeConn(6);
  handler.m_conn = conn;
  handler.m_flags = 0xC0;
  handler.m_action = [](TestClassify *, ClassifyPacket *) { kest_errno = 61; };

  // Empty stack: the first entry is the end, which is the stack itself.
  ASSERT_EQ(ClassifyForm1(), 0);
  ASSERT_EQ(recorder.calls.size(), 1u);
  const kest_test::CallbackRecord &empty = recorder.calls[0];
  EXPECT_EQ(empty.handle, h);
  EXPECT_EQ(empty.code, 3);
  EXPECT_EQ(empty.conn_id, conn->m_number);
  EXPECT_EQ(empty.error, 61);
  EXPECT_EQ(empty.conn, conn);
  EXPECT_EQ(empty.cursor.stack, conn->GetAppStack());
  EXPECT_EQ(empty.cursor.current, conn->GetAppStack());

  oru::AppStack *stack = conn->GetAppStack();
  ASSERT_NE(stack->entries.push_back(oru::AppEntry{3}), stack->entries.end());
  ASSERT_NE(stack->entries.push_back(oru::AppEntry{7}), stack->entries.end());
  ASSERT_EQ(ClassifyForm1(), 0);
  ASSERT_EQ(recorder.calls.size(), 2u);
  EXPECT_EQ(recorder.calls[1].cursor.current, stack->entries.begin().node());
}

TEST_F(ClassificationTest, RefusedConnectionGoesToTheFactoryOfItsProtocol) {
  struct Case {
    uint8_t protocol;
    kest_test::TestFactory *factory;
  };
  recorder.result = 1;
  for (const Case &c : {Case{6, &tcp}, Case{17, &udp}}) {
    SCOPED_TRACE(int(c.protocol));
    oru::Tuple tuple{};
    tuple.protocol = c.protocol;
    oru::Conn *conn = Classification::CreateConn(tuple);
    ASSERT_NE(conn, nullptr);
    ASSERT_EQ(c.factory->m_table.size(), 1u);
    handler.m_conn = conn;
    handler.m_flags = 1;
    const long live = kest_test::LiveBlocks(kest_test::Heap::Local);
    EXPECT_EQ(ClassifyForm1(), 0);
    ASSERT_EQ(c.factory->m_destroyed.size(), 1u);
    EXPECT_EQ(c.factory->m_destroyed[0], conn);
    EXPECT_TRUE(c.factory->m_table.empty());
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), live - 1)
        << "the last reference went with the request";
  }
  EXPECT_EQ(kest_errno, 0);
}

TEST_F(ClassificationTest, RefusedConnectionOfOtherProtocolRaises93AndStays) {
  TestConn *conn = MakeConn(0);
  handler.m_conn = conn;
  handler.m_flags = 1;
  recorder.result = 1;
  EXPECT_EQ(ClassifyForm1(), 0);
  EXPECT_EQ(kest_errno, KEST_EPROTONOSUPPORT);
  EXPECT_TRUE(tcp.m_destroyed.empty());
  EXPECT_TRUE(udp.m_destroyed.empty());
  EXPECT_EQ(conn->use_count(), 1) << "only the test holds it";
}

TEST_F(ClassificationTest, RefusedConnectionWithoutFactoryIsLeftAlone) {
  ASSERT_TRUE(oru::InterfaceBroker::Instance()->UnregisterInterface(
      oru::MODULE_TCP, oru::INTERFACE_CONN_FACTORY, nullptr));
  handler.m_conn = MakeConn(6);
  handler.m_flags = 1;
  recorder.result = 1;
  EXPECT_EQ(ClassifyForm1(), 0);
  EXPECT_EQ(kest_errno, 0);
}

TEST_F(ClassificationTest, CreateConnChoosesTheFactoryByProtocol) {
  oru::Tuple tuple{};
  tuple.src_port = 1234;
  tuple.protocol = 17;
  oru::Conn *conn = Classification::CreateConn(tuple);
  ASSERT_NE(conn, nullptr);
  EXPECT_EQ(conn->m_tuple.src_port, 1234);
  EXPECT_EQ(udp.m_table.size(), 1u);
  EXPECT_TRUE(tcp.m_table.empty());

  kest_errno = 0;
  tuple.protocol = 132;
  EXPECT_EQ(Classification::CreateConn(tuple), nullptr);
  EXPECT_EQ(kest_errno, KEST_EPROTONOSUPPORT);
}

TEST_F(ClassificationTest, FirstRegistrationOfARowWins) {
  TestClassify second;
  second.m_flags = 1;
  intrusive_ptr<oru::fdt::refcnt> other(new kest_test::TestOwner);
  EXPECT_FALSE(classification->Register(Classification::CLASSIFY_TYPE_0, &second, other));
  EXPECT_EQ(other->use_count(), 1) << "a refused registration keeps no reference";
  EXPECT_EQ(owner->use_count(), 2);
  handler.m_flags = 0;
  ClassifyForm1();
  EXPECT_EQ(handler.m_calls, 1);
  EXPECT_EQ(second.m_calls, 0);
}

TEST_F(ClassificationTest, UnregisterNeedsHandlerAndOwner) {
  TestClassify stranger;
  intrusive_ptr<oru::fdt::refcnt> other(new kest_test::TestOwner);
  classification->Unregister(Classification::CLASSIFY_TYPE_0, &handler, other);
  classification->Unregister(Classification::CLASSIFY_TYPE_0, &stranger, owner);
  classification->Unregister(Classification::CLASSIFY_TYPE_1, &handler, owner);
  ClassifyForm1();
  EXPECT_EQ(handler.m_calls, 1) << "the row is unchanged";
  EXPECT_EQ(owner->use_count(), 2);

  classification->Unregister(Classification::CLASSIFY_TYPE_0, &handler, owner);
  EXPECT_EQ(owner->use_count(), 1);
  EXPECT_EQ(ClassifyForm1(), -1);
  EXPECT_EQ(handler.m_calls, 1);
  // The row is free again.
  EXPECT_TRUE(classification->Register(Classification::CLASSIFY_TYPE_0, &stranger, other));
}

TEST_F(ClassificationTest, FailingDeferredRequestDropsTheRest) {
  TestConn *conn = MakeConn(6);
  handler.m_conn = conn;
  handler.m_flags = 1;
  handler.m_context = this;
  // While handling the packet, the plug-in defers a request of an empty row
  // (fails) and one that would succeed.
  handler.m_action = [](TestClassify *self, ClassifyPacket *) {
    if (self->m_calls == 1) {
      auto *test = static_cast<ClassificationTest *>(self->m_context);
      test->Defer(Classification::CLASSIFY_TYPE_2, self->m_conn, "a");
      test->Defer(Classification::CLASSIFY_TYPE_0, self->m_conn, "b");
    }
  };
  EXPECT_EQ(ClassifyForm1(), -1);
  EXPECT_EQ(handler.m_calls, 1) << "the second record is not run";
  EXPECT_EQ(recorder.calls.size(), 1u) << "the packet's result stands";
  EXPECT_EQ(log, "release:a;release:b;");
  EXPECT_TRUE(classification->m_deferred.empty());
}

TEST_F(ClassificationTest, RecordAppendedDuringTheWalkRuns) {
  TestConn *first = MakeConn(6);
  other = MakeConn(6);
  handler.m_conn = first;
  handler.m_flags = 1;
  handler.m_context = this;
  // The packet defers "a"; running "a" defers "b", reports on another
  // connection and leaves an error behind.
  handler.m_action = [](TestClassify *self, ClassifyPacket *) {
    auto *test = static_cast<ClassificationTest *>(self->m_context);
    if (self->m_calls == 1) {
      test->Defer(Classification::CLASSIFY_TYPE_0, nullptr, "a");
    } else if (self->m_calls == 2) {
      test->Defer(Classification::CLASSIFY_TYPE_0, nullptr, "b");
      self->m_conn = test->other;
      kest_errno = 5;
    }
  };
  EXPECT_EQ(ClassifyForm1(), 0);
  EXPECT_EQ(handler.m_calls, 3);
  ASSERT_EQ(recorder.calls.size(), 3u);
  EXPECT_EQ(recorder.calls[0].conn, first);
  EXPECT_EQ(recorder.calls[1].conn, other);
  EXPECT_EQ(recorder.calls[1].conn_id, other->m_number);
  EXPECT_EQ(recorder.calls[1].error, 5);
  EXPECT_EQ(recorder.calls[2].error, 0) << "each deferred request starts with kest_errno 0";
  EXPECT_EQ(log, "release:a;release:b;");
  EXPECT_TRUE(classification->m_deferred.empty());
}

TEST_F(ClassificationTest, RequestReleaseHookRunsAfterTheDeferredOnes) {
  handler.m_conn = MakeConn(6);
  handler.m_flags = 1;
  handler.m_context = this;
  handler.m_action = [](TestClassify *self, ClassifyPacket *packet) {
    auto *test = static_cast<ClassificationTest *>(self->m_context);
    if (self->m_calls == 1) {
      packet->release = [](ClassifyPacket *p, void *arg) {
        auto *t = static_cast<ClassificationTest *>(arg);
        t->log.append(p->data == ClassificationTest::kPacket ? "release:packet;" : "wrong;");
      };
      packet->release_arg = test;
      test->Defer(Classification::CLASSIFY_TYPE_0, self->m_conn, "a");
    }
  };
  EXPECT_EQ(ClassifyForm1(), 0);
  EXPECT_EQ(log, "release:a;release:packet;");
}

TEST_F(ClassificationTest, ReleaseHookRunsWhenTheRequestFailed) {
  handler.m_flags = 0;
  handler.m_context = this;
  handler.m_action = [](TestClassify *self, ClassifyPacket *packet) {
    packet->release = [](ClassifyPacket *, void *arg) {
      static_cast<std::string *>(arg)->append("released;");
    };
    packet->release_arg = &static_cast<ClassificationTest *>(self->m_context)->log;
  };
  EXPECT_EQ(ClassifyForm1(), -1);
  EXPECT_EQ(log, "released;");
}

TEST_F(ClassificationTest, NullCallbackKeepsTheConnection) {
  handler.m_conn = MakeConn(6);
  handler.m_flags = 1;
  EXPECT_EQ(kest_classify(h, 1, kPacket, sizeof(kPacket), nullptr, 0, nullptr, nullptr), 0);
  EXPECT_TRUE(tcp.m_destroyed.empty());
}

TEST_F(ClassificationTest, DestructionDrainsDeferredAndDropsOwners) {
  Defer(Classification::CLASSIFY_TYPE_0, nullptr, "x");
  Defer(Classification::CLASSIFY_TYPE_0, nullptr, "y");
  EXPECT_EQ(owner->use_count(), 2);
  classification->ExitThread();
  Classification::Release();
  EXPECT_EQ(Classification::Peek(), nullptr);
  EXPECT_EQ(log, "release:x;release:y;");
  EXPECT_EQ(handler.m_calls, 0);
  EXPECT_EQ(owner->use_count(), 1);
}

TEST_F(ClassificationTest, ThreadStartMakesConnectionZeroAndExitFreesAll) {
  classification->ExitThread();
  Classification::Release();
  const long live = kest_test::LiveBlocks(kest_test::Heap::Local);
  Classification *fresh = Classification::Instance();
  ASSERT_NE(fresh, nullptr);
  kest_test::StartRecording();
  ASSERT_TRUE(fresh->InitThread());
  int conns = 0;
  for (const kest_test::Allocation &a : kest_test::StopRecording()) {
    conns += a.heap == kest_test::Heap::Local && a.size == sizeof(oru::Conn);
  }
  EXPECT_EQ(conns, 1) << "the default connection, without prefix";
  EXPECT_EQ(oru::Conn::s_next_conn[h], 0u) << "it has number 0 and leaves the counter";
  fresh->ExitThread();
  Classification::Release();
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), live);
}

// Each allocation of the thread start fails in turn: the start reports 12,
// and the exit that the thread start-up's unwind runs leaves nothing behind.
TEST_F(ClassificationTest, ThreadStartFailsWithoutMemoryAndUnwinds) {
  classification->ExitThread();
  Classification::Release();
  const long local = kest_test::LiveBlocks(kest_test::Heap::Local);
  const long shared = kest_test::LiveBlocks(kest_test::Heap::Shared);
  bool started = false;
  for (long n = 1; !started && n < 50; ++n) {
    SCOPED_TRACE(n);
    Classification *fresh = Classification::Instance();
    ASSERT_NE(fresh, nullptr);
    kest_errno = 0;
    kest_test::FailNthAllocation(n);
    started = fresh->InitThread();
    kest_test::FailNthAllocation(0);
    if (!started) {
      EXPECT_EQ(kest_errno, KEST_ENOMEM);
    }
    fresh->ExitThread();
    Classification::Release();
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), local);
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Shared), shared);
  }
  EXPECT_TRUE(started);
}

} // namespace
