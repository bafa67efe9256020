#include "tests/decoders/DecoderTestSupport.h"

#include "common/ConnTable.h"

namespace {

using kest_decoders::ConnTable;
using kest_decoders::TransportConn;
using kest_test::DecoderFixture;

class ConnTableTest : public DecoderFixture {};

oru::Conn *AsConn(kest_conn_t handle) {
  return static_cast<oru::Conn *>(static_cast<oru::IConn *>(handle));
}

TEST_F(ConnTableTest, HostConnectionsComeFromTheTableOfTheirProtocol) {
  uint64_t last = 0;
  for (uint8_t protocol : {6, 17, 6}) {
    SCOPED_TRACE(int{protocol});
    const size_t held = Table(protocol)->Count();
    oru::Conn *conn = AsConn(Create(protocol));
    ASSERT_NE(conn, nullptr);
    EXPECT_EQ(Table(protocol)->Count(), held + 1);
    EXPECT_EQ(conn->Protocol(), protocol);
    EXPECT_EQ(conn->m_tuple.protocol, protocol);
    EXPECT_EQ(conn->m_tuple.src_port, 40000);
    EXPECT_EQ(conn->m_tuple.dst_port, 80);
    EXPECT_EQ(conn->m_number, last + 1);
    EXPECT_EQ(conn->GetInterface(oru::INTERFACE_CONN_CLASSIFY), &Table(protocol)->Classifier());
    EXPECT_EQ(conn->use_count(), 1);
    last = conn->m_number;
  }
}

TEST_F(ConnTableTest, DestroyDropsOnlyWhatTheTableHolds) {
  ConnTable *tcp = Table(6);
  kest_conn_t kept = Create(6);
  kest_conn_t dropped = Create(6);
  ASSERT_EQ(tcp->Count(), 2u);

  // By the host's call, and by a callback that asks for it.
  EXPECT_EQ(kest_conn_destroy(h, dropped), 0);
  EXPECT_EQ(tcp->Count(), 1u);
  recorder.result = 1;
  ASSERT_EQ(Classify(kept, 0, "bye"), 0);
  EXPECT_EQ(tcp->Count(), 0u);

  // A connection of the same protocol made elsewhere is not the table's, and
  // one that outlived its table's reference is not either.
  kest_test::ConnPtr foreign = kest_test::TestConn::Make(6);
  kest_test::ConnPtr survivor = AsConn(Create(6));
  tcp->Destroy(survivor.get());
  EXPECT_EQ(survivor->use_count(), 1);
  kest_decoders::ConnTable *udp = Table(17);
  kest_conn_t other = Create(17);
  for (oru::Conn *conn : {foreign.get(), survivor.get()}) {
    tcp->Destroy(conn);
    EXPECT_EQ(conn->use_count(), 1);
  }
  EXPECT_EQ(udp->Count(), 1u);
  udp->Destroy(AsConn(other));
  EXPECT_EQ(udp->Count(), 0u);
}

TEST_F(ConnTableTest, ThreadExitUnregistersTheFactoryAndFreesItsConnections) {
  const kest_decoders::TransportPlugin &tcp = kest_decoders::TcpPlugin::Transport();
  tcp.ExitThread();
  const long before = kest_test::LiveBlocks(kest_test::Heap::Local);
  ASSERT_TRUE(tcp.InitThread());
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(Classify(Create(6), i % 2, "data"), 0);
  }
  tcp.ExitThread();
  EXPECT_EQ(tcp.Table(), nullptr);
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), before);
  kest_conn_t none = nullptr;
  kest_endpoint_t e{};
  e.family = KEST_FAMILY_IPV4;
  EXPECT_EQ(kest_conn_create(h, &e, &e, 6, &none), -1);
  EXPECT_EQ(kest_errno, KEST_ENOBUFS);
  ASSERT_TRUE(tcp.InitThread());
}

} // namespace
