// The TLS decoder's plain code: SHA-256 against the published vectors, the
// hello parser on real and broken hellos, the record assembler cut at every
// byte, and the client fingerprint.
#include "HelloSamples.h"

#include "tls/Sha256.h"
#include "tls/TlsFingerprint.h"
#include "tls/TlsHello.h"

#include <gtest/gtest.h>
#include <kest_host.h>
#include <memory>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using kest_tls::HelloAssembler;
using kest_tls::HelloInfo;
using kest_tls::ParseStatus;

Bytes FromHex(const char *hex) {
  Bytes out;
  for (size_t i = 0; hex[i] != '\0' && hex[i + 1] != '\0'; i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex + i, 2), nullptr, 16)));
  }
  return out;
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

// Breaks one byte of a message at `at`, or cuts it to `cut` bytes (with the
// length fields left as they were).
Bytes Damaged(const char *hex, size_t at, uint8_t value, size_t cut = SIZE_MAX) {
  Bytes m = FromHex(hex);
  if (at < m.size()) {
    m[at] = value;
  }
  if (cut < m.size()) {
    m.resize(cut);
  }
  return m;
}

TEST_F(TlsParser, Table) {
  using namespace tls_samples;
  const Summary chrome{ParseStatus::kOk, "cloudflare-ech.com", "h2,http/1.1", "",
                       "t13d1517h2_8daaf6152771_b1ff8ab2d16f"};
  const Summary curl{ParseStatus::kOk, "www.ntop.org", "h2,http/1.1", "",
                     "t12d6707h2_2955a3196ffa_c83f907a73d3"};
  const Summary bad{ParseStatus::kMalformed, "", "", "", ""};
  const size_t chrome_size = FromHex(kChromeClientHello).size();
  struct Case {
    const char *name;
    Bytes message;
    Summary want;
  } cases[] = {
      {"browser ClientHello", FromHex(kChromeClientHello), chrome},
      {"curl ClientHello", FromHex(kCurlClientHello), curl},
      {"TLS 1.3 ServerHello", FromHex(kServerHello13), {ParseStatus::kOk, "", "", "1.3", ""}},
      {"TLS 1.2 ServerHello", FromHex(kServerHello12), {ParseStatus::kOk, "", "h2", "1.2", ""}},
      {"empty", {}, bad},
      {"header only", Damaged(kChromeClientHello, 0, 1, 4), bad},
      {"cut by one", Damaged(kChromeClientHello, 0, 1, chrome_size - 1), bad},
      {"not a hello", Damaged(kChromeClientHello, 0, 11), bad},
      {"length one too long", Damaged(kChromeClientHello, 3, 0xfd), bad},
      {"version 2", Damaged(kChromeClientHello, 4, 2), bad},
      {"session id over 32", Damaged(kChromeClientHello, 38, 33), bad},
      {"odd cipher length", Damaged(kChromeClientHello, 72, 0x21), bad},
      {"cipher list past the end", Damaged(kChromeClientHello, 71, 0xff), bad},
      {"extensions length off", Damaged(kChromeClientHello, 108, 0x94), bad},
      {"ServerHello cut", Damaged(kServerHello13, 0, 2, 40), bad},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(Summarize(c.message), c.want) << c.name;
  }
}

// Every prefix and every single-byte change of the real hellos: no read out
// of bounds (the sanitizers watch), and a prefix never parses.
TEST_F(TlsParser, EveryPrefixAndByte) {
  for (const char *hex : {tls_samples::kChromeClientHello, tls_samples::kServerHello13,
                          tls_samples::kServerHello12, tls_samples::kCurlClientHello}) {
    const Bytes m = FromHex(hex);
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
  const Bytes message = FromHex(tls_samples::kChromeClientHello);
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
  const Bytes message = FromHex(tls_samples::kChromeClientHello);
  struct Case {
    const char *name;
    Bytes stream;
    HelloAssembler::State want;
  } cases[] = {
      {"HTTP", Bytes{'G', 'E', 'T', ' ', '/'}, HelloAssembler::State::kFailed},
      {"application data first", Bytes{23, 3, 3, 0, 5, 1, 2, 3, 4, 5},
       HelloAssembler::State::kFailed},
      {"record version 3.0", Records(message, 16384, 0x0300), HelloAssembler::State::kFailed},
      {"record version 3.5", Records(message, 16384, 0x0305), HelloAssembler::State::kFailed},
      {"empty record", Bytes{22, 3, 1, 0, 0}, HelloAssembler::State::kFailed},
      {"record too long", Bytes{22, 3, 1, 0x48, 0x01}, HelloAssembler::State::kFailed},
      {"certificate first", Bytes{22, 3, 3, 0, 4, 11, 0, 0, 0}, HelloAssembler::State::kFailed},
      {"hello too short", Bytes{22, 3, 3, 0, 4, 1, 0, 0, 37}, HelloAssembler::State::kFailed},
      {"hello over 64 KiB", Bytes{22, 3, 3, 0, 4, 1, 1, 0, 0}, HelloAssembler::State::kFailed},
      {"alert between records",
       [&] {
         Bytes s = Records(message, 100);
         s.insert(s.begin() + 105, {21, 3, 3, 0, 2, 2, 40});
         return s;
       }(),
       HelloAssembler::State::kFailed},
      {"warning alert, then the hello",
       [&] {
         Bytes s = Records(message, 100);
         s.insert(s.begin(), {21, 3, 3, 0, 2, 1, 112});
         return s;
       }(),
       HelloAssembler::State::kDone},
      {"long alert", Bytes{21, 3, 3, 0, 3, 1, 112, 0}, HelloAssembler::State::kFailed},
      {"SSL 2.0-style ClientHello", Bytes{0x80, 0x2e, 1, 3, 1, 0, 0x15},
       HelloAssembler::State::kLegacyHello},
      {"half a hello",
       [&] {
         Bytes s = Records(message, 100);
         s.resize(300);
         return s;
       }(),
       HelloAssembler::State::kNeedMore},
  };
  for (const Case &c : cases) {
    HelloAssembler assembler;
    EXPECT_EQ(assembler.Feed(c.stream.data(), c.stream.size()), c.want) << c.name;
    EXPECT_EQ(assembler.Message() != nullptr, c.want == HelloAssembler::State::kDone) << c.name;
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
