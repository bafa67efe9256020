// Fragments put back together: any order, overlaps that keep the first
// bytes, IPv4 and IPv6, against the datagram they were cut from; and the
// time-out and the memory cap.
#include "tests/decoders/DecoderTestSupport.h"

#include "wire/Defragmenter.h"

#include <algorithm>
#include <random>

namespace {

using kest_decoders::Defragmenter;
using kest_decoders::PacketForm;
using kest_decoders::ParsedPacket;

ParsedPacket Fragment(uint8_t version, uint32_t id, const std::string &data, uint32_t offset,
                      uint32_t length, bool more) {
  ParsedPacket f;
  f.ip_version = version;
  f.protocol = 17;
  f.src = version == 4 ? oru::IpAddr::FromV4(0x0A000001) : oru::IpAddr(0x20010db8ull << 32, 1);
  f.dst = version == 4 ? oru::IpAddr::FromV4(0x0A000002) : oru::IpAddr(0x20010db8ull << 32, 2);
  f.frag_id = id;
  f.frag_offset = offset;
  f.frag_more = more;
  f.payload = reinterpret_cast<const uint8_t *>(data.data()) + offset;
  f.payload_length = length;
  return f;
}

class DefragmenterTest : public kest_test::DecoderFixture {};

TEST_F(DefragmenterTest, AnyOrderAndOverlapsGiveTheDatagram) {
  std::mt19937 random(3);
  for (int round = 0; round < 200; ++round) {
    const uint8_t version = round % 2 ? 6 : 4;
    // A UDP datagram: 8-byte header and data, cut at multiples of 8.
    std::string datagram(8 + 8 * (1 + random() % 40), '\0');
    for (size_t i = 8; i < datagram.size(); ++i) {
      datagram[i] = static_cast<char>('a' + random() % 26);
    }
    datagram[4] = static_cast<char>(datagram.size() >> 8);
    datagram[5] = static_cast<char>(datagram.size());
    std::vector<ParsedPacket> pieces;
    for (uint32_t at = 0; at < datagram.size();) {
      const uint32_t n =
          std::min<uint32_t>(8 * (1 + random() % 5), static_cast<uint32_t>(datagram.size()) - at);
      pieces.push_back(Fragment(version, 7, datagram, at, n, at + n < datagram.size()));
      // Now and then an overlapping copy with other bytes, which must lose
      // if it comes later and win if earlier: both orders give the original
      // only when the copy's bytes are the same, so send the same bytes.
      if (random() % 4 == 0 && at >= 8) {
        pieces.push_back(Fragment(version, 7, datagram, at - 8, n, true));
      }
      at += n;
    }
    std::shuffle(pieces.begin(), pieces.end(), random);
    Defragmenter defrag;
    uint8_t *whole = nullptr;
    uint32_t length = 0;
    for (size_t i = 0; i < pieces.size() && whole == nullptr; ++i) {
      whole = defrag.Add(pieces[i], 1000, length);
    }
    ASSERT_NE(whole, nullptr) << round;
    ParsedPacket p;
    ASSERT_EQ(ParsePacket(PacketForm::kIp, whole, length, p), kest_decoders::ParseResult::kOk);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(p.payload), p.payload_length),
              datagram.substr(8));
    EXPECT_EQ(p.ip_version, version);
    kest_free_local(whole);
    EXPECT_EQ(defrag.Bytes(), 0u);
  }
}

TEST_F(DefragmenterTest, TimeOutAndCap) {
  const std::string big(Defragmenter::kMaxBytes / 2, 'x');
  Defragmenter defrag;
  uint32_t length;
  EXPECT_EQ(defrag.Add(Fragment(4, 1, big, 0, 8, true), 1000, length), nullptr);
  EXPECT_EQ(defrag.Datagrams(), 1u);
  // Thirty seconds on, a fragment of another datagram finds the first gone.
  EXPECT_EQ(
      defrag.Add(Fragment(4, 2, big, 0, 8, true), 1000 + Defragmenter::kTimeoutMs + 1, length),
      nullptr);
  EXPECT_EQ(defrag.Datagrams(), 1u);
  EXPECT_EQ(defrag.Bytes(), 8u);
  // Fragments beyond the cap push the oldest datagrams out.
  for (uint32_t id = 3; id < 6; ++id) {
    defrag.Add(Fragment(4, id, big, 0, 0xFFF0, true), 40000, length);
  }
  EXPECT_LE(defrag.Bytes(), Defragmenter::kMaxBytes);
}

// A flood of one-byte first fragments that never complete, each from its own
// source: the cap holds with the datagrams' book-keeping counted, each
// fragment finds its datagram without a walk over all the others (a walk
// made this flood take minutes), and a datagram sent whole afterwards still
// comes out.
TEST_F(DefragmenterTest, FloodOfTinyFragmentsStaysWithinTheCap) {
  const std::string data(64, 'f');
  Defragmenter defrag;
  uint32_t length;
  for (uint32_t i = 0; i < 300000; ++i) {
    ParsedPacket f = Fragment(i % 3 ? 4 : 6, i, data, 0, 1, true);
    f.src = oru::IpAddr::FromV4(0x0A000000 + i);
    ASSERT_EQ(defrag.Add(f, 1000, length), nullptr);
    ASSERT_LE(defrag.Held(), Defragmenter::kMaxBytes) << i;
  }
  EXPECT_LT(defrag.Datagrams(), Defragmenter::kMaxBytes / 64);
  uint8_t *whole = nullptr;
  for (uint32_t at = 0; at < data.size() && whole == nullptr; at += 8) {
    whole = defrag.Add(Fragment(4, 1, data, at, 8, at + 8 < data.size()), 1000, length);
  }
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(length, 20 + data.size());
  kest_free_local(whole);
}

} // namespace
