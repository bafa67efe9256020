#include "tests/decoders/DecoderTestSupport.h"

#include "transport/PayloadClassifier.h"

#include <cstring>
#include <kest/IpPortRuleStore.h>
#include <kest/MemTag.h>
#include <vector>

namespace {

using kest_decoders::PayloadClassifier;
using kest_decoders::TransportConn;

class PayloadClassifierTest : public kest_test::DecoderFixture {};

// Each side is its own stream; with nothing above the transport every packet
// is consumed and flushed at once.
TEST_F(PayloadClassifierTest, PayloadAdvancesItsSideAndIsFlushed) {
  oru::Conn *conn = Create(6);
  ASSERT_NE(conn, nullptr);
  struct Step {
    int side;
    std::string payload;
    uint64_t next[2];
  } steps[] = {
      {0, "GET / HTTP/1.1\r\n", {16, 0}},
      {1, "HTTP/1.1 200 OK\r\n", {16, 17}},
      {7, "\r\n", {16, 19}}, // any non-zero side is the second
  };
  for (const Step &s : steps) {
    SCOPED_TRACE(s.payload);
    ASSERT_EQ(Classify(conn, s.side, s.payload), 0);
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
}

// An inspector that has not consumed what it saw keeps it across packets by
// Sync, in owned copies; when it stops asking, the transport flushes.
class Keeper : public oru::Inspector {
public:
  unsigned int Inspect(oru::ParentDpi *, oru::PktInfo &pkt, oru::Tuple &,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    seen.append(reinterpret_cast<const char *>(pkt.data), pkt.length);
    positions.push_back(pkt.stream_pos);
    if (keep) {
      conn->m_flow[pkt.side].Sync();
    }
    return oru::INSPECT_STAY;
  }
  bool keep = true;
  std::string seen;
  std::vector<uint64_t> positions;
};

TEST_F(PayloadClassifierTest, KeptBytesOutliveThePacketInOrder) {
  oru::fdt::intrusive_ptr<Keeper> keeper(oru::fdt::CreateObject<Keeper>(oru::fdt::OBJECT_LOCAL));
  ASSERT_TRUE(kUdp.Table()->Rules().AddRule(17, oru::InspectorCallback(keeper.get()), 0, {}, {}, 0,
                                            oru::IpPortRuleStore::EXPIRY_LOCAL, false));
  oru::Conn *conn = Create(17);
  const oru::FlowBuffer &flow = conn->m_flow[0];
  for (std::string packet : {"abc", "defg"}) {
    ASSERT_EQ(Classify(conn, 0, packet), 0);
    packet.assign(packet.size(), 'z'); // the packet is gone
  }
  std::string kept;
  for (const auto &[pos, block] : flow.m_blocks) {
    EXPECT_EQ(pos, kept.size());
    EXPECT_NE(block.flags & oru::FlowBuffer::BLOCK_SAVED, 0);
    kept.append(block.data, block.size);
  }
  EXPECT_EQ(kept, "abcdefg");
  EXPECT_EQ(flow.Size(), 7u);

  keeper->keep = false;
  ASSERT_EQ(Classify(conn, 0, "h"), 0);
  EXPECT_TRUE(flow.m_blocks.empty());
  EXPECT_EQ(flow.m_read_pos, 8u);
  EXPECT_EQ(keeper->seen, "abcdefgh");
  EXPECT_EQ(keeper->positions, (std::vector<uint64_t>{0, 3, 7}));
  kUdp.Table()->Rules().RemoveRuleFast(17, oru::InspectorCallback(keeper.get()), 0, {}, {});
}

// Any allocation a packet makes may fail: no result, error 12, and the
// stream as it was.
TEST_F(PayloadClassifierTest, AllocationFailureLeavesTheStreamAsItWas) {
  for (long n = 1; n < 10; ++n) {
    SCOPED_TRACE(n);
    oru::Conn *conn = Create(17);
    recorder.calls.clear();
    kest_test::FailNthAllocation(n);
    const int result = Classify(conn, 0, "payload");
    kest_test::FailNthAllocation(0);
    if (result == 0) {
      EXPECT_EQ(recorder.calls.size(), 1u);
      return;
    }
    EXPECT_EQ(kest_errno, KEST_ENOMEM);
    EXPECT_TRUE(recorder.calls.empty());
    EXPECT_EQ(conn->m_flow[0].m_next_pos, 0u);
    EXPECT_TRUE(conn->m_flow[0].m_blocks.empty());
  }
  FAIL() << "the packet never went through";
}

} // namespace
