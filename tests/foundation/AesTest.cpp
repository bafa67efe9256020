#include <gtest/gtest.h>
#include <kest/aes.h>

#include <string>
#include <vector>

namespace {

std::vector<unsigned char> Hex(const std::string &text) {
  std::vector<unsigned char> out;
  for (size_t i = 0; i + 1 < text.size(); i += 2) {
    out.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
  }
  return out;
}

std::string ToHex(const unsigned char *bytes, size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out += digits[bytes[i] >> 4];
    out += digits[bytes[i] & 15];
  }
  return out;
}

struct Vector {
  const char *name;
  const char *key;
  const char *plain;
  const char *cipher;
};

// The example vectors of the standard (appendices B and C).
const Vector kVectors[] = {
    {"B", "2b7e151628aed2a6abf7158809cf4f3c", "3243f6a8885a308d313198a2e0370734",
     "3925841d02dc09fbdc118597196a0b32"},
    {"C.1", "000102030405060708090a0b0c0d0e0f", "00112233445566778899aabbccddeeff",
     "69c4e0d86a7b0430d8cdb78070b4c55a"},
    {"C.2", "000102030405060708090a0b0c0d0e0f1011121314151617", "00112233445566778899aabbccddeeff",
     "dda97ca4864cdfe06eaf70a0ec0d7191"},
    {"C.3", "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f",
     "00112233445566778899aabbccddeeff", "8ea2b7ca516745bfeafc49904b496089"},
};

TEST(AesTest, StandardVectorsInBothDirections) {
  for (const Vector &v : kVectors) {
    SCOPED_TRACE(v.name);
    const std::vector<unsigned char> key = Hex(v.key);
    const std::vector<unsigned char> plain = Hex(v.plain);
    const int bits = static_cast<int>(key.size() * 8);
    AES_KEY enc, dec;
    ASSERT_EQ(AES_set_encrypt_key(key.data(), bits, &enc), 0);
    ASSERT_EQ(AES_set_decrypt_key(key.data(), bits, &dec), 0);
    EXPECT_EQ(enc.rounds, bits / 32 + 6);
    EXPECT_EQ(dec.rounds, enc.rounds);

    unsigned char out[AES_BLOCK_SIZE];
    AES_encrypt(plain.data(), out, &enc);
    EXPECT_EQ(ToHex(out, sizeof out), v.cipher);

    const std::vector<unsigned char> cipher = Hex(v.cipher);
    AES_decrypt(cipher.data(), out, &dec);
    EXPECT_EQ(ToHex(out, sizeof out), v.plain);
  }
}

// The last word of each expanded key in appendix A of the standard.
TEST(AesTest, KeyExpansionEndsWithTheStandardsLastWord) {
  struct Row {
    const char *key;
    int last;
    uint32_t word;
  };
  const Row rows[] = {
      {"2b7e151628aed2a6abf7158809cf4f3c", 43, 0xb6630ca6u},
      {"8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b", 51, 0x01002202u},
      {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4", 59, 0x706c631eu},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.key);
    const std::vector<unsigned char> key = Hex(row.key);
    AES_KEY expanded;
    ASSERT_EQ(AES_set_encrypt_key(key.data(), static_cast<int>(key.size() * 8), &expanded), 0);
    EXPECT_EQ(expanded.rd_key[row.last], row.word);
    // The decryption key starts with the last round key.
    AES_KEY reversed;
    ASSERT_EQ(AES_set_decrypt_key(key.data(), static_cast<int>(key.size() * 8), &reversed), 0);
    EXPECT_EQ(reversed.rd_key[3], row.word);
  }
}

TEST(AesTest, InPlaceRoundTrip) {
  for (const Vector &v : kVectors) {
    SCOPED_TRACE(v.name);
    const std::vector<unsigned char> key = Hex(v.key);
    const int bits = static_cast<int>(key.size() * 8);
    AES_KEY enc, dec;
    ASSERT_EQ(AES_set_encrypt_key(key.data(), bits, &enc), 0);
    ASSERT_EQ(AES_set_decrypt_key(key.data(), bits, &dec), 0);
    std::vector<unsigned char> block = Hex(v.plain);
    AES_encrypt(block.data(), block.data(), &enc);
    EXPECT_EQ(ToHex(block.data(), block.size()), v.cipher);
    AES_decrypt(block.data(), block.data(), &dec);
    EXPECT_EQ(ToHex(block.data(), block.size()), v.plain);
  }
}

TEST(AesTest, KeySetupRejectsNullPointersAndOtherSizes) {
  const unsigned char key[32] = {};
  AES_KEY expanded;
  for (auto set : {AES_set_encrypt_key, AES_set_decrypt_key}) {
    EXPECT_EQ(set(nullptr, 128, &expanded), -1);
    EXPECT_EQ(set(key, 128, nullptr), -1);
    for (int bits : {0, 64, 127, 129, 160, 224, 512, -128}) {
      SCOPED_TRACE(bits);
      EXPECT_EQ(set(key, bits, &expanded), -2);
    }
  }
}

} // namespace
