#include "ConnTestSupport.h"

#include <kest/Clock.h>

namespace {

using kest_test::TestConn;
using oru::AppStack;
using oru::Conn;
using oru::fdt::intrusive_ptr;

// Reads the thread's policy cell as plug-ins do.
uint32_t &DefaultPolicy() {
  return oru::ThreadWord(Conn::l_default_policy);
}

class ConnTest : public kest_test::ClassificationFixture {
protected:
  // A base connection, whole from kest_malloc_local, as the factories make
  // them.
  static Conn *MakeBase() {
    void *block = kest_malloc_local(sizeof(Conn));
    return block != nullptr ? ::new (block) Conn() : nullptr;
  }

  // Brings up a second instance with a thread context on this thread and
  // leaves the test thread working in it.
  kest_handle_t OpenSecond() {
    oru::Runtime::l_instance_id = 0;
    const kest_handle_t other = Open();
    EXPECT_GT(other, 0);
    EXPECT_EQ(kest_init(other), 0);
    oru::Runtime::l_instance_id = other;
    EXPECT_TRUE(Conn::InitInstance());
    EXPECT_TRUE(Conn::InitThread());
    return other;
  }

  void CloseSecond(kest_handle_t other) {
    oru::Runtime::l_instance_id = 0;
    EXPECT_EQ(kest_fini(other), 0);
    EXPECT_EQ(kest_close(other), 0);
    oru::Runtime::l_instance_id = h;
  }
};

TEST_F(ConnTest, NumbersCountPerInstanceAndRestartAfterReopen) {
  intrusive_ptr<Conn> a(MakeBase()), b(MakeBase());
  EXPECT_EQ(a->m_number, 1u);
  EXPECT_EQ(b->m_number, 2u);

  kest_handle_t other = OpenSecond();
  {
    intrusive_ptr<Conn> c(MakeBase());
    EXPECT_EQ(c->m_number, 1u) << "a second instance counts on its own";
  }
  CloseSecond(other);

  intrusive_ptr<Conn> d(MakeBase());
  EXPECT_EQ(d->m_number, 3u);

  const kest_handle_t reopened = OpenSecond();
  EXPECT_EQ(reopened, other) << "the freed row is taken again";
  {
    intrusive_ptr<Conn> e(MakeBase());
    EXPECT_EQ(e->m_number, 1u);
  }
  CloseSecond(reopened);
}

TEST_F(ConnTest, ExplicitNumberLeavesTheCounterAlone) {
  void *block = kest_malloc_local(sizeof(Conn));
  intrusive_ptr<Conn> five(::new (block) Conn(5));
  EXPECT_EQ(five->m_number, 5u);
  EXPECT_EQ(Conn::s_next_conn[h], 0u);
  intrusive_ptr<Conn> next(MakeBase());
  EXPECT_EQ(next->m_number, 1u);
}

TEST_F(ConnTest, NewConnectionState) {
  struct Case {
    uint32_t default_policy;
  };
  EXPECT_EQ(DefaultPolicy(), 0xFFFFFFFFu) << "thread start sets all bits";
  for (const Case &c : {Case{0xFFFFFFFFu}, Case{0x15u}, Case{0u}}) {
    SCOPED_TRACE(c.default_policy);
    DefaultPolicy() = c.default_policy;
    intrusive_ptr<Conn> conn(MakeBase());
    EXPECT_EQ(conn->m_policy, c.default_policy);
    EXPECT_EQ(conn->m_status, 1u);
    EXPECT_EQ(conn->m_touched, 0u);
    EXPECT_EQ(conn->m_side, 0u);
    EXPECT_EQ(conn->use_count(), 1);
    EXPECT_TRUE(conn->GetAppStack()->entries.empty());
    EXPECT_EQ(conn->GetAppStack()->app, 0u);
    EXPECT_EQ(conn->GetAppStack()->reserved, 0u);
    EXPECT_TRUE(conn->m_tuple.src.is_zero());
    EXPECT_TRUE(conn->m_tuple.dst.is_zero());
    EXPECT_EQ(conn->m_tuple.src_port + conn->m_tuple.dst_port + conn->m_tuple.protocol, 0);
    EXPECT_EQ(conn->Protocol(), 0);
    EXPECT_EQ(conn->GetInterface(oru::INTERFACE_CONN_CLASSIFY), nullptr);
  }
}

TEST_F(ConnTest, IdleAfterMoreThanAMinute) {
  struct Case {
    uint64_t touched;
    uint64_t now;
    bool idle;
  };
  const Case cases[] = {
      {1000, 1000, false},
      {1000, 61000, false}, // exactly 60000 ms
      {1000, 61001, true},
      {70000, 1000, true}, // a clock behind the touch reads as a long gap
  };
  intrusive_ptr<Conn> conn(MakeBase());
  for (const Case &c : cases) {
    SCOPED_TRACE(c.now);
    oru::set_clock(c.touched);
    conn->Touch();
    EXPECT_EQ(conn->Touched(), c.touched);
    oru::set_clock(c.now);
    EXPECT_EQ(conn->Idle(), c.idle);
  }
}

TEST_F(ConnTest, TouchMakesTheConnectionActive) {
  intrusive_ptr<Conn> a(MakeBase()), b(MakeBase());
  a->Touch();
  EXPECT_EQ(oru::ThreadPointer<Conn>(Conn::l_active_conn), a.get());
  b->Touch();
  EXPECT_EQ(oru::ThreadPointer<Conn>(Conn::l_active_conn), b.get());
  b.reset();
  EXPECT_NE(oru::ThreadPointer<Conn>(Conn::l_active_conn), nullptr)
      << "the cell is not cleared by the destructor";
  oru::ThreadPointer<Conn>(Conn::l_active_conn) = nullptr;
}

TEST_F(ConnTest, ApplicationIndexReadsAsTheSentinelsEntry) {
  intrusive_ptr<Conn> conn(MakeBase());
  AppStack *stack = conn->GetAppStack();
  stack->app = 42;
  auto at_end = [&] {
    return static_cast<AppStack::Node *>(stack->entries.end().node())->m_value.proto;
  };
  EXPECT_EQ(static_cast<void *>(stack->entries.end().node()), static_cast<void *>(stack))
      << "the end of the walk is the stack itself";
  EXPECT_EQ(at_end(), 42u);
  ASSERT_NE(stack->entries.push_back(oru::AppEntry{3}), stack->entries.end());
  ASSERT_NE(stack->entries.push_back(oru::AppEntry{7}), stack->entries.end());
  // Walking up from the lowest protocol runs into the application index.
  oru::fdt::list_link *link = stack->entries.begin().node();
  uint32_t seen[3];
  for (uint32_t &proto : seen) {
    proto = static_cast<AppStack::Node *>(link)->m_value.proto;
    link = link->m_next;
  }
  EXPECT_EQ(seen[0], 3u);
  EXPECT_EQ(seen[1], 7u);
  EXPECT_EQ(seen[2], 42u);
}

TEST_F(ConnTest, LastReferenceFreesObjectAndStackWithFreeLocal) {
  const long live = kest_test::LiveBlocks(kest_test::Heap::Local);
  intrusive_ptr<Conn> conn(TestConn::Make(6));
  ASSERT_TRUE(conn);
  AppStack *stack = conn->GetAppStack();
  ASSERT_NE(stack->entries.push_back(oru::AppEntry{1}), stack->entries.end());
  ASSERT_NE(stack->entries.push_back(oru::AppEntry{2}), stack->entries.end());
  intrusive_ptr<oru::fdt::refcnt> as_counted(conn.get());
  EXPECT_EQ(conn->use_count(), 2);
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), live + 3);
  conn.reset();
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), live + 3);
  // The count's own table destroys the whole object.
  as_counted.reset();
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), live);
}

// Plug-ins call through the first table by slot; the order is fixed.
TEST_F(ConnTest, FirstTableOrder) {
  using GetInterfaceFn = void *(*)(Conn *, oru::InterfaceId);
  using ProtocolFn = uint8_t (*)(const Conn *);
  using SetSideFn = void (*)(Conn *, unsigned char);
  using DestructorFn = void (*)(Conn *);
  using ExpiredFn = void (*)(Conn *);

  kest_test::TestClassify classify;
  const long live = kest_test::LiveBlocks(kest_test::Heap::Local);
  TestConn *conn = TestConn::Make(17, &classify);
  void **table = *reinterpret_cast<void ***>(static_cast<Conn *>(conn));

  EXPECT_EQ(reinterpret_cast<GetInterfaceFn>(table[0])(conn, oru::INTERFACE_CONN_CLASSIFY),
            &classify);
  EXPECT_EQ(reinterpret_cast<ProtocolFn>(table[1])(conn), 17);
  reinterpret_cast<SetSideFn>(table[2])(conn, 1);
  EXPECT_EQ(conn->m_side, 1);
  reinterpret_cast<ExpiredFn>(table[5])(conn);
  EXPECT_EQ(conn->m_expired, 1);
  // Slot 4, the deleting destructor, gives the block back.
  reinterpret_cast<DestructorFn>(table[4])(conn);
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), live);
}

} // namespace
