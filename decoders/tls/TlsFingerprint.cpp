#include "tls/TlsFingerprint.h"

#include "tls/Sha256.h"

#include <string.h>

namespace kest_tls {

namespace {

const char kHex[] = "0123456789abcdef";

bool Alnum(uint8_t c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

void TwoDigits(size_t n, char *out) {
  if (n > 99) {
    n = 99;
  }
  out[0] = static_cast<char>('0' + n / 10);
  out[1] = static_cast<char>('0' + n % 10);
}

// Copies the non-GREASE values of `in` (leaving out `skip_a` and `skip_b`
// when `skip` is set), sorted when `sort`. Returns how many.
size_t Keep(const uint16_t *in, size_t n, uint16_t *out, bool skip, bool sort) {
  size_t kept = 0;
  for (size_t i = 0; i < n; ++i) {
    const uint16_t v = in[i];
    if (IsGrease(v) || (skip && (v == kExtServerName || v == kExtAlpn))) {
      continue;
    }
    out[kept++] = v;
  }
  if (sort) {
    // Insertion sort: the lists are short.
    for (size_t i = 1; i < kept; ++i) {
      const uint16_t v = out[i];
      size_t j = i;
      for (; j > 0 && out[j - 1] > v; --j) {
        out[j] = out[j - 1];
      }
      out[j] = v;
    }
  }
  return kept;
}

// Feeds "xxxx,xxxx,..." to the hash.
void HashList(Sha256 &hash, const uint16_t *values, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    char item[5] = {',', kHex[values[i] >> 12], kHex[(values[i] >> 8) & 15],
                    kHex[(values[i] >> 4) & 15], kHex[values[i] & 15]};
    hash.Update(i == 0 ? item + 1 : item, i == 0 ? 4 : 5);
  }
}

void Twelve(Sha256 &hash, char *out) {
  uint8_t digest[Sha256::kDigestSize];
  hash.Final(digest);
  for (int i = 0; i < 6; ++i) {
    out[2 * i] = kHex[digest[i] >> 4];
    out[2 * i + 1] = kHex[digest[i] & 15];
  }
}

} // namespace

void ClientFingerprint(const HelloInfo &hello, char out[kFingerprintSize]) {
  uint16_t ciphers[HelloInfo::kMaxCiphers];
  const size_t cipher_count = Keep(hello.ciphers, hello.cipher_count, ciphers, false, true);
  uint16_t extensions[HelloInfo::kMaxExtensions];
  size_t extension_total = 0;
  for (size_t i = 0; i < hello.extension_count; ++i) {
    extension_total += IsGrease(hello.extensions[i]) ? 0 : 1;
  }
  const size_t extension_count =
      Keep(hello.extensions, hello.extension_count, extensions, true, true);
  uint16_t sig_algs[HelloInfo::kMaxSigAlgs];
  const size_t sig_alg_count = Keep(hello.sig_algs, hello.sig_alg_count, sig_algs, false, false);

  const uint16_t version =
      hello.supported_version != 0 ? hello.supported_version : hello.legacy_version;
  char *p = out;
  *p++ = hello.dtls ? 'd' : 't';
  memcpy(p, VersionCode(version), 2);
  p += 2;
  *p++ = hello.has_server_name ? 'd' : 'i';
  TwoDigits(cipher_count, p);
  p += 2;
  TwoDigits(extension_total, p);
  p += 2;
  if (!hello.alpn_first_present) {
    *p++ = '0';
    *p++ = '0';
  } else if (Alnum(hello.alpn_first_first) && Alnum(hello.alpn_first_last)) {
    *p++ = static_cast<char>(hello.alpn_first_first);
    *p++ = static_cast<char>(hello.alpn_first_last);
  } else {
    *p++ = kHex[hello.alpn_first_first >> 4];
    *p++ = kHex[hello.alpn_first_last & 15];
  }
  *p++ = '_';
  if (cipher_count == 0) {
    memset(p, '0', 12);
  } else {
    Sha256 hash;
    HashList(hash, ciphers, cipher_count);
    Twelve(hash, p);
  }
  p += 12;
  *p++ = '_';
  if (extension_count == 0) {
    memset(p, '0', 12);
  } else {
    Sha256 hash;
    HashList(hash, extensions, extension_count);
    if (sig_alg_count != 0) {
      hash.Update("_", 1);
      HashList(hash, sig_algs, sig_alg_count);
    }
    Twelve(hash, p);
  }
  p += 12;
  *p = '\0';
}

} // namespace kest_tls
