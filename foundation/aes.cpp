#include <kest/aes.h>

// Column-oriented AES: the state is four 32-bit columns, row 0 in the most
// significant byte. One table per direction folds SubBytes and MixColumns (or
// their inverses) for one input byte into a column word; the other three rows
// use the same table rotated. All tables are derived here at compile time from
// the field arithmetic of the standard.

namespace {

constexpr uint8_t Times2(uint8_t a) {
  return static_cast<uint8_t>((a << 1) ^ ((a & 0x80) ? 0x1b : 0x00));
}

// Product in GF(2^8) modulo x^8 + x^4 + x^3 + x + 1.
constexpr uint8_t Multiply(uint8_t a, uint8_t b) {
  uint8_t product = 0;
  while (b != 0) {
    if (b & 1) {
      product ^= a;
    }
    a = Times2(a);
    b >>= 1;
  }
  return product;
}

// The multiplicative inverse is a^254; 0 maps to 0.
constexpr uint8_t Inverse(uint8_t a) {
  uint8_t result = 1;
  uint8_t base = a;
  for (unsigned e = 254; e != 0; e >>= 1) {
    if (e & 1) {
      result = Multiply(result, base);
    }
    base = Multiply(base, base);
  }
  return a == 0 ? 0 : result;
}

constexpr uint8_t Rotl8(uint8_t b, int n) {
  return static_cast<uint8_t>((b << n) | (b >> (8 - n)));
}

constexpr uint32_t Rotr32(uint32_t w, int n) {
  return (w >> n) | (w << (32 - n));
}

constexpr uint32_t Column(uint8_t r0, uint8_t r1, uint8_t r2, uint8_t r3) {
  return (static_cast<uint32_t>(r0) << 24) | (static_cast<uint32_t>(r1) << 16) |
         (static_cast<uint32_t>(r2) << 8) | r3;
}

struct Tables {
  uint8_t sbox[256];
  uint8_t inv_sbox[256];
  // enc[x]: column (2s, s, s, 3s) for s = sbox[x], the MixColumns image of a
  // row-0 byte. dec[x]: column (14t, 9t, 13t, 11t) for t = inv_sbox[x].
  uint32_t enc[256];
  uint32_t dec[256];
};

constexpr Tables MakeTables() {
  Tables t{};
  for (int x = 0; x < 256; ++x) {
    const uint8_t b = Inverse(static_cast<uint8_t>(x));
    const uint8_t s =
        static_cast<uint8_t>(b ^ Rotl8(b, 1) ^ Rotl8(b, 2) ^ Rotl8(b, 3) ^ Rotl8(b, 4) ^ 0x63);
    t.sbox[x] = s;
    t.inv_sbox[s] = static_cast<uint8_t>(x);
  }
  for (int x = 0; x < 256; ++x) {
    const uint8_t s = t.sbox[x];
    t.enc[x] = Column(Multiply(s, 2), s, s, Multiply(s, 3));
    const uint8_t i = t.inv_sbox[x];
    t.dec[x] = Column(Multiply(i, 14), Multiply(i, 9), Multiply(i, 13), Multiply(i, 11));
  }
  return t;
}

constexpr Tables kTables = MakeTables();

static_assert(kTables.sbox[0x00] == 0x63 && kTables.sbox[0x53] == 0xed, "S-box derivation is off");

inline uint8_t Byte(uint32_t w, int row) {
  return static_cast<uint8_t>(w >> (24 - 8 * row));
}

inline uint32_t Load(const unsigned char *p) {
  return Column(p[0], p[1], p[2], p[3]);
}

inline void Store(uint32_t w, unsigned char *p) {
  p[0] = static_cast<unsigned char>(w >> 24);
  p[1] = static_cast<unsigned char>(w >> 16);
  p[2] = static_cast<unsigned char>(w >> 8);
  p[3] = static_cast<unsigned char>(w);
}

inline uint32_t SubWord(uint32_t w) {
  return Column(kTables.sbox[Byte(w, 0)], kTables.sbox[Byte(w, 1)], kTables.sbox[Byte(w, 2)],
                kTables.sbox[Byte(w, 3)]);
}

// InvMixColumns of one column: dec[] takes an S-box-substituted byte, so feed
// it the S-box image to cancel the inverse substitution it contains.
inline uint32_t InvMixColumn(uint32_t w) {
  return kTables.dec[kTables.sbox[Byte(w, 0)]] ^ Rotr32(kTables.dec[kTables.sbox[Byte(w, 1)]], 8) ^
         Rotr32(kTables.dec[kTables.sbox[Byte(w, 2)]], 16) ^
         Rotr32(kTables.dec[kTables.sbox[Byte(w, 3)]], 24);
}

int RoundsFor(int bits) {
  switch (bits) {
  case 128:
    return 10;
  case 192:
    return 12;
  case 256:
    return 14;
  default:
    return 0;
  }
}

} // namespace

extern "C" {

int AES_set_encrypt_key(const unsigned char *userKey, const int bits, AES_KEY *key) {
  if (userKey == nullptr || key == nullptr) {
    return -1;
  }
  const int rounds = RoundsFor(bits);
  if (rounds == 0) {
    return -2;
  }
  const int nk = bits / 32;
  const int words = 4 * (rounds + 1);
  uint32_t *w = key->rd_key;
  for (int i = 0; i < nk; ++i) {
    w[i] = Load(userKey + 4 * i);
  }
  uint32_t rcon = 0x01;
  for (int i = nk; i < words; ++i) {
    uint32_t temp = w[i - 1];
    if (i % nk == 0) {
      temp = SubWord((temp << 8) | (temp >> 24)) ^ (rcon << 24);
      rcon = Times2(static_cast<uint8_t>(rcon));
    } else if (nk > 6 && i % nk == 4) {
      temp = SubWord(temp);
    }
    w[i] = w[i - nk] ^ temp;
  }
  key->rounds = rounds;
  return 0;
}

// The equivalent inverse cipher: round keys in reverse order, with
// InvMixColumns applied to all but the first and last, so that decryption runs
// with the same shape as encryption.
int AES_set_decrypt_key(const unsigned char *userKey, const int bits, AES_KEY *key) {
  const int status = AES_set_encrypt_key(userKey, bits, key);
  if (status != 0) {
    return status;
  }
  uint32_t *w = key->rd_key;
  const int rounds = key->rounds;
  for (int lo = 0, hi = rounds; lo < hi; ++lo, --hi) {
    for (int c = 0; c < 4; ++c) {
      const uint32_t swap = w[4 * lo + c];
      w[4 * lo + c] = w[4 * hi + c];
      w[4 * hi + c] = swap;
    }
  }
  for (int i = 4; i < 4 * rounds; ++i) {
    w[i] = InvMixColumn(w[i]);
  }
  return 0;
}

void AES_encrypt(const unsigned char *in, unsigned char *out, const AES_KEY *key) {
  const uint32_t *rk = key->rd_key;
  uint32_t s[4];
  for (int c = 0; c < 4; ++c) {
    s[c] = Load(in + 4 * c) ^ rk[c];
  }
  // ShiftRows moves row r of column c + r into column c.
  for (int round = 1; round < key->rounds; ++round) {
    rk += 4;
    uint32_t t[4];
    for (int c = 0; c < 4; ++c) {
      t[c] = kTables.enc[Byte(s[c], 0)] ^ Rotr32(kTables.enc[Byte(s[(c + 1) & 3], 1)], 8) ^
             Rotr32(kTables.enc[Byte(s[(c + 2) & 3], 2)], 16) ^
             Rotr32(kTables.enc[Byte(s[(c + 3) & 3], 3)], 24) ^ rk[c];
    }
    for (int c = 0; c < 4; ++c) {
      s[c] = t[c];
    }
  }
  rk += 4;
  // The last round has no MixColumns. Everything is read into t before the
  // first byte is written, so `out` may alias `in`.
  uint32_t t[4];
  for (int c = 0; c < 4; ++c) {
    t[c] = Column(kTables.sbox[Byte(s[c], 0)], kTables.sbox[Byte(s[(c + 1) & 3], 1)],
                  kTables.sbox[Byte(s[(c + 2) & 3], 2)], kTables.sbox[Byte(s[(c + 3) & 3], 3)]) ^
           rk[c];
  }
  for (int c = 0; c < 4; ++c) {
    Store(t[c], out + 4 * c);
  }
}

void AES_decrypt(const unsigned char *in, unsigned char *out, const AES_KEY *key) {
  const uint32_t *rk = key->rd_key;
  uint32_t s[4];
  for (int c = 0; c < 4; ++c) {
    s[c] = Load(in + 4 * c) ^ rk[c];
  }
  // InvShiftRows moves row r of column c - r into column c.
  for (int round = 1; round < key->rounds; ++round) {
    rk += 4;
    uint32_t t[4];
    for (int c = 0; c < 4; ++c) {
      t[c] = kTables.dec[Byte(s[c], 0)] ^ Rotr32(kTables.dec[Byte(s[(c + 3) & 3], 1)], 8) ^
             Rotr32(kTables.dec[Byte(s[(c + 2) & 3], 2)], 16) ^
             Rotr32(kTables.dec[Byte(s[(c + 1) & 3], 3)], 24) ^ rk[c];
    }
    for (int c = 0; c < 4; ++c) {
      s[c] = t[c];
    }
  }
  rk += 4;
  uint32_t t[4];
  for (int c = 0; c < 4; ++c) {
    t[c] = Column(kTables.inv_sbox[Byte(s[c], 0)], kTables.inv_sbox[Byte(s[(c + 3) & 3], 1)],
                  kTables.inv_sbox[Byte(s[(c + 2) & 3], 2)],
                  kTables.inv_sbox[Byte(s[(c + 1) & 3], 3)]) ^
           rk[c];
  }
  for (int c = 0; c < 4; ++c) {
    Store(t[c], out + 4 * c);
  }
}

} // extern "C"
