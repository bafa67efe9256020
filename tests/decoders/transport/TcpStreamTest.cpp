// TCP segments into a side's stream, on the tables of segments.txt: what the
// inspectors of the connection are handed, side by side, after each segment.
#include "tests/attributes/AttributeTestSupport.h"
#include "tests/decoders/DataRows.h"
#include "tests/decoders/DecoderTestSupport.h"
#include "tests/rules/ChainTestSupport.h"

#include "transport/TcpStream.h"

#include <kest/ITransportSegment.h>

#include <cstring>

namespace {

using kest_decoders::TcpStream;

TEST(TcpStreamTest, PositionsFollowTheStreamAcrossTheWrap) {
  struct Row {
    uint32_t seq, base;
    uint64_t next, pos;
  } rows[] = {
      {1000, 1000, 0, 0},
      {1010, 1000, 5, 10},
      {5, 0xFFFFFFF0u, 0x10, 0x15}, // the sequence wrapped
      {0xFFFFFFF8u, 0xFFFFFFF0u, 0x100000010ull, 0x100000008ull - 0x100000000ull + 0x100000000ull},
      {10, 0, 0x1FFFFFFF0ull, 0x20000000Aull},          // the next lap of the stream
      {0xFFFFFFF0u, 0, 0x200000005ull, 0x1FFFFFFF0ull}, // a byte of the lap before
  };
  for (const Row &row : rows) {
    EXPECT_EQ(TcpStream::Position(row.seq, row.base, row.next), row.pos) << row.seq;
  }
}

// A connection whose chain holds one recording inspector; segments come as
// a whole-packet decoder hands them over.
class SegmentTest : public kest_test::DecoderFixture {
protected:
  struct Recorder : oru::Inspector {
    // Everything new to the stream: from the packet's position to the end.
    unsigned int Inspect(oru::ParentDpi *, oru::PktInfo &pkt, oru::Tuple &,
                         oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
      const oru::FlowBuffer &flow = conn->m_flow[pkt.side];
      for (uint64_t p = pkt.stream_pos; p < flow.End(); ++p) {
        seen[pkt.side] += flow.At(p);
      }
      return seen[pkt.side].find("bye") != std::string::npos ? oru::INSPECT_FINISHED
                                                             : oru::INSPECT_STAY;
    }
    std::string seen[2];
  };
  void SetUp() override {
    DecoderFixture::SetUp();
    recorder = oru::fdt::CreateObject<Recorder>(oru::fdt::OBJECT_LOCAL);
    ASSERT_TRUE(kTcp.Table()->Rules().AddRule(6, oru::InspectorCallback(recorder.get()), 0, {}, {},
                                              0, oru::IpPortRuleStore::EXPIRY_LOCAL, false));
  }
  void TearDown() override {
    Enter();
    kTcp.Table()->Clear();
    kTcp.Table()->Rules().RemoveRuleFast(6, oru::InspectorCallback(recorder.get()), 0, {}, {});
    recorder.reset();
    DecoderFixture::TearDown();
  }
  // A segment from 10.0.0.1:`port` (side 0) or from 10.0.0.2:80 to it.
  static oru::TransportSegment Segment(int side, uint8_t flags, uint32_t seq = 0,
                                       const std::string &payload = "", uint16_t port = 40000) {
    oru::TransportSegment s{};
    const oru::IpAddr a = oru::IpAddr::FromV4(0x0A000001), b = oru::IpAddr::FromV4(0x0A000002);
    s.src = side == 0 ? a : b;
    s.dst = side == 0 ? b : a;
    s.src_port = side == 0 ? port : 80;
    s.dst_port = side == 0 ? 80 : port;
    s.tcp_flags = flags;
    s.seq = seq;
    s.payload = reinterpret_cast<const uint8_t *>(payload.data());
    s.payload_length = static_cast<uint32_t>(payload.size());
    return s;
  }
  // The segment through the TCP table; its connection is `last`.
  unsigned Send(oru::TransportSegment s) {
    Enter();
    oru::fdt::intrusive_ptr<oru::Conn> conn;
    const unsigned r = kTcp.Table()->Classifier().Segment(s, conn);
    last = conn.get();
    return r;
  }
  unsigned Send(int side, uint8_t flags, uint32_t seq, const std::string &payload) {
    return Send(Segment(side, flags, seq, payload));
  }
  oru::fdt::intrusive_ptr<Recorder> recorder;
  oru::Conn *last = nullptr;
};

TEST_F(SegmentTest, ReassemblyTables) {
  // However it ends (FIN, RST, or with the table), a connection is reported
  // expired once, when the table lets it go.
  ASSERT_EQ(kest_attr_callback_set(h, "conn.expired", kest_test::RecordingListener), 0);
  kest_idle(h);
  const auto rows = kest_test::DataRows(KEST_TEST_TCP_SEGMENTS, "");
  for (size_t at = 0; at < rows.size();) {
    const std::vector<std::string> &table = rows[at++];
    SCOPED_TRACE(table[2]);
    kest_test::g_deliveries.clear();
    for (; at < rows.size() && rows[at][0] == "step"; ++at) {
      const auto text = [&](size_t i) { return rows[at][i] == "-" ? "" : rows[at][i]; };
      // The segment points into the payload: it lives until the step is sent.
      const std::string payload = text(4);
      oru::TransportSegment s = Segment(std::stoi(rows[at][1]),
                                        static_cast<uint8_t>(std::stoul(rows[at][2], nullptr, 16)),
                                        static_cast<uint32_t>(std::stoul(rows[at][3])), payload);
      s.ack = rows[at].size() > 7 ? static_cast<uint32_t>(std::stoul(rows[at][7])) : 0;
      Send(s);
      EXPECT_EQ(recorder->seen[0], text(5)) << rows[at][3];
      EXPECT_EQ(recorder->seen[1], text(6)) << rows[at][3];
    }
    EXPECT_EQ(kTcp.Table()->Count(), 1u);
    EXPECT_EQ(static_cast<kest_decoders::TransportConn *>(last)->m_closed != 0, table[1] == "1");
    EXPECT_TRUE(kest_test::g_deliveries.empty());
    kTcp.Table()->Clear();
    EXPECT_EQ(kest_test::g_deliveries.size(), 1u);
    recorder->seen[0].clear();
    recorder->seen[1].clear();
  }
  // A new SYN on a finished connection's end points starts another one.
  kest_test::g_deliveries.clear();
  Send(0, 0x02, 1, "");
  Send(0, 0x04, 2, "");
  const uint64_t first = last->m_number;
  Send(0, 0x02, 9, "");
  EXPECT_NE(last->m_number, first);
  EXPECT_EQ(kTcp.Table()->Count(), 1u);
  EXPECT_EQ(kest_test::g_deliveries.size(), 1u);
  kTcp.Table()->Clear();
  ASSERT_EQ(kest_attr_callback_set(h, "conn.expired", nullptr), 0);
}

// Once the chain has emptied, bytes beyond a hole are not kept: nobody is
// left to read them (kestcap's peak memory held such tails by the megabyte).
TEST_F(SegmentTest, NothingWaitsForAnEmptyChain) {
  Send(0, 0x02, 0, "");
  Send(0, 0x10, 4, "later");
  EXPECT_FALSE(last->m_flow[0].m_blocks.empty());
  Send(0, 0x10, 1, "bye");
  EXPECT_EQ(recorder->seen[0], "byelater");
  Send(0, 0x10, 20, "far");
  EXPECT_TRUE(last->m_flow[0].m_blocks.empty());
  EXPECT_EQ(last->m_flow[0].m_next_pos, 22u); // the stream's end moved on all the same
  Send(0, 0x10, 23, "x");
  EXPECT_EQ(last->m_flow[0].m_next_pos, 23u);
  EXPECT_EQ(recorder->seen[0], "byelater");
}

// The SYN's sender is the client, whichever side speaks first after it; a
// UDP flow's first sender is.
TEST_F(SegmentTest, ClientSide) {
  Send(1, 0x12, 9, "");
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->m_tuple.src_port, 40000);
  EXPECT_EQ(last->m_tuple.dst_port, 80);
  EXPECT_EQ(kTcp.Table()->Count(), 1u);
}

} // namespace

namespace {

// Connections end by time-out by their state (swept by kest_idle on a quiet
// thread), by eviction at the limit, or with the table; each is reported
// expired exactly once. The limits come from the configuration, changed
// while the thread runs.
TEST_F(SegmentTest, AgeingAndEviction) {
  kest_test::g_deliveries.clear();
  ASSERT_EQ(kest_attr_callback_set(h, "conn.expired", kest_test::RecordingListener), 0);
  ASSERT_EQ(kest_config_set(h, "tcp.timeout.opening", "1"), 0);
  ASSERT_EQ(kest_config_set(h, "tcp.timeout.established", "10"), 0);
  ASSERT_EQ(kest_config_set(h, "tcp.max_connections", "3"), 0);
  kest_clock_set_mode(h, 1);
  kest_clock_set(h, 100000);
  kest_idle(h);
  EXPECT_EQ(kTcp.Table()->GetLimits().opening_ms, 1000u);
  EXPECT_EQ(kTcp.Table()->GetLimits().max_connections, 3u);
  auto flow = [&](uint16_t port, int side, uint8_t flags) {
    Send(Segment(side, flags, 0, "", port));
    return last->m_number;
  };
  auto at = [&](uint64_t ms) {
    kest_clock_set(h, ms);
    Enter();
  };
  std::vector<uint64_t> expired;
  auto take = [&] {
    for (const auto &d : kest_test::g_deliveries) {
      uint64_t number = 0;
      std::memcpy(&number, d.value.data(), 8);
      expired.push_back(number);
    }
    kest_test::g_deliveries.clear();
  };
  const uint64_t half_open = flow(1, 0, 0x02);
  const uint64_t open = flow(2, 0, 0x02);
  flow(2, 1, 0x12);
  at(101500); // the half-open one is past its second; the other spoke both ways
  kest_idle(h);
  take();
  EXPECT_EQ(expired, std::vector<uint64_t>{half_open});
  const uint64_t third = flow(3, 0, 0x02);
  const uint64_t fourth = flow(4, 0, 0x02);
  const uint64_t fifth = flow(5, 0, 0x02); // at the limit: the least recently used goes
  take();
  EXPECT_EQ(expired, (std::vector<uint64_t>{half_open, open}));
  EXPECT_EQ(kTcp.Table()->Count(), 3u);
  // The rest with the table, the most recently used first.
  kTcp.Table()->Clear();
  take();
  EXPECT_EQ(expired, (std::vector<uint64_t>{half_open, open, fifth, fourth, third}));
  ASSERT_EQ(kest_attr_callback_set(h, "conn.expired", nullptr), 0);
}

// A connection the host made is the host's: no time-out, eviction or RST
// ends it behind its back.
TEST_F(SegmentTest, HostConnectionsAreNotAged) {
  kest_decoders::ConnTable::Limits limits;
  limits.opening_ms = 1;
  limits.max_connections = 1;
  kTcp.Table()->SetLimits(limits);
  kest_clock_set_mode(h, 1);
  kest_clock_set(h, 1000);
  Enter();
  oru::Conn *host = Create(6); // 192.0.0.0:40000 to 198.0.0.0:80
  kest_clock_set(h, 9000);
  Send(0, 0x02, 1, ""); // another flow: sweeps and makes room
  oru::TransportSegment rst = Segment(0, 0x04);
  rst.src = host->m_tuple.src;
  rst.dst = host->m_tuple.dst;
  rst.src_port = host->m_tuple.src_port;
  rst.dst_port = host->m_tuple.dst_port;
  Send(rst);
  EXPECT_EQ(last, host);
  EXPECT_EQ(kTcp.Table()->Find(rst.src, rst.src_port, rst.dst, rst.dst_port), host);
  EXPECT_EQ(kest_conn_destroy(h, static_cast<oru::IConn *>(host)), 0);
}

} // namespace
