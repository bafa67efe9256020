#include "quic/QuicCrypto.h"

#include "tls/Sha256.h"

#include <string.h>

namespace kest_quic {

namespace {

using kest_tls::Sha256;
constexpr size_t kBlock = 64;

// The published salts of the Initial secret.
constexpr uint8_t kSaltV1[20] = {0x38, 0x76, 0x2c, 0xf7, 0xf5, 0x59, 0x34, 0xb3, 0x4d, 0x17,
                                 0x9a, 0xe6, 0xa4, 0xc8, 0x0c, 0xad, 0xcc, 0xbb, 0x7f, 0x0a};
constexpr uint8_t kSaltV2[20] = {0x0d, 0xed, 0xe3, 0xde, 0xf7, 0x00, 0xa6, 0xdb, 0x81, 0x93,
                                 0x81, 0xbe, 0x6e, 0x26, 0x9d, 0xcb, 0xf9, 0xbd, 0x2e, 0xd9};
constexpr uint8_t kSaltDraft22[20] = {0x7f, 0xbc, 0xdb, 0x0e, 0x7c, 0x66, 0xbb, 0xe9, 0x19, 0x3a,
                                      0x96, 0xcd, 0x21, 0x51, 0x9e, 0xbd, 0x7a, 0x02, 0x64, 0x4a};
constexpr uint8_t kSaltDraft23[20] = {0xc3, 0xee, 0xf7, 0x12, 0xc7, 0x2e, 0xbb, 0x5a, 0x11, 0xa7,
                                      0xd2, 0x43, 0x2b, 0xb4, 0x63, 0x65, 0xbe, 0xf9, 0xf5, 0x02};
constexpr uint8_t kSaltDraft29[20] = {0xaf, 0xbf, 0xec, 0x28, 0x99, 0x93, 0xd2, 0x4c, 0x9e, 0x97,
                                      0x86, 0xf1, 0x9c, 0x61, 0x11, 0xe0, 0x43, 0x90, 0xa8, 0x99};

uint64_t Load64(const uint8_t *p) {
  uint64_t v = 0;
  for (int i = 0; i < 8; ++i) {
    v = v << 8 | p[i];
  }
  return v;
}

void Store64(uint8_t *p, uint64_t v) {
  for (int i = 7; i >= 0; --i) {
    p[i] = static_cast<uint8_t>(v);
    v >>= 8;
  }
}

// X = X * H in GF(2^128) with GCM's bit order (bit 0 is the top bit of the
// first byte), one bit at a time: a handful of packets per connection is
// all this ever multiplies, so a table buys nothing worth its setup.
void GfMultiply(uint64_t x[2], const uint64_t h[2]) {
  uint64_t z0 = 0, z1 = 0;
  uint64_t v0 = h[0], v1 = h[1];
  for (int i = 0; i < 128; ++i) {
    const uint64_t word = i < 64 ? x[0] : x[1];
    if ((word >> (63 - (i & 63))) & 1) {
      z0 ^= v0;
      z1 ^= v1;
    }
    const bool carry = (v1 & 1) != 0;
    v1 = (v1 >> 1) | (v0 << 63);
    v0 >>= 1;
    if (carry) {
      v0 ^= 0xe100000000000000ull;
    }
  }
  x[0] = z0;
  x[1] = z1;
}

void GhashBlocks(uint64_t y[2], const uint64_t h[2], const uint8_t *data, size_t length) {
  while (length > 0) {
    uint8_t block[16] = {};
    const size_t n = length < 16 ? length : 16;
    memcpy(block, data, n);
    y[0] ^= Load64(block);
    y[1] ^= Load64(block + 8);
    GfMultiply(y, h);
    data += n;
    length -= n;
  }
}

} // namespace

void HmacSha256(const uint8_t *key, size_t key_length, const uint8_t *data, size_t length,
                uint8_t out[kHashSize]) {
  uint8_t block[kBlock] = {};
  if (key_length > kBlock) {
    Sha256::Hash(key, key_length, block);
  } else if (key_length != 0) {
    memcpy(block, key, key_length);
  }
  uint8_t pad[kBlock];
  for (size_t i = 0; i < kBlock; ++i) {
    pad[i] = block[i] ^ 0x36;
  }
  Sha256 inner;
  inner.Update(pad, kBlock);
  inner.Update(data, length);
  uint8_t inner_digest[kHashSize];
  inner.Final(inner_digest);
  for (size_t i = 0; i < kBlock; ++i) {
    pad[i] = block[i] ^ 0x5c;
  }
  Sha256 outer;
  outer.Update(pad, kBlock);
  outer.Update(inner_digest, kHashSize);
  outer.Final(out);
}

void HkdfExtract(const uint8_t *salt, size_t salt_length, const uint8_t *ikm, size_t ikm_length,
                 uint8_t prk[kHashSize]) {
  HmacSha256(salt, salt_length, ikm, ikm_length, prk);
}

bool HkdfExpand(const uint8_t prk[kHashSize], const uint8_t *info, size_t info_length, uint8_t *out,
                size_t length) {
  // Room for T(i-1) | info | counter in one buffer; info stays short here.
  constexpr size_t kMaxInfo = 128;
  if (length > 255 * kHashSize || info_length > kMaxInfo) {
    return false;
  }
  uint8_t input[kHashSize + kMaxInfo + 1];
  uint8_t t[kHashSize] = {};
  size_t t_length = 0;
  size_t done = 0;
  for (uint8_t counter = 1; done < length; ++counter) {
    memcpy(input, t, t_length);
    if (info_length != 0) {
      memcpy(input + t_length, info, info_length);
    }
    input[t_length + info_length] = counter;
    HmacSha256(prk, kHashSize, input, t_length + info_length + 1, t);
    t_length = kHashSize;
    const size_t n = length - done < kHashSize ? length - done : kHashSize;
    memcpy(out + done, t, n);
    done += n;
  }
  return true;
}

bool HkdfExpandLabel(const uint8_t secret[kHashSize], const char *label, uint8_t *out,
                     size_t length) {
  static constexpr char kPrefix[] = "tls13 ";
  const size_t prefix_length = sizeof kPrefix - 1;
  const size_t label_length = strlen(label);
  if (label_length > 64 || length > 0xffff) {
    return false;
  }
  // struct { uint16 length; opaque label<7..255>; opaque context<0..255>; }
  uint8_t info[2 + 1 + 6 + 64 + 1];
  size_t n = 0;
  info[n++] = static_cast<uint8_t>(length >> 8);
  info[n++] = static_cast<uint8_t>(length);
  info[n++] = static_cast<uint8_t>(prefix_length + label_length);
  memcpy(info + n, kPrefix, prefix_length);
  n += prefix_length;
  memcpy(info + n, label, label_length);
  n += label_length;
  info[n++] = 0;
  return HkdfExpand(secret, info, n, out, length);
}

void Gcm128::SetKey(const uint8_t key[16]) {
  AES_set_encrypt_key(key, 128, &m_aes);
  uint8_t zero[16] = {};
  uint8_t h[16];
  AES_encrypt(zero, h, &m_aes);
  m_h[0] = Load64(h);
  m_h[1] = Load64(h + 8);
}

void Gcm128::Ghash(const uint8_t *aad, size_t aad_length, const uint8_t *text, size_t length,
                   uint8_t out[16]) const {
  uint64_t y[2] = {0, 0};
  GhashBlocks(y, m_h, aad, aad_length);
  GhashBlocks(y, m_h, text, length);
  y[0] ^= static_cast<uint64_t>(aad_length) * 8;
  y[1] ^= static_cast<uint64_t>(length) * 8;
  GfMultiply(y, m_h);
  Store64(out, y[0]);
  Store64(out + 8, y[1]);
}

// Counter mode from inc32(J0), J0 = nonce || 0x00000001.
void Gcm128::Ctr(const uint8_t nonce[kNonceSize], const uint8_t *in, size_t length,
                 uint8_t *out) const {
  uint8_t counter[16];
  memcpy(counter, nonce, kNonceSize);
  uint32_t n = 2;
  uint8_t stream[16];
  for (size_t done = 0; done < length; done += 16, ++n) {
    counter[12] = static_cast<uint8_t>(n >> 24);
    counter[13] = static_cast<uint8_t>(n >> 16);
    counter[14] = static_cast<uint8_t>(n >> 8);
    counter[15] = static_cast<uint8_t>(n);
    AES_encrypt(counter, stream, &m_aes);
    const size_t chunk = length - done < 16 ? length - done : 16;
    for (size_t i = 0; i < chunk; ++i) {
      out[done + i] = in[done + i] ^ stream[i];
    }
  }
}

void Gcm128::Tag(const uint8_t nonce[kNonceSize], const uint8_t *aad, size_t aad_length,
                 const uint8_t *text, size_t length, uint8_t tag[kTagSize]) const {
  uint8_t hash[16];
  Ghash(aad, aad_length, text, length, hash);
  // The hash masked with the key stream's block for J0 = nonce || 1.
  uint8_t j0[16];
  memcpy(j0, nonce, kNonceSize);
  j0[12] = j0[13] = j0[14] = 0;
  j0[15] = 1;
  uint8_t mask[16];
  AES_encrypt(j0, mask, &m_aes);
  for (size_t i = 0; i < kTagSize; ++i) {
    tag[i] = hash[i] ^ mask[i];
  }
}

bool Gcm128::Open(const uint8_t nonce[kNonceSize], const uint8_t *aad, size_t aad_length,
                  const uint8_t *in, size_t length, const uint8_t tag[kTagSize],
                  uint8_t *out) const {
  uint8_t expected[kTagSize];
  Tag(nonce, aad, aad_length, in, length, expected);
  uint8_t diff = 0;
  for (size_t i = 0; i < kTagSize; ++i) {
    diff |= static_cast<uint8_t>(expected[i] ^ tag[i]);
  }
  if (diff != 0) {
    return false;
  }
  Ctr(nonce, in, length, out);
  return true;
}

KeyFamily KeyFamilyOf(uint32_t version) {
  if (version == 0x00000001) {
    return KeyFamily::kV1;
  }
  if (version == 0x6b3343cf) {
    return KeyFamily::kV2;
  }
  // Drafts 29 to 32 share one salt, drafts 23 to 28 another, both with
  // version 1's labels; clients went on offering them well after version 1.
  if (version >= 0xff00001d && version <= 0xff000020) {
    return KeyFamily::kDraft29;
  }
  if (version >= 0xff000017 && version <= 0xff00001c) {
    return KeyFamily::kDraft23;
  }
  if (version == 0xff000015 || version == 0xff000016) {
    return KeyFamily::kDraft22;
  }
  // mvfst, Facebook's QUIC stack, kept the salts of the drafts it grew
  // from: its draft-22-era version 0xfaceb001 the salt of drafts 21 and 22,
  // 0xfaceb002 and the experimental 0xfaceb00e that of drafts 23 to 28.
  if (version == 0xfaceb001) {
    return KeyFamily::kDraft22;
  }
  if (version == 0xfaceb002 || version == 0xfaceb00e) {
    return KeyFamily::kDraft23;
  }
  return KeyFamily::kNone;
}

bool DeriveClientInitialKeys(uint32_t version, const uint8_t *dcid, size_t dcid_length,
                             InitialKeys &out) {
  const KeyFamily family = KeyFamilyOf(version);
  if (family == KeyFamily::kNone || dcid_length > 20) {
    return false;
  }
  const uint8_t *salt = family == KeyFamily::kV2        ? kSaltV2
                        : family == KeyFamily::kV1      ? kSaltV1
                        : family == KeyFamily::kDraft29 ? kSaltDraft29
                        : family == KeyFamily::kDraft22 ? kSaltDraft22
                                                        : kSaltDraft23;
  const bool v2 = family == KeyFamily::kV2;
  uint8_t initial[kHashSize];
  HkdfExtract(salt, 20, dcid, dcid_length, initial);
  uint8_t client[kHashSize];
  return HkdfExpandLabel(initial, "client in", client, kHashSize) &&
         HkdfExpandLabel(client, v2 ? "quicv2 key" : "quic key", out.key, sizeof out.key) &&
         HkdfExpandLabel(client, v2 ? "quicv2 iv" : "quic iv", out.iv, sizeof out.iv) &&
         HkdfExpandLabel(client, v2 ? "quicv2 hp" : "quic hp", out.hp, sizeof out.hp);
}

} // namespace kest_quic
