#include "tests/decoders/DecoderTestSupport.h"

#include "tests/attributes/AttributeTestSupport.h"
#include "tests/rules/ChainTestSupport.h"
#include "transport/ConnTable.h"

#include <cstring>

namespace {

class ConnTableTest : public kest_test::DecoderFixture {};

TEST_F(ConnTableTest, HostConnectionsComeFromTheTableOfTheirProtocol) {
  for (uint8_t protocol : {6, 17, 6}) {
    SCOPED_TRACE(int{protocol});
    kest_decoders::ConnTable *table = (protocol == 6 ? kTcp : kUdp).Table();
    const size_t held = table->Count();
    oru::Conn *conn = Create(protocol);
    ASSERT_NE(conn, nullptr);
    EXPECT_EQ(table->Count(), held + 1);
    EXPECT_EQ(conn->Protocol(), protocol);
    EXPECT_EQ(conn->m_tuple.src_port, 40000);
    EXPECT_EQ(conn->m_tuple.dst_port, 80);
    EXPECT_EQ(conn->GetInterface(oru::INTERFACE_CONN_CLASSIFY), &table->Classifier());
    EXPECT_EQ(conn->use_count(), 1);
  }
}

TEST_F(ConnTableTest, DestroyDropsOnlyWhatTheTableHolds) {
  kest_decoders::ConnTable *tcp = kTcp.Table();
  oru::Conn *kept = Create(6);
  EXPECT_EQ(kest_conn_destroy(h, static_cast<oru::IConn *>(Create(6))), 0);
  EXPECT_EQ(tcp->Count(), 1u);
  recorder.result = 1; // the callback asks for it
  ASSERT_EQ(Classify(kept, 0, "bye"), 0);
  EXPECT_EQ(tcp->Count(), 0u);

  // One of the same protocol made elsewhere, one of the other transport and
  // one that outlived the table's reference are not the table's to drop.
  kest_test::ConnPtr foreign = kest_test::TestConn::Make(6);
  kest_test::ConnPtr udp = Create(17);
  kest_test::ConnPtr survivor = Create(6);
  tcp->Destroy(survivor.get());
  for (oru::Conn *conn : {foreign.get(), udp.get(), survivor.get()}) {
    const int32_t count = conn->use_count();
    tcp->Destroy(conn);
    EXPECT_EQ(conn->use_count(), count);
  }
  EXPECT_EQ(kUdp.Table()->Count(), 1u);
}

// Every connection the tables drop is reported once, also after the host
// dropped the one it touched last, and at thread end; the active-connection
// cell never outlives the connection it names.
TEST_F(ConnTableTest, DroppedConnectionsAreReportedExpired) {
  kest_test::g_deliveries.clear();
  ASSERT_EQ(kest_attr_callback_set(h, "conn.expired", kest_test::RecordingListener), 0);
  kest_idle(h);
  oru::Conn *first = Create(6);
  oru::Conn *second = Create(6);
  oru::Conn *third = Create(17);
  const uint64_t numbers[] = {first->m_number, second->m_number, third->m_number};
  ASSERT_EQ(Classify(first, 0, "hi"), 0);
  EXPECT_EQ(kest_conn_destroy(h, static_cast<oru::IConn *>(first)), 0);
  EXPECT_EQ(oru::ThreadPointer<oru::Conn>(oru::Conn::l_active_conn), nullptr);
  EXPECT_EQ(kest_conn_destroy(h, static_cast<oru::IConn *>(second)), 0);
  kUdp.Table()->Clear();
  EXPECT_EQ(oru::ThreadPointer<oru::Conn>(oru::Conn::l_active_conn), nullptr);
  ASSERT_EQ(kest_test::g_deliveries.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    uint64_t number = 0;
    ASSERT_EQ(kest_test::g_deliveries[i].value.size(), 8u);
    std::memcpy(&number, kest_test::g_deliveries[i].value.data(), 8);
    EXPECT_EQ(number, numbers[i]) << i;
  }
  ASSERT_EQ(kest_attr_callback_set(h, "conn.expired", nullptr), 0);
}

// A connection's chain comes from the table's store when the table makes it,
// and every entry still waiting hears OnChainExit once when the connection
// ends; a registered callback is let go.
TEST_F(ConnTableTest, ConnectionsEndTheirInspection) {
  kest_test::Log log;
  oru::fdt::intrusive_ptr<kest_test::ScriptedInspector> a(
      kest_test::ScriptedInspector::Make("A", &log));
  oru::fdt::intrusive_ptr<kest_test::ScriptedInspector> b(
      kest_test::ScriptedInspector::Make("B", &log));
  oru::IpPortRuleStore &rules = kTcp.Table()->Rules();
  ASSERT_TRUE(
      rules.AddRule(6, a->Callback(), 80, {}, {}, 0, oru::IpPortRuleStore::EXPIRY_LOCAL, false));
  ASSERT_TRUE(
      rules.AddRule(6, b->Callback(), 0, {}, {}, 0, oru::IpPortRuleStore::EXPIRY_LOCAL, false));
  oru::Conn *conn = Create(6);
  ASSERT_EQ(Classify(conn, 0, "x"), 0);
  EXPECT_EQ(recorder.calls.back().code, 1);
  oru::fdt::intrusive_ptr<oru::Conn> held(conn);
  kTcp.Table()->Classifier().RegisterCallback(held, 1, b->SecondCallback(),
                                              oru::Inspector::EVENT_DATA);
  EXPECT_EQ(b->use_count(), 4); // ours, the rule, the chain entry, the registration
  held.reset();
  EXPECT_EQ(kest_conn_destroy(h, static_cast<oru::IConn *>(conn)), 0);
  EXPECT_EQ(log, (kest_test::Log{"A", "B", "A~", "B~"}));
  EXPECT_EQ(b->use_count(), 2);
  rules.RemoveRuleFast(6, a->Callback(), 80, {}, {});
  rules.RemoveRuleFast(6, b->Callback(), 0, {}, {});
  EXPECT_TRUE(rules.m_index.empty());
}

// The decoder gate runs its members as a chain would: those on their ports
// first, then the others in the order they joined; one that finishes
// leaves, one that ends the chain takes the rest with it; one narrowed to
// some first bytes sees only the connections that open with them. It is on the
// store only while it has members.
TEST_F(ConnTableTest, DecoderGateRunsItsMembersAsAChainWould) {
  kest_test::Log log;
  using Inspector = kest_test::ScriptedInspector;
  oru::fdt::intrusive_ptr<Inspector> a(Inspector::Make("A", &log));
  oru::fdt::intrusive_ptr<Inspector> b(Inspector::Make("B", &log));
  oru::fdt::intrusive_ptr<Inspector> c(Inspector::Make("C", &log, oru::INSPECT_FINISHED));
  kest_decoders::DecoderGate &gate = *kTcp.Table()->m_gate;
  oru::IpPortRuleStore &rules = kTcp.Table()->Rules();
  EXPECT_TRUE(rules.m_index.empty());
  const uint16_t http = 80;
  ASSERT_TRUE(gate.Join(a.get(), nullptr, 0));
  ASSERT_TRUE(gate.Join(b.get(), &http, 1));
  ASSERT_TRUE(gate.Join(c.get(), nullptr, 0));
  // D reads only connections whose first bytes start with 'q': the others
  // never reach it, nor does it leave them.
  oru::fdt::intrusive_ptr<Inspector> d(Inspector::Make("D", &log));
  ASSERT_TRUE(gate.Join(d.get(), nullptr, 0));
  oru::FirstBytes q;
  q.Allow(0, 'q');
  gate.Narrow(d.get(), q);
  oru::Conn *conn = Create(6); // to port 80
  const struct {
    const char *payload;
    unsigned a_answer;
    int code;
    kest_test::Log log;
  } steps[] = {
      {"x", oru::INSPECT_STAY, 1, {"B", "A", "C", "C~"}},
      {"y", oru::INSPECT_STAY, 1, {"B", "A"}},
      {"z", oru::INSPECT_ABANDON, 3, {"B", "A", "A~", "B~"}},
      {"w", oru::INSPECT_STAY, 1, {}},
  };
  for (const auto &step : steps) {
    SCOPED_TRACE(step.payload);
    log.clear();
    a->m_answer = step.a_answer;
    ASSERT_EQ(Classify(conn, 0, step.payload), 0);
    EXPECT_EQ(recorder.calls.back().code, step.code);
    EXPECT_EQ(log, step.log);
  }
  EXPECT_EQ(kest_conn_destroy(h, static_cast<oru::IConn *>(conn)), 0);
  log.clear();
  a->m_answer = oru::INSPECT_STAY;
  oru::Conn *quick = Create(6);
  ASSERT_EQ(Classify(quick, 0, "q"), 0);
  EXPECT_EQ(log, (kest_test::Log{"B", "A", "C", "C~", "D"}));
  EXPECT_EQ(kest_conn_destroy(h, static_cast<oru::IConn *>(quick)), 0);
  for (Inspector *member : {a.get(), b.get(), c.get(), d.get()}) {
    gate.Leave(member);
  }
  EXPECT_TRUE(rules.m_index.empty());
}

// The risks known only at a connection's end reach the host for that
// connection before its expiry: a well-known port (a gate member's) that
// carried bytes both ways nobody named, and nothing for the same bytes
// one way only.
TEST_F(ConnTableTest, EndRisksComeBeforeTheExpiry) {
  kest_test::Log log;
  oru::fdt::intrusive_ptr<kest_test::ScriptedInspector> member(
      kest_test::ScriptedInspector::Make("M", &log, oru::INSPECT_FINISHED));
  kest_decoders::DecoderGate &gate = *kTcp.Table()->m_gate;
  const uint16_t http = 80;
  ASSERT_TRUE(gate.Join(member.get(), &http, 1));
  kest_test::g_deliveries.clear();
  for (const char *name : {"conn.expired", "flow.risks"}) {
    ASSERT_EQ(kest_attr_callback_set(h, name, kest_test::RecordingListener), 0) << name;
  }
  kest_idle(h);
  const int risks = kest_attr_key_get(h, "flow.risks");
  const int expired = kest_attr_key_get(h, "conn.expired");
  const struct {
    bool answered;
    std::vector<int> keys;
  } cases[] = {{true, {risks, expired}}, {false, {expired}}};
  for (const auto &c : cases) {
    kest_test::g_deliveries.clear();
    oru::Conn *conn = Create(6); // to port 80
    const uint64_t number = conn->m_number;
    ASSERT_EQ(Classify(conn, 0, "\x01\x02"), 0);
    if (c.answered) {
      ASSERT_EQ(Classify(conn, 1, "\x03"), 0);
    }
    EXPECT_EQ(kest_conn_destroy(h, static_cast<oru::IConn *>(conn)), 0);
    std::vector<int> keys;
    for (const kest_test::Delivery &d : kest_test::g_deliveries) {
      keys.push_back(d.key);
      EXPECT_EQ(d.conn_id, number);
      if (d.key == risks) {
        EXPECT_EQ(d.value, "unknown_protocol_on_known_port");
      }
    }
    EXPECT_EQ(keys, c.keys) << c.answered;
  }
  for (const char *name : {"conn.expired", "flow.risks"}) {
    ASSERT_EQ(kest_attr_callback_set(h, name, nullptr), 0);
  }
  gate.Leave(member.get());
}

} // namespace
