#include "tls/Sha256.h"

#include <string.h>

namespace kest_tls {

namespace {

constexpr uint32_t kRound[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

inline uint32_t Rotr(uint32_t x, int n) {
  return (x >> n) | (x << (32 - n));
}

} // namespace

void Sha256::Reset() {
  static constexpr uint32_t kInit[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                        0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  memcpy(m_state, kInit, sizeof m_state);
  m_bits = 0;
  m_used = 0;
}

void Sha256::Block(const uint8_t *block) {
  uint32_t w[64];
  for (int i = 0; i < 16; ++i) {
    w[i] = static_cast<uint32_t>(block[4 * i]) << 24 |
           static_cast<uint32_t>(block[4 * i + 1]) << 16 |
           static_cast<uint32_t>(block[4 * i + 2]) << 8 | block[4 * i + 3];
  }
  for (int i = 16; i < 64; ++i) {
    const uint32_t s0 = Rotr(w[i - 15], 7) ^ Rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
    const uint32_t s1 = Rotr(w[i - 2], 17) ^ Rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
    w[i] = w[i - 16] + s0 + w[i - 7] + s1;
  }
  uint32_t a = m_state[0], b = m_state[1], c = m_state[2], d = m_state[3];
  uint32_t e = m_state[4], f = m_state[5], g = m_state[6], h = m_state[7];
  for (int i = 0; i < 64; ++i) {
    const uint32_t t1 =
        h + (Rotr(e, 6) ^ Rotr(e, 11) ^ Rotr(e, 25)) + ((e & f) ^ (~e & g)) + kRound[i] + w[i];
    const uint32_t t2 = (Rotr(a, 2) ^ Rotr(a, 13) ^ Rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
    h = g;
    g = f;
    f = e;
    e = d + t1;
    d = c;
    c = b;
    b = a;
    a = t1 + t2;
  }
  m_state[0] += a;
  m_state[1] += b;
  m_state[2] += c;
  m_state[3] += d;
  m_state[4] += e;
  m_state[5] += f;
  m_state[6] += g;
  m_state[7] += h;
}

void Sha256::Update(const void *data, size_t length) {
  const uint8_t *p = static_cast<const uint8_t *>(data);
  m_bits += static_cast<uint64_t>(length) * 8;
  while (length != 0) {
    if (m_used == 0 && length >= 64) {
      Block(p);
      p += 64;
      length -= 64;
      continue;
    }
    const size_t n = length < 64 - m_used ? length : 64 - m_used;
    memcpy(m_buffer + m_used, p, n);
    m_used += n;
    p += n;
    length -= n;
    if (m_used == 64) {
      Block(m_buffer);
      m_used = 0;
    }
  }
}

void Sha256::Final(uint8_t digest[kDigestSize]) {
  const uint64_t bits = m_bits;
  m_buffer[m_used++] = 0x80;
  if (m_used > 56) {
    memset(m_buffer + m_used, 0, 64 - m_used);
    Block(m_buffer);
    m_used = 0;
  }
  memset(m_buffer + m_used, 0, 56 - m_used);
  for (int i = 0; i < 8; ++i) {
    m_buffer[56 + i] = static_cast<uint8_t>(bits >> (56 - 8 * i));
  }
  Block(m_buffer);
  for (int i = 0; i < 8; ++i) {
    digest[4 * i] = static_cast<uint8_t>(m_state[i] >> 24);
    digest[4 * i + 1] = static_cast<uint8_t>(m_state[i] >> 16);
    digest[4 * i + 2] = static_cast<uint8_t>(m_state[i] >> 8);
    digest[4 * i + 3] = static_cast<uint8_t>(m_state[i]);
  }
}

void Sha256::Hash(const void *data, size_t length, uint8_t digest[kDigestSize]) {
  Sha256 ctx;
  ctx.Update(data, length);
  ctx.Final(digest);
}

} // namespace kest_tls
