// The transports' index by end points: the keyed hash against the published
// vector, both directions to one connection, and an even spread for
// addresses that differ only in their high bytes.
#include "tests/decoders/DecoderTestSupport.h"

#include "transport/ConnIndex.h"

#include <algorithm>
#include <functional>
#include <string.h>

namespace {

using kest_decoders::ConnIndex;
using kest_decoders::SipKey;
using kest_decoders::TransportConn;

TEST(SipHashTest, PublishedVector) {
  // The reference vector: key 00..0f, message 00..0e.
  uint8_t message[15];
  for (uint8_t i = 0; i < 15; ++i) {
    message[i] = i;
  }
  const SipKey key{0x0706050403020100ull, 0x0f0e0d0c0b0a0908ull};
  EXPECT_EQ(kest_decoders::SipHash24(key, message, sizeof message), 0xa129ca6149be45e5ull);
  EXPECT_EQ(kest_decoders::SipHash24(key, message, 0), 0x726fdb47dd0e0e31ull);
  // The word form the tables use is SipHash-1-3 of the words' bytes.
  uint64_t words[5];
  uint8_t bytes[sizeof words];
  for (size_t i = 0; i < sizeof bytes; ++i) {
    bytes[i] = static_cast<uint8_t>(i * 37 + 11);
  }
  memcpy(words, bytes, sizeof bytes);
  for (size_t n = 0; n <= 5; ++n) {
    EXPECT_EQ(kest_decoders::SipHash13(key, words, n),
              kest_decoders::SipHash(key, bytes, 8 * n, 1, 3))
        << n;
    EXPECT_NE(kest_decoders::SipHash13(key, words, n),
              kest_decoders::SipHash(key, bytes, 8 * n, 2, 4));
  }
}

class ConnIndexTest : public kest_test::DecoderFixture {};

TEST_F(ConnIndexTest, BothDirectionsAndAnEvenSpread) {
  // Addresses that differ only in their first two bytes, as a crafted flood:
  // IPv6, and IPv4 (hashed in a shorter form).
  const auto v6 = [](uint32_t i) { return oru::IpAddr(static_cast<uint64_t>(i) << 48, 1); };
  const auto v4 = [](uint32_t i) { return oru::IpAddr::FromV4(i << 16 | 1); };
  for (const auto &source : {std::function<oru::IpAddr(uint32_t)>(v6), {v4}}) {
    ConnIndex index(SipKey{1, 2});
    std::vector<kest_test::ConnPtr> held;
    const oru::IpAddr server = oru::IpAddr::FromV4(0x0A000001);
    for (uint32_t i = 1; i <= 4000; ++i) {
      const oru::Tuple t{source(i), server, 1000, 80, 6};
      TransportConn *c = TransportConn::Make(t, nullptr, nullptr);
      held.emplace_back(c);
      index.Insert(c);
    }
    EXPECT_EQ(index.Count(), 4000u);
    EXPECT_GE(index.BucketCount(), 4000u);
    for (uint32_t i : {1u, 17u, 4000u}) {
      EXPECT_EQ(index.Find(source(i), 1000, server, 80, 6), held[i - 1].get());
      EXPECT_EQ(index.Find(server, 80, source(i), 1000, 6), held[i - 1].get());
      EXPECT_EQ(index.Find(source(i), 1001, server, 80, 6), nullptr);
      EXPECT_EQ(index.Find(source(i), 1000, server, 80, 17), nullptr);
    }
    // No bucket holds many: from each connection to the end of its chain.
    size_t longest = 0;
    for (const auto &c : held) {
      size_t length = 0;
      for (TransportConn *p = static_cast<TransportConn *>(c.get()); p != nullptr;
           p = p->m_index_next) {
        ++length;
      }
      longest = std::max(longest, length);
    }
    EXPECT_LT(longest, 12u);
    for (const auto &c : held) {
      index.Remove(static_cast<TransportConn *>(c.get()));
    }
    EXPECT_EQ(index.Count(), 0u);
    EXPECT_EQ(index.Find(source(1), 1000, server, 80, 6), nullptr);
  }
}

// The tables file what they make and forget what they drop.
TEST_F(ConnIndexTest, TablesFindTheirConnections) {
  oru::Conn *conn = Create(6);
  const oru::Tuple &t = conn->m_tuple;
  EXPECT_EQ(kTcp.Table()->Find(t.dst, t.dst_port, t.src, t.src_port), conn);
  EXPECT_EQ(kUdp.Table()->Find(t.dst, t.dst_port, t.src, t.src_port), nullptr);
  EXPECT_EQ(kest_conn_destroy(h, static_cast<oru::IConn *>(conn)), 0);
  EXPECT_EQ(kTcp.Table()->Index().Count(), 0u);
}

} // namespace
