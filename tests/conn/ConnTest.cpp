#include "../attributes/AttributeTestSupport.h"

#include <kest/Clock.h>

#include <cstring>

namespace {

using kest_test::ConnPtr;
using oru::Conn;

class ConnTest : public kest_test::AttributeFixture {
protected:
  static ConnPtr MakeBase(unsigned long long number = 0, bool numbered = false) {
    void *block = kest_malloc_local(sizeof(Conn));
    return numbered ? ::new (block) Conn(number) : ::new (block) Conn();
  }

  // Opens another instance with a context on this thread, works in it, and
  // returns the number of its first connection.
  uint64_t FirstNumberInNewInstance(kest_handle_t *row) {
    oru::Runtime::l_instance_id = 0;
    *row = Open();
    EXPECT_EQ(kest_init(*row), 0);
    oru::Runtime::l_instance_id = *row;
    const uint64_t number = MakeBase()->m_number;
    oru::Runtime::l_instance_id = 0;
    EXPECT_EQ(kest_fini(*row), 0);
    EXPECT_EQ(kest_close(*row), 0);
    oru::Runtime::l_instance_id = h;
    return number;
  }
};

TEST_F(ConnTest, NumbersCountPerInstanceFromOne) {
  ConnPtr a = MakeBase(), b = MakeBase();
  EXPECT_EQ(a->m_number, 1u);
  EXPECT_EQ(b->m_number, 2u);
  kest_handle_t first_row = 0, second_row = 0;
  EXPECT_EQ(FirstNumberInNewInstance(&first_row), 1u);
  EXPECT_EQ(MakeBase()->m_number, 3u);
  EXPECT_EQ(FirstNumberInNewInstance(&second_row), 1u) << "a reopened row starts again";
  EXPECT_EQ(second_row, first_row);
  EXPECT_EQ(MakeBase(5, true)->m_number, 5u);
  EXPECT_EQ(MakeBase()->m_number, 4u) << "an explicit number leaves the counter";
}

TEST_F(ConnTest, NewConnectionCopiesTheThreadPolicy) {
  EXPECT_EQ(oru::ThreadWord(Conn::l_default_policy), 0xFFFFFFFFu) << "set by thread start";
  for (uint32_t policy : {0xFFFFFFFFu, 0x15u, 0u}) {
    oru::ThreadWord(Conn::l_default_policy) = policy;
    ConnPtr conn = MakeBase();
    EXPECT_EQ(conn->m_policy, policy);
    EXPECT_EQ(conn->m_status, 1u);
  }
}

TEST_F(ConnTest, IdleOnlyBeyondSixtySeconds) {
  const struct {
    uint64_t touched, now;
    bool idle;
  } cases[] = {{1000, 61000, false}, {1000, 61001, true}, {70000, 1000, true}};
  ConnPtr conn = MakeBase();
  for (const auto &c : cases) {
    SCOPED_TRACE(c.now);
    oru::set_clock(c.touched);
    conn->Touch();
    EXPECT_EQ(conn->Touched(), c.touched);
    EXPECT_EQ(oru::ThreadPointer<Conn>(Conn::l_active_conn), conn.get());
    oru::set_clock(c.now);
    EXPECT_EQ(conn->Idle(), c.idle);
  }
}

// Plug-ins call through the first table by slot, and the count's table
// destroys the whole object: both orders are fixed.
TEST_F(ConnTest, TablesInTheirOrderAndTheLastReferenceFreesAll) {
  kest_test::TestClassify classify;
  const long live = kest_test::LiveBlocks(kest_test::Heap::Local);
  kest_test::TestConn *conn = kest_test::TestConn::Make(17, &classify);
  void **table = *reinterpret_cast<void ***>(static_cast<Conn *>(conn));
  EXPECT_EQ(reinterpret_cast<void *(*)(Conn *, oru::InterfaceId)>(table[0])(
                conn, oru::INTERFACE_CONN_CLASSIFY),
            &classify);
  EXPECT_EQ(reinterpret_cast<uint8_t (*)(Conn *)>(table[1])(conn), 17);
  reinterpret_cast<void (*)(Conn *, unsigned char)>(table[2])(conn, 1);
  EXPECT_EQ(conn->m_side, 1);
  reinterpret_cast<void (*)(Conn *)>(table[5])(conn);
  EXPECT_EQ(conn->m_expired, 1);
  // Slot 4, the deleting destructor, gives back the object and its stack.
  ASSERT_NE(conn->GetAppStack()->entries.push_back(oru::AppEntry{1}),
            conn->GetAppStack()->entries.end());
  reinterpret_cast<void (*)(Conn *)>(table[4])(conn);
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), live);

  conn = kest_test::TestConn::Make(6);
  oru::fdt::intrusive_ptr<oru::fdt::refcnt> counted(conn);
  counted.reset();
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), live);
}

// "conn.expired" carries the dying connection's number, only while someone
// listens and the active connection allows attributes.
TEST_F(ConnTest, ExpiredFollowsListenersAndTheActivePolicy) {
  kest_test::TestConn *active = MakeConn(6);
  kest_test::TestConn *dying = MakeConn(17);
  EXPECT_EQ(dying->m_policy, 0xFFFFFFFFu) << "all default keys at 1";
  active->Touch();
  dying->oru::Conn::Expired();
  EXPECT_TRUE(kest_test::g_deliveries.empty()) << "nobody listens";

  ASSERT_EQ(SetListener("conn.expired"), 0);
  kest_idle(h);
  dying->oru::Conn::Expired();
  ASSERT_EQ(kest_test::g_deliveries.size(), 1u);
  const kest_test::Delivery d = kest_test::g_deliveries[0];
  EXPECT_EQ(d.key, Key("conn.expired"));
  EXPECT_EQ(d.conn_id, active->m_number);
  EXPECT_EQ(d.packed, 0);
  uint64_t number = 0;
  ASSERT_EQ(d.value.size(), 8u);
  std::memcpy(&number, d.value.data(), 8);
  EXPECT_EQ(number, dying->m_number);

  // The active connection's policy decides, not the dying one's.
  ASSERT_EQ(kest_conn_policy_flags_disable(h, active->m_number, KEST_POLICY_ATTRIBUTES), 0);
  dying->oru::Conn::Expired();
  EXPECT_EQ(kest_test::g_deliveries.size(), 1u);
  dying->Touch();
  active->oru::Conn::Expired();
  EXPECT_EQ(kest_test::g_deliveries.size(), 2u);
}

} // namespace
