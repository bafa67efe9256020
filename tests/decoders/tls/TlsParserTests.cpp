// The TLS decoder's plain code: SHA-256 against the published vectors, and
// on the rows of hellos.txt the hello parser on real and broken hellos, the
// record assembler cut at every byte, and the client fingerprint.
#include "tests/decoders/DataRows.h"

#include "tls/Sha256.h"
#include "tls/TlsFingerprint.h"
#include "tls/TlsHello.h"

#include <gtest/gtest.h>
#include <kest_host.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using kest_test::Bytes;
using kest_tls::HelloAssembler;
using kest_tls::HelloInfo;
using kest_tls::ParseStatus;

Bytes FromHex(const std::string &hex) {
  return kest_test::HexBytes(hex);
}

std::vector<std::vector<std::string>> Rows(const std::string &kind) {
  return kest_test::DataRows(KEST_TEST_TLS_HELLOS, kind);
}

Bytes Chrome() {
  return FromHex(Rows("sample")[0][0]);
}

std::string Hex(const uint8_t *data, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out += kDigits[data[i] >> 4];
    out += kDigits[data[i] & 15];
  }
  return out;
}

// The message as TLS records of at most `chunk` payload bytes each.
Bytes Records(const Bytes &message, size_t chunk, uint16_t version = 0x0301) {
  Bytes out;
  for (size_t i = 0; i < message.size(); i += chunk) {
    const size_t n = std::min(chunk, message.size() - i);
    out.insert(out.end(), {22, static_cast<uint8_t>(version >> 8), static_cast<uint8_t>(version),
                           static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)});
    out.insert(out.end(), message.begin() + static_cast<long>(i),
               message.begin() + static_cast<long>(i + n));
  }
  return out;
}

// What the tests compare: the fields a decoder publishes.
struct Summary {
  ParseStatus status;
  std::string server_name, alpn, version, fingerprint;
  bool operator==(const Summary &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Summary &s) {
  return os << (s.status == ParseStatus::kOk ? "ok" : "malformed") << " sni=" << s.server_name
            << " alpn=" << s.alpn << " version=" << s.version << " fp=" << s.fingerprint;
}

Summary Summarize(const uint8_t *message, size_t length) {
  auto hello = std::make_unique<HelloInfo>();
  Summary s{kest_tls::ParseHello(message, length, *hello), "", "", "", ""};
  if (s.status != ParseStatus::kOk) {
    return s;
  }
  s.server_name = hello->has_server_name ? hello->server_name : "";
  s.alpn = hello->has_alpn ? hello->alpn : "";
  if (hello->type == kest_tls::kServerHello) {
    const char *v = kest_tls::VersionText(kest_tls::NegotiatedVersion(*hello));
    s.version = v != nullptr ? v : "";
  } else {
    char fp[kest_tls::kFingerprintSize];
    kest_tls::ClientFingerprint(*hello, fp);
    s.fingerprint = fp;
  }
  return s;
}

Summary Summarize(const Bytes &message) {
  return Summarize(message.data(), message.size());
}

// Feeds `stream` to a fresh assembler in the pieces that `cuts` mark and
// summarizes the message it collects.
Summary Assemble(const Bytes &stream, const std::vector<size_t> &cuts) {
  HelloAssembler assembler;
  size_t from = 0;
  for (size_t i = 0; i <= cuts.size(); ++i) {
    const size_t to = i < cuts.size() ? cuts[i] : stream.size();
    assembler.Feed(stream.data() + from, to - from);
    from = to;
  }
  if (assembler.GetState() != HelloAssembler::State::kDone) {
    return Summary{ParseStatus::kMalformed, "", "", "", ""};
  }
  return Summarize(assembler.Message(), assembler.MessageLength());
}

class TlsParser : public ::testing::Test {
protected:
  void SetUp() override { kest_host_use_libc(); }
};

TEST(TlsSha256, PublishedVectors) {
  struct Case {
    std::string input;
    const char *digest;
  } cases[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {std::string(1000000, 'a'),
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  for (const Case &c : cases) {
    uint8_t digest[kest_tls::Sha256::kDigestSize];
    kest_tls::Sha256::Hash(c.input.data(), c.input.size(), digest);
    EXPECT_EQ(Hex(digest, sizeof digest), c.digest) << c.input.size() << " bytes";
    // The same in pieces of every size up to a block and a half.
    if (c.input.size() < 1000) {
      for (size_t piece = 1; piece < 97; ++piece) {
        kest_tls::Sha256 ctx;
        for (size_t i = 0; i < c.input.size(); i += piece) {
          ctx.Update(c.input.data() + i, std::min(piece, c.input.size() - i));
        }
        ctx.Final(digest);
        EXPECT_EQ(Hex(digest, sizeof digest), c.digest) << "pieces of " << piece;
      }
    }
  }
}

TEST_F(TlsParser, Table) {
  for (const auto &row : Rows("parse")) {
    const auto text = [](const std::string &word) { return word == "-" ? "" : word; };
    const Summary want{row[0] == "ok" ? ParseStatus::kOk : ParseStatus::kMalformed, text(row[1]),
                       text(row[2]), text(row[3]), text(row[4])};
    EXPECT_EQ(Summarize(FromHex(row[5])), want) << row[5].substr(0, 40);
  }
}

// Every prefix and every single-byte change of the real hellos: no read out
// of bounds (the sanitizers watch), and a prefix never parses.
TEST_F(TlsParser, EveryPrefixAndByte) {
  for (const auto &row : Rows("sample")) {
    const Bytes m = FromHex(row[0]);
    for (size_t n = 0; n < m.size(); ++n) {
      // An exact copy, so that a read past the prefix is caught.
      std::unique_ptr<uint8_t[]> prefix(new uint8_t[n + 1]);
      std::copy(m.begin(), m.begin() + static_cast<long>(n), prefix.get());
      EXPECT_EQ(Summarize(prefix.get(), n).status, ParseStatus::kMalformed) << n;
    }
    for (size_t at = 0; at < m.size(); ++at) {
      Bytes d = m;
      d[at] ^= 0xff;
      Summarize(d);
    }
  }
}

TEST_F(TlsParser, GreaseValues) {
  for (uint32_t v = 0; v < 0x10000; ++v) {
    const bool grease = (v & 0xff) == (v >> 8) && (v & 0x0f) == 0x0a;
    EXPECT_EQ(kest_tls::IsGrease(static_cast<uint16_t>(v)), grease) << v;
  }
}

// The assembler gives the same hello however the stream is cut: every cut
// into two pieces and a spread of cuts into three, with records of several
// sizes (one record, and the message spread over many).
TEST_F(TlsParser, SplitInvariance) {
  const Bytes message = Chrome();
  const Summary want = Summarize(message);
  ASSERT_EQ(want.status, ParseStatus::kOk);
  for (size_t chunk : {size_t{16384}, size_t{100}, size_t{7}}) {
    Bytes stream = Records(message, chunk);
    // Trailing bytes of the next record do not matter.
    stream.insert(stream.end(), {20, 3, 3, 0, 1, 1});
    for (size_t i = 0; i <= stream.size(); ++i) {
      ASSERT_EQ(Assemble(stream, {i}), want) << "chunk " << chunk << " cut " << i;
    }
    for (size_t i = 0; i <= stream.size(); i += 3) {
      for (size_t j = i; j <= stream.size(); j += 11) {
        ASSERT_EQ(Assemble(stream, {i, j}), want) << "chunk " << chunk << " cuts " << i << " " << j;
      }
    }
  }
}

TEST_F(TlsParser, AssemblerRefuses) {
  const std::map<std::string, HelloAssembler::State> states = {
      {"failed", HelloAssembler::State::kFailed},
      {"done", HelloAssembler::State::kDone},
      {"legacy", HelloAssembler::State::kLegacyHello},
      {"more", HelloAssembler::State::kNeedMore}};
  for (const auto &row : Rows("assemble")) {
    const Bytes stream = FromHex(row[1]);
    HelloAssembler assembler;
    EXPECT_EQ(assembler.Feed(stream.data(), stream.size()), states.at(row[0])) << row[1];
    EXPECT_EQ(assembler.Message() != nullptr, row[0] == "done") << row[1];
  }
}

TEST_F(TlsParser, FingerprintParts) {
  // A hand-made hello: no server_name, no ALPN, no extensions at all, one
  // GREASE suite; the version comes from the hello itself.
  Bytes body = {3, 3};
  body.insert(body.end(), 32, 0);
  body.insert(body.end(), {0, 0, 6, 0x0a, 0x0a, 0x13, 0x01, 0x00, 0x2f, 1, 0});
  Bytes message = {1, 0, 0, static_cast<uint8_t>(body.size())};
  message.insert(message.end(), body.begin(), body.end());
  const Summary s = Summarize(message);
  ASSERT_EQ(s.status, ParseStatus::kOk);
  // "002f,1301" hashed; no extension left.
  uint8_t digest[32];
  kest_tls::Sha256::Hash("002f,1301", 9, digest);
  EXPECT_EQ(s.fingerprint, "t12i020000_" + Hex(digest, 6) + "_000000000000");
}

} // namespace
