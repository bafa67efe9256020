#include "tests/decoders/DecoderTestSupport.h"

#include "common/PayloadClassifier.h"

#include <cstring>
#include <kest/MemTag.h>

namespace {

using kest_decoders::PayloadClassifier;
using kest_decoders::TransportConn;
using kest_test::ConnPtr;
using kest_test::DecoderFixture;

std::string Bytes(const oru::FlowBuffer::Block &block) {
  return std::string(block.data, block.size);
}

class PayloadClassifierTest : public DecoderFixture {};

// Each side is its own stream: positions add up per side, and with nothing
// above the transport every packet is consumed and flushed at once.
TEST_F(PayloadClassifierTest, PayloadAdvancesItsSideAndIsFlushed) {
  kest_conn_t handle = Create(6);
  ASSERT_NE(handle, nullptr);
  oru::Conn *conn = static_cast<oru::Conn *>(static_cast<oru::IConn *>(handle));
  struct Step {
    int side;
    std::string payload;
    uint64_t next[2];
  } steps[] = {
      {0, "GET / HTTP/1.1\r\n", {16, 0}},
      {1, "HTTP/1.1 200 OK\r\n", {16, 17}},
      {7, "\r\n", {16, 19}}, // any non-zero side is the second
      {0, "x", {17, 19}},
  };
  for (const Step &s : steps) {
    SCOPED_TRACE(s.payload);
    ASSERT_EQ(Classify(handle, s.side, s.payload), 0);
    ASSERT_FALSE(recorder.calls.empty());
    EXPECT_EQ(recorder.calls.back().code, 1);
    EXPECT_EQ(recorder.calls.back().conn_id, conn->m_number);
    EXPECT_EQ(kest_test::StackNames(h, recorder.calls.back().cursor), "TCP");
    for (int side : {0, 1}) {
      EXPECT_EQ(conn->m_flow[side].m_next_pos, s.next[side]);
      EXPECT_EQ(conn->m_flow[side].m_read_pos, s.next[side]);
      EXPECT_TRUE(conn->m_flow[side].m_blocks.empty());
    }
  }
  EXPECT_EQ(conn->m_app_stack.app, static_cast<uint32_t>(oru::GetProtocolId("TCP")));
  EXPECT_EQ(conn->m_app_stack.entries.size(), 1u);
  EXPECT_NE(conn->Touched(), 0u);
}

// An inspection that has not consumed what it saw keeps it across packets,
// in owned copies, until it lets go.
class KeepingClassifier : public PayloadClassifier {
public:
  using PayloadClassifier::PayloadClassifier;
  bool m_keep = true;

protected:
  bool Inspect(oru::Conn &, oru::FlowBuffer &) override { return m_keep; }
};

TEST_F(PayloadClassifierTest, KeptBytesOutliveThePacketInOrder) {
  KeepingClassifier keeper(oru::GetProtocolId("UDP"), oru::MemTag::CTX_UDP_INSPECT);
  ConnPtr conn = TransportConn::Make(oru::Tuple{{}, {}, 1, 2, 17}, &keeper, nullptr);
  ASSERT_TRUE(conn);
  const oru::FlowBuffer &flow = conn->m_flow[0];

  char packet[8];
  for (const char *text : {"abc", "defg"}) {
    std::strcpy(packet, text);
    ASSERT_EQ(kest_classify(h, KEST_SELECTOR_CONN, packet, std::strlen(packet), conn.get(), 0,
                            kest_test::RecordingCallback, &recorder),
              0);
    std::memset(packet, 'z', sizeof packet); // the packet is gone
  }
  ASSERT_EQ(flow.m_blocks.size(), 2u);
  auto it = flow.m_blocks.begin();
  EXPECT_EQ(it->first, 0u);
  EXPECT_EQ(Bytes(it->second), "abc");
  ++it;
  EXPECT_EQ(it->first, 3u);
  EXPECT_EQ(Bytes(it->second), "defg");
  EXPECT_NE(it->second.flags & oru::FlowBuffer::BLOCK_SAVED, 0);
  EXPECT_EQ(flow.m_next_pos, 7u);
  EXPECT_EQ(flow.Size(), 7u);

  keeper.m_keep = false;
  ASSERT_EQ(kest_classify(h, KEST_SELECTOR_CONN, "h", 1, conn.get(), 0,
                          kest_test::RecordingCallback, &recorder),
            0);
  EXPECT_TRUE(flow.m_blocks.empty());
  EXPECT_EQ(flow.m_read_pos, 8u);
}

// Every allocation a packet makes may fail: then no result, error 12, and
// the connection as it was.
TEST_F(PayloadClassifierTest, AllocationFailureLeavesTheConnectionAsItWas) {
  for (long n = 1;; ++n) {
    SCOPED_TRACE(n);
    kest_conn_t handle = Create(17);
    ASSERT_NE(handle, nullptr);
    oru::Conn *conn = static_cast<oru::Conn *>(static_cast<oru::IConn *>(handle));
    recorder.calls.clear();
    kest_test::FailNthAllocation(n);
    const int result = Classify(handle, 0, "payload");
    kest_test::FailNthAllocation(0);
    if (result == 0) {
      EXPECT_EQ(recorder.calls.size(), 1u);
      break;
    }
    EXPECT_EQ(kest_errno, KEST_ENOMEM);
    EXPECT_TRUE(recorder.calls.empty());
    EXPECT_EQ(conn->m_flow[0].m_next_pos, 0u);
    EXPECT_TRUE(conn->m_flow[0].m_blocks.empty());
    ASSERT_LT(n, 10);
  }
}

} // namespace
