// The QUIC decoder's plain code as pure functions: the hash and cipher
// pieces against their published vectors, the Initial key schedule and the
// opening of the published client Initials (versions 1 and 2), long
// headers, frames, and the CRYPTO stream cut and shuffled every way.
#include "QuicBuild.h"
#include "QuicVectors.h"
#include "quic/QuicPacket.h"
#include "tls/TlsHello.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string.h>
#include <string>
#include <vector>

namespace {

using namespace quic_test;
using kest_quic::CryptoStream;
using kest_quic::FrameStatus;
using kest_quic::HeaderStatus;

Bytes Span(const uint8_t *p, size_t n) {
  return Bytes(p, p + n);
}

// The ClientHello inside the published CRYPTO frame (after type, offset and
// a two-byte length).
Bytes Hello() {
  const Bytes frame = Hex(kCryptoFrame);
  return Bytes(frame.begin() + 4, frame.end());
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

struct GcmCase {
  const char *key, *iv, *plain, *aad, *cipher, *tag;
};

// The AES-128 cases with 96-bit nonces of the GCM paper's test vectors
// (cases 1 to 4).
const GcmCase kGcmCases[] = {
    {"00000000000000000000000000000000", "000000000000000000000000", "", "", "",
     "58e2fccefa7e3061367f1d57a4e7455a"},
    {"00000000000000000000000000000000", "000000000000000000000000",
     "00000000000000000000000000000000", "", "0388dace60b6a392f328c2b971b2fe78",
     "ab6e47d42cec13bdf53a67b21257bddf"},
    {"feffe9928665731c6d6a8f9467308308", "cafebabefacedbaddecaf888",
     "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
     "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b391aafd255",
     "",
     "42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e"
     "21d514b25466931c7d8f6a5aac84aa051ba30b396a0aac973d58e091473f5985",
     "4d5c2af327cd64a62cf35abd2ba6fab4"},
    {"feffe9928665731c6d6a8f9467308308", "cafebabefacedbaddecaf888",
     "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
     "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b39",
     "feedfacedeadbeeffeedfacedeadbeefabaddad2",
     "42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e"
     "21d514b25466931c7d8f6a5aac84aa051ba30b396a0aac973d58e091",
     "5bc94fbc3221a5db94fae95ae7121a47"},
};

TEST(QuicCrypto, GcmVectorsBothWays) {
  for (const GcmCase &c : kGcmCases) {
    SCOPED_TRACE(c.cipher);
    const Bytes key = Hex(c.key), iv = Hex(c.iv), plain = Hex(c.plain), aad = Hex(c.aad);
    const Bytes cipher = Hex(c.cipher), tag = Hex(c.tag);
    kest_quic::Gcm128 gcm;
    gcm.SetKey(key.data());
    Bytes out(plain.size() + 1);
    uint8_t got_tag[16];
    Seal(gcm, iv.data(), aad.data(), aad.size(), plain.data(), plain.size(), out.data(), got_tag);
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

struct InitialVector {
  uint32_t version;
  const char *key, *iv, *hp, *unprotected_header, *packet;
};

const InitialVector kInitials[] = {
    {0x00000001, kV1Key, kV1Iv, kV1Hp, kV1UnprotectedHeader, kV1ClientInitial},
    {0x6b3343cf, kV2Key, kV2Iv, kV2Hp, kV2UnprotectedHeader, kV2ClientInitial},
};

TEST(QuicInitial, KeysOfThePublishedConnectionId) {
  const Bytes dcid = Hex(kDcid);
  for (const InitialVector &v : kInitials) {
    kest_quic::InitialKeys keys;
    ASSERT_TRUE(kest_quic::DeriveClientInitialKeys(v.version, dcid.data(), dcid.size(), keys));
    EXPECT_EQ(Span(keys.key, 16), Hex(v.key)) << v.version;
    EXPECT_EQ(Span(keys.iv, 12), Hex(v.iv)) << v.version;
    EXPECT_EQ(Span(keys.hp, 16), Hex(v.hp)) << v.version;
  }
  kest_quic::InitialKeys keys;
  EXPECT_FALSE(kest_quic::DeriveClientInitialKeys(0xabcd0000, dcid.data(), dcid.size(), keys));
  const Bytes long_cid(21, 1);
  EXPECT_FALSE(kest_quic::DeriveClientInitialKeys(1, long_cid.data(), long_cid.size(), keys));
}

TEST(QuicInitial, PublishedClientInitialsOpenToTheirHello) {
  for (const InitialVector &v : kInitials) {
    SCOPED_TRACE(v.version);
    const Bytes packet = Hex(v.packet);
    ASSERT_EQ(packet.size(), 1200u);
    kest_quic::LongHeader header;
    ASSERT_EQ(kest_quic::ParseLongHeader(packet.data(), packet.size(), header), HeaderStatus::kOk);
    EXPECT_EQ(header.version, v.version);
    EXPECT_EQ(header.type, kest_quic::PacketType::kInitial);
    EXPECT_EQ(Span(header.dcid, header.dcid_length), Hex(kDcid));
    EXPECT_EQ(header.scid_length, 0);
    EXPECT_EQ(header.protected_length, 1182u);
    EXPECT_EQ(header.packet_length, 1200u);

    kest_quic::InitialKeys keys;
    ASSERT_TRUE(
        kest_quic::DeriveClientInitialKeys(v.version, header.dcid, header.dcid_length, keys));
    Bytes scratch(packet.size());
    const uint8_t *payload = nullptr;
    size_t payload_length = 0;
    uint64_t pn = 0;
    ASSERT_TRUE(kest_quic::OpenInitial(packet.data(), header, keys, -1, scratch.data(), payload,
                                       payload_length, pn));
    EXPECT_EQ(pn, 2u);
    EXPECT_EQ(Span(scratch.data(), 22), Hex(v.unprotected_header));
    ASSERT_EQ(payload_length, 1162u);
    Bytes expected = Hex(kCryptoFrame);
    expected.resize(1162, 0);
    EXPECT_EQ(Span(payload, payload_length), expected);

    auto stream = std::make_unique<CryptoStream>();
    EXPECT_EQ(kest_quic::ParseFrames(
                  payload, payload_length,
                  [](void *user, uint64_t offset, const uint8_t *data, size_t length) {
                    static_cast<CryptoStream *>(user)->Add(offset, data, length);
                  },
                  stream.get()),
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

struct HeaderCase {
  const char *name;
  const char *hex;
  HeaderStatus status;
};

const HeaderCase kHeaders[] = {
    {"short header", "4300112233445566778899", HeaderStatus::kShortHeader},
    {"empty", "", HeaderStatus::kShortHeader},
    {"too short", "c00000000108", HeaderStatus::kMalformed},
    {"unknown version", "c0abcdef0100000000000000000000", HeaderStatus::kUnknownVersion},
    {"gquic-like version", "c051303433080102030405060708000000", HeaderStatus::kUnknownVersion},
    {"fixed bit clear",
     "8000000001000000"
     "14"
     "0000000000000000000000000000000000000000",
     HeaderStatus::kMalformed},
    {"dcid of 21", "c000000001150000000000000000000000000000000000000000000000",
     HeaderStatus::kMalformed},
    {"dcid past end", "c00000000108010203", HeaderStatus::kMalformed},
    {"length past end",
     "c0000000010000"
     "00"
     "4100"
     "00000000",
     HeaderStatus::kMalformed},
    {"length under 20",
     "c0000000010000"
     "00"
     "13"
     "00000000000000000000000000000000000000",
     HeaderStatus::kMalformed},
    {"token past end",
     "c0000000010000"
     "05"
     "0000",
     HeaderStatus::kMalformed},
    {"initial of 20",
     "c0000000010000"
     "00"
     "14"
     "0000000000000000000000000000000000000000",
     HeaderStatus::kOk},
    {"handshake draft-29",
     "e0ff00001d0000"
     "14"
     "0000000000000000000000000000000000000000",
     HeaderStatus::kOk},
    {"retry",
     "f0000000010000"
     "00112233445566778899aabbccddeeff",
     HeaderStatus::kOk},
    {"retry without tag",
     "f0000000010000"
     "0011",
     HeaderStatus::kMalformed},
    {"version negotiation",
     "80000000000401020304"
     "00"
     "000000016b3343cf",
     HeaderStatus::kOk},
    {"negotiation, ragged list",
     "80000000000401020304"
     "00"
     "0000000100",
     HeaderStatus::kMalformed},
    {"negotiation, empty list",
     "80000000000401020304"
     "00",
     HeaderStatus::kMalformed},
    {"negotiation offering 0",
     "80000000000401020304"
     "00"
     "00000000",
     HeaderStatus::kMalformed},
};

TEST(QuicHeader, Table) {
  for (const HeaderCase &c : kHeaders) {
    const Bytes data = Hex(c.hex);
    kest_quic::LongHeader header;
    EXPECT_EQ(kest_quic::ParseLongHeader(data.data(), data.size(), header), c.status) << c.name;
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

// Google's QUIC. The public headers are the first bytes of client packets
// in the shared captures (youtube_quic.pcap Q035, http_ipv6.pcap Q025,
// quic.pcap Q033 with the later flags 0x09), cut after the hash and the
// STREAM frame's first bytes. No capture holds Q043 or the long-header
// versions: Q043 is the Q033 packet under its number, Q046 and Q050 are
// built to their layouts.
constexpr const char *kQ035 = "0d9370e15e7c446d08"
                              "51303335"
                              "01"
                              "c4c7f61ab7c2b6949c7fc5f0"
                              "a0010004";
constexpr const char *kQ025 = "0d49bee2d3f0edccd6"
                              "51303235"
                              "01"
                              "d8697e21ab650d33f17a3cf3"
                              "00a0010004";
constexpr const char *kQ033 = "09fadeb0e557e692a0"
                              "51303333"
                              "01"
                              "da93cceca77d08f6aebdf082"
                              "00a0011405";
constexpr const char *kQ043 = "09fadeb0e557e692a0"
                              "51303433"
                              "01"
                              "da93cceca77d08f6aebdf082"
                              "a0011405";
// First byte, version, destination ID length 8 in the high nibble (5 + 3),
// the ID, a 4-byte packet number, the hash.
constexpr const char *kQ046 = "c3"
                              "51303436"
                              "50"
                              "1122334455667788"
                              "00000001"
                              "c4c7f61ab7c2b6949c7fc5f0";
// IETF form: lengths before the IDs, no token, Length 20.
constexpr const char *kQ050 = "c3"
                              "51303530"
                              "08"
                              "1122334455667788"
                              "00"
                              "00"
                              "14"
                              "0000000000000000000000000000000000000000";

struct GoogleCase {
  const char *name;
  std::string hex;
  // The version's text when named, "" when not.
  const char *version;
};

std::string Patch(const char *hex, size_t at, const char *with) {
  std::string s = hex;
  s.replace(at * 2, strlen(with), with);
  return s;
}

const GoogleCase kGoogle[] = {
    {"Q035 from youtube_quic.pcap", kQ035, "Q035"},
    {"Q025 from http_ipv6.pcap", kQ025, "Q025"},
    {"Q033 with flags 0x09", kQ033, "Q033"},
    {"Q043", kQ043, "Q043"},
    {"Q046 long header", kQ046, "Q046"},
    {"Q050 long header", kQ050, "Q050"},
    {"T051 long header", Patch(kQ050, 1, "54303531"), "T051"},
    {"no connection ID",
     "01"
     "51303433"
     "01"
     "c4c7f61ab7c2b6949c7fc5f0"
     "a0",
     "Q043"},
    {"server's version negotiation",
     "0d9370e15e7c446d08"
     "5130333551303334",
     "Q035"},
    // Near misses.
    {"letters after Q", Patch(kQ035, 9, "51304133"), ""},
    {"lower-case q", Patch(kQ035, 9, "71303335"), ""},
    {"version bit clear", Patch(kQ035, 0, "0c"), ""},
    {"public reset bit", Patch(kQ035, 0, "0f"), ""},
    {"bit 0x40 set", Patch(kQ035, 0, "4d"), ""},
    {"bit 0x80 set", Patch(kQ035, 0, "8d"), ""},
    {"0x04 alone", Patch(kQ035, 0, "05"), ""},
    {"no room for the hash",
     "0d9370e15e7c446d08"
     "51303335"
     "01"
     "c4c7f61ab7c2b6949c7fc5",
     ""},
    {"six-byte packet number cut",
     Patch("0d9370e15e7c446d08"
           "51303335"
           "01"
           "c4c7f61ab7c2b6949c7fc5f0"
           "a0",
           0, "3d"),
     ""},
    {"ragged negotiation",
     "0d9370e15e7c446d08"
     "513033355130",
     ""},
    {"T in a public header", Patch(kQ043, 9, "54303433"), ""},
    {"Q046 in a public header", Patch(kQ043, 9, "51303436"), ""},
    {"Q043 in a long header", Patch(kQ046, 1, "51303433"), ""},
    {"Q046 fixed bit clear", Patch(kQ046, 0, "83"), ""},
    {"Q046 IDs past the end", Patch(kQ046, 5, "ff"), ""},
    {"Q050 ID of 21", Patch(kQ050, 5, "15"), ""},
    {"Q050 Length past the end", Patch(kQ050, 16, "15"), ""},
    {"Q050 Length under 20", Patch(kQ050, 16, "13"), ""},
};

TEST(QuicGoogle, Table) {
  for (const GoogleCase &c : kGoogle) {
    const Bytes data = Hex(c.hex.c_str());
    kest_quic::GoogleHeader header{};
    const bool named = kest_quic::ParseGoogleHeader(data.data(), data.size(), header);
    EXPECT_EQ(named, *c.version != '\0') << c.name;
    if (named) {
      char text[16];
      EXPECT_EQ(std::string(text, kest_quic::VersionText(header.version, text, sizeof text)),
                c.version)
          << c.name;
      // None of them is an IETF long header.
      kest_quic::LongHeader ietf;
      EXPECT_NE(kest_quic::ParseLongHeader(data.data(), data.size(), ietf), HeaderStatus::kOk)
          << c.name;
    }
  }
}

// Cut short anywhere, a named packet stays named from the point where its
// header, packet number and hash are in, and is not named before.
TEST(QuicGoogle, EveryPrefix) {
  const std::pair<const char *, size_t> packets[] = {
      {kQ035, 9 + 4 + 1 + 12 + 1}, {kQ025, 9 + 4 + 1 + 12 + 1}, {kQ046, 6 + 8 + 4 + 1}};
  for (const auto &[hex, shortest] : packets) {
    const Bytes data = Hex(hex);
    for (size_t n = 0; n <= data.size(); ++n) {
      auto cut = std::make_unique<uint8_t[]>(n + 1);
      std::copy(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(n), cut.get());
      kest_quic::GoogleHeader header{};
      EXPECT_EQ(kest_quic::ParseGoogleHeader(cut.get(), n, header), n >= shortest)
          << hex << " cut at " << n;
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

struct FrameCase {
  const char *name;
  const char *hex;
  FrameStatus status;
  // The CRYPTO bytes reported, as "offset:hex" joined by ",".
  const char *crypto;
};

const FrameCase kFrames[] = {
    {"padding and ping", "0000010000", FrameStatus::kOk, ""},
    {"ack then crypto",
     "02"
     "05"
     "00"
     "01"
     "00"
     "01"
     "01"
     "06"
     "00"
     "02"
     "aabb",
     FrameStatus::kOk, "0:aabb"},
    {"ack with ecn",
     "03"
     "05"
     "00"
     "00"
     "00"
     "01"
     "02"
     "03"
     "0604"
     "01cc",
     FrameStatus::kOk, "4:cc"},
    {"ack range count too big",
     "02"
     "05"
     "00"
     "3f"
     "00",
     FrameStatus::kMalformed, ""},
    {"crypto two-byte offset",
     "06"
     "4100"
     "01"
     "dd",
     FrameStatus::kOk, "256:dd"},
    {"crypto past end",
     "06"
     "00"
     "05"
     "aabb",
     FrameStatus::kMalformed, ""},
    {"connection close",
     "1c"
     "01"
     "06"
     "02"
     "6869"
     "060001ee",
     FrameStatus::kOk, "0:ee"},
    {"application close",
     "1d"
     "01"
     "00"
     "060001ee",
     FrameStatus::kOk, "0:ee"},
    {"close reason past end",
     "1c"
     "01"
     "06"
     "09"
     "6869",
     FrameStatus::kMalformed, ""},
    {"stream frame stops",
     "060001ee"
     "08"
     "00"
     "0601ff",
     FrameStatus::kStopped, "0:ee"},
    {"cut varint",
     "06"
     "40",
     FrameStatus::kMalformed, ""},
};

TEST(QuicFrames, Table) {
  for (const FrameCase &c : kFrames) {
    const Bytes data = Hex(c.hex);
    std::string got;
    const FrameStatus status = kest_quic::ParseFrames(
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
    EXPECT_EQ(status, c.status) << c.name;
    EXPECT_EQ(got, c.crypto) << c.name;
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

// A hello in two packets built here opens packet by packet, with the packet
// numbers recovered from what came before.
TEST(QuicInitial, HelloAcrossTwoBuiltPackets) {
  const Bytes hello = Hello();
  const Bytes dcid = Hex("0011223344556677"), scid = Hex("aabbccdd");
  const size_t cut = 100;
  const Bytes packets[2] = {
      ClientInitial(1, dcid, scid, 0, CryptoFrame(cut, hello.data() + cut, hello.size() - cut)),
      ClientInitial(1, dcid, scid, 1, CryptoFrame(0, hello.data(), cut))};
  kest_quic::InitialKeys keys;
  ASSERT_TRUE(kest_quic::DeriveClientInitialKeys(1, dcid.data(), dcid.size(), keys));
  auto stream = std::make_unique<CryptoStream>();
  int64_t largest = -1;
  for (const Bytes &packet : packets) {
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
    kest_quic::ParseFrames(
        payload, payload_length,
        [](void *user, uint64_t offset, const uint8_t *data, size_t length) {
          static_cast<CryptoStream *>(user)->Add(offset, data, length);
        },
        stream.get());
  }
  ASSERT_EQ(stream->GetState(), CryptoStream::State::kReady);
  EXPECT_EQ(Span(stream->Message(), stream->MessageLength()), hello);
}

} // namespace
