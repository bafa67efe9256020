// The QUIC decoder's plain code as pure functions, on the rows of
// vectors.txt: the hash and cipher pieces against their published vectors,
// the Initial key schedule and the opening of the published client Initials
// (versions 1 and 2), long headers, Google's public headers, frames, and the
// CRYPTO stream cut and shuffled every way.
#include "tests/decoders/DataRows.h"

#include "quic/QuicPacket.h"
#include "tls/TlsHello.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string.h>
#include <string>
#include <vector>

namespace {

using kest_quic::CryptoStream;
using kest_quic::FrameStatus;
using kest_quic::HeaderStatus;

using kest_test::Bytes;

Bytes Hex(const std::string &text) {
  return kest_test::HexBytes(text);
}

Bytes Span(const uint8_t *p, size_t n) {
  return Bytes(p, p + n);
}

std::vector<std::vector<std::string>> Rows(const std::string &kind) {
  return kest_test::DataRows(KEST_TEST_QUIC_VECTORS, kind);
}

// The ClientHello inside the published CRYPTO frame (after type, offset and
// a two-byte length).
Bytes Hello() {
  const Bytes frame = Hex(Rows("crypto_frame")[0][0]);
  return Bytes(frame.begin() + 4, frame.end());
}

void AddCrypto(void *user, uint64_t offset, const uint8_t *data, size_t length) {
  static_cast<CryptoStream *>(user)->Add(offset, data, length);
}

TEST(QuicCrypto, HkdfFirstCaseOfRfc5869) {
  const Bytes ikm(22, 0x0b);
  const Bytes salt = Hex("000102030405060708090a0b0c");
  const Bytes info = Hex("f0f1f2f3f4f5f6f7f8f9");
  uint8_t prk[32];
  kest_quic::HkdfExtract(salt.data(), salt.size(), ikm.data(), ikm.size(), prk);
  EXPECT_EQ(Span(prk, 32), Hex("077709362c2e32df0ddc3f0dc47bba6390b6c73bb50f9c3122ec844ad7c2b3e5"));
  uint8_t okm[42];
  ASSERT_TRUE(kest_quic::HkdfExpand(prk, info.data(), info.size(), okm, sizeof okm));
  EXPECT_EQ(Span(okm, 42), Hex("3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf"
                               "34007208d5b887185865"));
}

TEST(QuicCrypto, GcmVectorsBothWays) {
  for (const auto &row : Rows("gcm")) {
    SCOPED_TRACE(row[4]);
    const Bytes key = Hex(row[0]), iv = Hex(row[1]), plain = Hex(row[2]), aad = Hex(row[3]);
    const Bytes cipher = Hex(row[4]), tag = Hex(row[5]);
    kest_quic::Gcm128 gcm;
    gcm.SetKey(key.data());
    // Sealing, which the decoder never needs: the key stream, then the tag.
    Bytes out(plain.size() + 1);
    uint8_t got_tag[16];
    gcm.Ctr(iv.data(), plain.data(), plain.size(), out.data());
    gcm.Tag(iv.data(), aad.data(), aad.size(), out.data(), plain.size(), got_tag);
    EXPECT_EQ(Span(out.data(), plain.size()), cipher);
    EXPECT_EQ(Span(got_tag, 16), tag);
    ASSERT_TRUE(gcm.Open(iv.data(), aad.data(), aad.size(), cipher.data(), cipher.size(),
                         tag.data(), out.data()));
    EXPECT_EQ(Span(out.data(), plain.size()), plain);
    // Any flipped bit of tag, text or associated data fails the check.
    Bytes bad_tag = tag;
    bad_tag[15] ^= 1;
    EXPECT_FALSE(gcm.Open(iv.data(), aad.data(), aad.size(), cipher.data(), cipher.size(),
                          bad_tag.data(), out.data()));
    if (!cipher.empty()) {
      Bytes bad = cipher;
      bad[bad.size() / 2] ^= 0x80;
      EXPECT_FALSE(gcm.Open(iv.data(), aad.data(), aad.size(), bad.data(), bad.size(), tag.data(),
                            out.data()));
    }
  }
}

TEST(QuicInitial, KeysOfThePublishedConnectionId) {
  const Bytes dcid = Hex(Rows("dcid")[0][0]);
  for (const auto &row : Rows("initial")) {
    const uint32_t version = static_cast<uint32_t>(std::stoul(row[0], nullptr, 16));
    kest_quic::InitialKeys keys;
    ASSERT_TRUE(kest_quic::DeriveClientInitialKeys(version, dcid.data(), dcid.size(), keys));
    EXPECT_EQ(Span(keys.key, 16), Hex(row[1])) << version;
    EXPECT_EQ(Span(keys.iv, 12), Hex(row[2])) << version;
    EXPECT_EQ(Span(keys.hp, 16), Hex(row[3])) << version;
  }
  kest_quic::InitialKeys keys;
  EXPECT_FALSE(kest_quic::DeriveClientInitialKeys(0xabcd0000, dcid.data(), dcid.size(), keys));
  const Bytes long_cid(21, 1);
  EXPECT_FALSE(kest_quic::DeriveClientInitialKeys(1, long_cid.data(), long_cid.size(), keys));
}

TEST(QuicInitial, PublishedClientInitialsOpenToTheirHello) {
  for (const auto &row : Rows("initial")) {
    const uint32_t version = static_cast<uint32_t>(std::stoul(row[0], nullptr, 16));
    SCOPED_TRACE(version);
    const Bytes packet = Hex(row[5]);
    ASSERT_EQ(packet.size(), 1200u);
    kest_quic::LongHeader header;
    ASSERT_EQ(kest_quic::ParseLongHeader(packet.data(), packet.size(), header), HeaderStatus::kOk);
    EXPECT_EQ(header.version, version);
    EXPECT_EQ(header.type, kest_quic::PacketType::kInitial);
    EXPECT_EQ(Span(header.dcid, header.dcid_length), Hex(Rows("dcid")[0][0]));
    EXPECT_EQ(header.scid_length, 0);
    EXPECT_EQ(header.protected_length, 1182u);
    EXPECT_EQ(header.packet_length, 1200u);

    kest_quic::InitialKeys keys;
    ASSERT_TRUE(kest_quic::DeriveClientInitialKeys(version, header.dcid, header.dcid_length, keys));
    Bytes scratch(packet.size());
    const uint8_t *payload = nullptr;
    size_t payload_length = 0;
    uint64_t pn = 0;
    ASSERT_TRUE(kest_quic::OpenInitial(packet.data(), header, keys, -1, scratch.data(), payload,
                                       payload_length, pn));
    EXPECT_EQ(pn, 2u);
    EXPECT_EQ(Span(scratch.data(), 22), Hex(row[4]));
    ASSERT_EQ(payload_length, 1162u);
    Bytes expected = Hex(Rows("crypto_frame")[0][0]);
    expected.resize(1162, 0);
    EXPECT_EQ(Span(payload, payload_length), expected);

    auto stream = std::make_unique<CryptoStream>();
    EXPECT_EQ(kest_quic::ParseFrames(payload, payload_length, AddCrypto, stream.get()),
              FrameStatus::kOk);
    ASSERT_EQ(stream->GetState(), CryptoStream::State::kReady);
    EXPECT_EQ(Span(stream->Message(), stream->MessageLength()), Hello());
    auto hello = std::make_unique<kest_tls::HelloInfo>();
    ASSERT_EQ(kest_tls::ParseHello(stream->Message(), stream->MessageLength(), *hello),
              kest_tls::ParseStatus::kOk);
    EXPECT_STREQ(hello->server_name, "example.com");
    EXPECT_STREQ(hello->alpn, "alpn");

    // One changed byte anywhere after the header-protection sample's source
    // fails the tag; other keys fail too.
    for (size_t at : {size_t{30}, size_t{600}, size_t{1199}}) {
      Bytes bad = packet;
      bad[at] ^= 0x01;
      EXPECT_FALSE(kest_quic::OpenInitial(bad.data(), header, keys, -1, scratch.data(), payload,
                                          payload_length, pn))
          << at;
    }
    kest_quic::InitialKeys other = keys;
    other.key[0] ^= 1;
    EXPECT_FALSE(kest_quic::OpenInitial(packet.data(), header, other, -1, scratch.data(), payload,
                                        payload_length, pn));
  }
}

// A hello in two built packets opens packet by packet, with the packet
// numbers recovered from what came before.
TEST(QuicInitial, HelloAcrossTwoBuiltPackets) {
  const Bytes dcid = Hex("0011223344556677");
  kest_quic::InitialKeys keys;
  ASSERT_TRUE(kest_quic::DeriveClientInitialKeys(1, dcid.data(), dcid.size(), keys));
  auto stream = std::make_unique<CryptoStream>();
  int64_t largest = -1;
  for (const auto &row : Rows("built")) {
    const Bytes packet = Hex(row[0]);
    kest_quic::LongHeader header;
    ASSERT_EQ(kest_quic::ParseLongHeader(packet.data(), packet.size(), header), HeaderStatus::kOk);
    Bytes scratch(packet.size());
    const uint8_t *payload = nullptr;
    size_t payload_length = 0;
    uint64_t pn = 0;
    ASSERT_TRUE(kest_quic::OpenInitial(packet.data(), header, keys, largest, scratch.data(),
                                       payload, payload_length, pn));
    EXPECT_EQ(static_cast<int64_t>(pn), largest + 1);
    largest = static_cast<int64_t>(pn);
    kest_quic::ParseFrames(payload, payload_length, AddCrypto, stream.get());
  }
  ASSERT_EQ(stream->GetState(), CryptoStream::State::kReady);
  EXPECT_EQ(Span(stream->Message(), stream->MessageLength()), Hello());
}

TEST(QuicHeader, Table) {
  const std::map<std::string, HeaderStatus> status = {{"ok", HeaderStatus::kOk},
                                                      {"short", HeaderStatus::kShortHeader},
                                                      {"malformed", HeaderStatus::kMalformed},
                                                      {"unknown", HeaderStatus::kUnknownVersion}};
  for (const auto &row : Rows("header")) {
    const Bytes data = Hex(row[1]);
    kest_quic::LongHeader header;
    EXPECT_EQ(kest_quic::ParseLongHeader(data.data(), data.size(), header), status.at(row[0]))
        << row[1];
  }
}

TEST(QuicHeader, VersionText) {
  const std::pair<uint32_t, const char *> cases[] = {
      {0x00000001, "1"},       {0x6b3343cf, "2"},          {0xff00001d, "draft-29"},
      {0xff000009, "draft-9"}, {0x00000000, "0x00000000"}, {0x51303530, "Q050"},
      {0x54303531, "T051"},    {0x51303a35, "0x51303a35"}};
  for (const auto &[version, text] : cases) {
    char out[16];
    const size_t n = kest_quic::VersionText(version, out, sizeof out);
    EXPECT_EQ(std::string(out, n), text);
    EXPECT_STREQ(out, text);
  }
}

TEST(QuicGoogle, Table) {
  for (const auto &row : Rows("google")) {
    const Bytes data = Hex(row[1]);
    kest_quic::GoogleHeader header{};
    const bool named = kest_quic::ParseGoogleHeader(data.data(), data.size(), header);
    EXPECT_EQ(named, row[0] != "-") << row[1];
    if (named) {
      char text[16];
      EXPECT_EQ(std::string(text, kest_quic::VersionText(header.version, text, sizeof text)),
                row[0])
          << row[1];
      // None of them is an IETF long header.
      kest_quic::LongHeader ietf;
      EXPECT_NE(kest_quic::ParseLongHeader(data.data(), data.size(), ietf), HeaderStatus::kOk)
          << row[1];
    }
  }
}

// Cut short anywhere, a named packet stays named from the point where its
// header, packet number and hash are in, and is not named before.
TEST(QuicGoogle, EveryPrefix) {
  for (const auto &row : Rows("google_prefix")) {
    const size_t shortest = std::stoul(row[0]);
    const Bytes data = Hex(row[1]);
    for (size_t n = 0; n <= data.size(); ++n) {
      auto cut = std::make_unique<uint8_t[]>(n + 1);
      std::copy(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(n), cut.get());
      kest_quic::GoogleHeader header{};
      EXPECT_EQ(kest_quic::ParseGoogleHeader(cut.get(), n, header), n >= shortest)
          << row[1] << " cut at " << n;
    }
  }
}

// A client hello: the tags rising, each with its value's end offset.
Bytes Chlo(const std::vector<std::pair<std::string, std::string>> &tags) {
  Bytes out = {'C', 'H', 'L', 'O', static_cast<uint8_t>(tags.size()), 0, 0, 0};
  Bytes values;
  for (const auto &[tag, value] : tags) {
    out.insert(out.end(), tag.begin(), tag.end());
    out.resize(out.size() + (4 - tag.size()), 0);
    values.insert(values.end(), value.begin(), value.end());
    const uint32_t end = static_cast<uint32_t>(values.size());
    for (int i = 0; i < 4; ++i) {
      out.push_back(static_cast<uint8_t>(end >> (8 * i)));
    }
  }
  out.insert(out.end(), values.begin(), values.end());
  return out;
}

TEST(QuicGoogle, ChloServerName) {
  // After the hash: a private flags byte and the STREAM frame's header.
  const Bytes lead = Hex("00a0010004");
  auto with = [&](const Bytes &chlo) {
    Bytes b = lead;
    b.insert(b.end(), chlo.begin(), chlo.end());
    return b;
  };
  auto name = [](const Bytes &b) {
    const uint8_t *n = nullptr;
    size_t length = 0;
    return kest_quic::FindChloServerName(b.data(), b.size(), n, length)
               ? std::string(reinterpret_cast<const char *>(n), length)
               : std::string("-");
  };
  const Bytes good = with(Chlo({{"PAD", "----"}, {"SNI", "www.example.org"}, {"VER", "Q043"}}));
  EXPECT_EQ(name(good), "www.example.org");
  // Every cut: the name is read once its last byte is in.
  const size_t name_end = lead.size() + 8 + 3 * 8 + 4 + 15;
  for (size_t n = 0; n <= good.size(); ++n) {
    EXPECT_EQ(name(Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(n))),
              n >= name_end ? "www.example.org" : "-")
        << n;
  }
  EXPECT_EQ(name(with(Chlo({{"PAD", "--"}, {"VER", "Q043"}}))), "-");
  EXPECT_EQ(name(with(Chlo({{"SNI", "a b"}}))), "-");
  EXPECT_EQ(name(with(Chlo({{"SNI", ""}}))), "-");
  // Tags out of order, or more than the bytes hold.
  EXPECT_EQ(name(with(Chlo({{"VER", "Q043"}, {"SNI", "x.org"}}))), "-");
  Bytes many = good;
  many[lead.size() + 4] = 0x7f;
  EXPECT_EQ(name(many), "-");
  // Too far after the header to be the hello.
  Bytes far(64, 0);
  far.insert(far.end(), good.begin(), good.end());
  EXPECT_EQ(name(far), "-");
}

TEST(QuicFrames, Table) {
  const std::map<std::string, FrameStatus> status = {{"ok", FrameStatus::kOk},
                                                     {"malformed", FrameStatus::kMalformed},
                                                     {"stopped", FrameStatus::kStopped}};
  for (const auto &row : Rows("frame")) {
    const Bytes data = Hex(row[2]);
    std::string got;
    const FrameStatus parsed = kest_quic::ParseFrames(
        data.data(), data.size(),
        [](void *user, uint64_t offset, const uint8_t *bytes, size_t length) {
          std::string &s = *static_cast<std::string *>(user);
          static const char kHexDigits[] = "0123456789abcdef";
          s += (s.empty() ? "" : ",") + std::to_string(offset) + ":";
          for (size_t i = 0; i < length; ++i) {
            s += kHexDigits[bytes[i] >> 4];
            s += kHexDigits[bytes[i] & 15];
          }
        },
        &got);
    EXPECT_EQ(parsed, status.at(row[0])) << row[2];
    EXPECT_EQ(got.empty() ? "-" : got, row[1]) << row[2];
  }
}

// The hello put back in order whatever the pieces: cut in two at every
// byte and fed in either order, and in many random overlapping pieces in
// random order, it reads the same, and never before its last byte is in.
TEST(QuicCryptoStream, CutAndShuffledAnyWay) {
  const Bytes hello = Hello();
  for (size_t cut = 1; cut < hello.size(); ++cut) {
    for (int order = 0; order < 2; ++order) {
      auto stream = std::make_unique<CryptoStream>();
      const size_t first = order == 0 ? 0 : cut;
      const size_t second = order == 0 ? cut : 0;
      const size_t first_length = order == 0 ? cut : hello.size() - cut;
      const size_t second_length = hello.size() - first_length;
      stream->Add(first, hello.data() + first, first_length);
      ASSERT_EQ(stream->GetState(), CryptoStream::State::kNeedMore) << cut;
      stream->Add(second, hello.data() + second, second_length);
      ASSERT_EQ(stream->GetState(), CryptoStream::State::kReady) << cut;
      ASSERT_EQ(Span(stream->Message(), stream->MessageLength()), hello) << cut;
    }
  }
  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    std::vector<std::pair<size_t, size_t>> pieces;
    for (size_t at = 0; at < hello.size();) {
      const size_t n = 1 + random() % 40;
      const size_t back = std::min<size_t>(at, random() % 4);
      pieces.push_back({at - back, std::min(n + back, hello.size() - (at - back))});
      at += n;
    }
    std::shuffle(pieces.begin(), pieces.end(), random);
    auto stream = std::make_unique<CryptoStream>();
    for (const auto &[offset, length] : pieces) {
      stream->Add(offset, hello.data() + offset, length);
    }
    ASSERT_EQ(stream->GetState(), CryptoStream::State::kReady) << round;
    ASSERT_EQ(Span(stream->Message(), stream->MessageLength()), hello) << round;
  }
}

TEST(QuicCryptoStream, BoundedByItsCapacity) {
  auto stream = std::make_unique<CryptoStream>();
  const Bytes big = {0x01, 0x00, 0x40, 0x00}; // declares 16 KiB of body
  stream->Add(0, big.data(), big.size());
  EXPECT_EQ(stream->GetState(), CryptoStream::State::kTooLarge);
  auto far = std::make_unique<CryptoStream>();
  const Bytes some(100, 0xaa);
  far->Add(CryptoStream::kCapacity - 10, some.data(), some.size());
  far->Add(uint64_t{1} << 62, some.data(), some.size());
  EXPECT_EQ(far->Contiguous(), 0u);
  EXPECT_EQ(far->GetState(), CryptoStream::State::kNeedMore);
}

} // namespace
