#include "../attributes/AttributeTestSupport.h"

#include <cstring>

namespace {

class ConnExpiryTest : public kest_test::AttributeFixture {};

// "conn.expired" carries the dying connection's number, only while someone
// listens and the active connection allows attributes.
TEST_F(ConnExpiryTest, ExpiredFollowsListenersAndTheActivePolicy) {
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
