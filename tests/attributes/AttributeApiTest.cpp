#include "AttributeTestSupport.h"

#include <atomic>
#include <thread>

namespace {

using kest_test::Name;
using oru::AttributeMgr;

int g_value_id = 0;

// A producer on the packet path: it reports only while someone listens.
void ReportValue(kest_test::TestClassify *self, oru::ClassifyPacket *) {
  self->m_conn->Touch();
  if (g_value_id > 0) {
    AttributeMgr::Instance()->DispatchAttribute(g_value_id, (const uint8_t *)"abc", 3, 1, 2);
  }
}

class AttributeApiTest : public kest_test::AttributeFixture {};

TEST_F(AttributeApiTest, ValuesReachTheListenerWithTheRunningUserWord) {
  ASSERT_TRUE(AttributeMgr::Create(Name("d.value")));
  ASSERT_TRUE(manager->Register(Name("d.value"), &g_value_id));
  ASSERT_EQ(SetListener("d.value"), 0);
  handler.m_conn = MakeConn(6);
  handler.m_flags = 0x43;
  handler.m_action = ReportValue;
  kest_test::Recorder first, second; // the user words of two calls
  // The idle pass of kest_classify brings the listener before the plug-in runs.
  for (kest_test::Recorder *user : {&first, &second}) {
    ASSERT_EQ(kest_classify(h, KEST_SELECTOR_FORM_1, kPacket, sizeof(kPacket), nullptr, 0,
                            kest_test::RecordingCallback, user),
              0);
  }
  ASSERT_EQ(kest_test::g_deliveries.size(), 2u);
  for (const kest_test::Delivery &d : kest_test::g_deliveries) {
    EXPECT_EQ(d.handle, h);
    EXPECT_EQ(d.conn_id, handler.m_conn->m_number);
    EXPECT_EQ(d.key, Key("d.value"));
    EXPECT_EQ(d.value, "abc");
    EXPECT_EQ(d.packed, 0x20001);
  }
  EXPECT_EQ(kest_test::g_deliveries[0].user, &first);
  EXPECT_EQ(kest_test::g_deliveries[1].user, &second);

  manager->SetHandler(nullptr);
  ReportValue(&handler, nullptr);
  EXPECT_EQ(kest_test::g_deliveries.size(), 2u) << "no handler, no delivery";
  ASSERT_EQ(SetListener("d.value", nullptr), 0);
  kest_idle(h);
  EXPECT_EQ(g_value_id, 0) << "the producer stops";
}

// A listener and a default policy set here reach a second thread at its next
// idle pass, not before; connections built later follow the policy.
TEST_F(AttributeApiTest, ChangesReachAnotherThreadAtItsIdlePass) {
  ASSERT_TRUE(AttributeMgr::Create(Name("x.seen")));
  std::atomic<int> step{0};
  struct Seen {
    int id, key;
    uint32_t policy;
  } seen[2] = {};
  std::thread other([&] {
    EXPECT_EQ(kest_init(h), 0);
    oru::Runtime::l_instance_id = h;
    int id = 0;
    EXPECT_TRUE(AttributeMgr::Instance()->Register(Name("x.seen"), &id));
    step = 1;
    while (step != 2) {
      std::this_thread::yield();
    }
    for (Seen &s : seen) {
      kest_test::ConnPtr conn(kest_test::TestConn::Make(6));
      s = Seen{id, kest_attr_key_get(h, "x.seen"), conn->m_policy};
      kest_idle(h);
    }
    kest_fini(h);
  });
  while (step != 1) {
    std::this_thread::yield();
  }
  EXPECT_EQ(SetListener("x.seen"), 0);
  EXPECT_EQ(kest_config_set(h, "conn.default_policy.tunnels", "2"), -1);
  EXPECT_EQ(kest_config_set(h, "conn.default_policy.tunnels", "0"), 0);
  step = 2;
  other.join();
  EXPECT_EQ(seen[0].id, 0);
  EXPECT_EQ(seen[0].key, 0);
  EXPECT_EQ(seen[0].policy, 0xFFFFFFFFu);
  EXPECT_GT(seen[1].id, 0);
  EXPECT_EQ(seen[1].key, seen[1].id);
  EXPECT_EQ(seen[1].policy, 0xFFFFFFFFu & ~oru::POLICY_TUNNELS);
}

} // namespace
