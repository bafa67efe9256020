#include <kest.h>
#include <kest/md5.h>

namespace oru {

namespace {

// floor(|sin(i + 1)| * 2^32) for step i.
constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

// Left-rotation amounts, four per round, repeating within the round.
constexpr int kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

inline uint32_t Rotl(uint32_t x, int n) {
  return (x << n) | (x >> (32 - n));
}

void Transform(uint32_t state[4], const unsigned char *block) {
  uint32_t m[16];
  for (int i = 0; i < 16; ++i) {
    const unsigned char *p = block + 4 * i;
    m[i] = static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
  }
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  for (int i = 0; i < 64; ++i) {
    const int round = i / 16;
    uint32_t f;
    int word;
    switch (round) {
    case 0:
      f = (b & c) | (~b & d);
      word = i;
      break;
    case 1:
      f = (b & d) | (c & ~d);
      word = (5 * i + 1) & 15;
      break;
    case 2:
      f = b ^ c ^ d;
      word = (3 * i + 5) & 15;
      break;
    default:
      f = c ^ (b | ~d);
      word = (7 * i) & 15;
      break;
    }
    const uint32_t next = b + Rotl(a + f + kSine[i] + m[word], kShift[round][i & 3]);
    a = d;
    d = c;
    c = b;
    b = next;
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

} // namespace

int MD5_Init(MD5_CTX *ctx) {
  if (ctx == nullptr) {
    return 0;
  }
  ctx->state[0] = 0x67452301;
  ctx->state[1] = 0xefcdab89;
  ctx->state[2] = 0x98badcfe;
  ctx->state[3] = 0x10325476;
  ctx->count[0] = 0;
  ctx->count[1] = 0;
  return 1;
}

int MD5_Update(MD5_CTX *ctx, const void *data, size_t len) {
  if (ctx == nullptr) {
    return 0;
  }
  if (len == 0) {
    return 1;
  }
  const unsigned char *in = static_cast<const unsigned char *>(data);
  size_t used = (ctx->count[0] >> 3) & 63;
  const uint64_t bits = ((static_cast<uint64_t>(ctx->count[1]) << 32) | ctx->count[0]) +
                        (static_cast<uint64_t>(len) << 3);
  ctx->count[0] = static_cast<uint32_t>(bits);
  ctx->count[1] = static_cast<uint32_t>(bits >> 32);

  if (used != 0) {
    const size_t room = 64 - used;
    if (len < room) {
      kest_memcpy(ctx->buffer + used, in, len);
      return 1;
    }
    kest_memcpy(ctx->buffer + used, in, room);
    Transform(ctx->state, ctx->buffer);
    in += room;
    len -= room;
  }
  // Whole blocks straight from the caller's data, without a copy.
  for (; len >= 64; in += 64, len -= 64) {
    Transform(ctx->state, in);
  }
  if (len != 0) {
    kest_memcpy(ctx->buffer, in, len);
  }
  return 1;
}

int MD5_Final(unsigned char md[16], MD5_CTX *ctx) {
  if (ctx == nullptr || md == nullptr) {
    return 0;
  }
  // The length is taken before padding changes it.
  unsigned char length[8];
  for (int i = 0; i < 4; ++i) {
    length[i] = static_cast<unsigned char>(ctx->count[0] >> (8 * i));
    length[4 + i] = static_cast<unsigned char>(ctx->count[1] >> (8 * i));
  }
  // A 1 bit, then zeros up to 56 bytes into a block, then the length.
  static const unsigned char kPadding[64] = {0x80};
  const size_t used = (ctx->count[0] >> 3) & 63;
  const size_t pad = used < 56 ? 56 - used : 120 - used;
  MD5_Update(ctx, kPadding, pad);
  MD5_Update(ctx, length, 8);
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) {
      md[4 * i + j] = static_cast<unsigned char>(ctx->state[i] >> (8 * j));
    }
  }
  // The context held message bytes and the chaining state; leave neither.
  kest_memset(ctx, 0, sizeof(*ctx));
  return 1;
}

} // namespace oru
