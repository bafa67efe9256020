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

// The example vectors of the standard, appendices B and C.
TEST(AesTest, StandardVectorsInBothDirectionsAlsoInPlace) {
  struct Row {
    const char *key, *plain, *cipher;
  };
  const Row rows[] = {
      {"2b7e151628aed2a6abf7158809cf4f3c", "3243f6a8885a308d313198a2e0370734",
       "3925841d02dc09fbdc118597196a0b32"},
      {"000102030405060708090a0b0c0d0e0f", "00112233445566778899aabbccddeeff",
       "69c4e0d86a7b0430d8cdb78070b4c55a"},
      {"000102030405060708090a0b0c0d0e0f1011121314151617", "00112233445566778899aabbccddeeff",
       "dda97ca4864cdfe06eaf70a0ec0d7191"},
      {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f",
       "00112233445566778899aabbccddeeff", "8ea2b7ca516745bfeafc49904b496089"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.key);
    const std::vector<unsigned char> key = Hex(row.key);
    const std::vector<unsigned char> plain = Hex(row.plain);
    const std::vector<unsigned char> cipher = Hex(row.cipher);
    const int bits = static_cast<int>(key.size() * 8);
    AES_KEY enc, dec;
    ASSERT_EQ(AES_set_encrypt_key(key.data(), bits, &enc), 0);
    ASSERT_EQ(AES_set_decrypt_key(key.data(), bits, &dec), 0);
    EXPECT_EQ(enc.rounds, bits / 32 + 6);

    std::vector<unsigned char> out(AES_BLOCK_SIZE);
    AES_encrypt(plain.data(), out.data(), &enc);
    EXPECT_EQ(out, cipher);
    AES_decrypt(cipher.data(), out.data(), &dec);
    EXPECT_EQ(out, plain);

    std::vector<unsigned char> block = plain;
    AES_encrypt(block.data(), block.data(), &enc);
    EXPECT_EQ(block, cipher);
    AES_decrypt(block.data(), block.data(), &dec);
    EXPECT_EQ(block, plain);
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
