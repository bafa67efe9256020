// AES and MD5 on the standard vectors of vectors.txt beside this file, and
// what their calls refuse.
#include "LeakCheck.h"
#include "TableFile.h"

#include <gtest/gtest.h>
#include <kest/aes.h>
#include <kest/md5.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using Row = std::vector<std::string>;

Bytes Hex(const std::string &text) {
  Bytes out;
  for (size_t i = 0; i + 1 < text.size(); i += 2) {
    out.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
  }
  return out;
}

// The lines of vectors.txt that start with `kind`, as `fields` fields split at
// single spaces, the last one taking the rest of the line.
std::vector<Row> Vectors(const std::string &kind, size_t fields) {
  std::ifstream in(kest_test::SourceFolder(__FILE__) / "vectors.txt");
  std::vector<Row> rows;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(kind + " ", 0) != 0) {
      continue;
    }
    Row row;
    size_t at = kind.size() + 1;
    while (row.size() + 1 < fields && line.find(' ', at) != std::string::npos) {
      row.push_back(line.substr(at, line.find(' ', at) - at));
      at = line.find(' ', at) + 1;
    }
    row.push_back(line.substr(std::min(at, line.size())));
    row.resize(fields); // an empty last field whose space was trimmed
    rows.push_back(row);
  }
  EXPECT_FALSE(rows.empty()) << "no " << kind << " vectors";
  return rows;
}

using CryptoTest = kest_test::LeakCheck;

TEST_F(CryptoTest, AesVectorsInBothDirectionsAlsoInPlace) {
  for (const Row &row : Vectors("aes", 3)) {
    SCOPED_TRACE(row[0]);
    const Bytes key = Hex(row[0]), plain = Hex(row[1]), cipher = Hex(row[2]);
    const int bits = static_cast<int>(key.size() * 8);
    AES_KEY enc, dec;
    ASSERT_EQ(AES_set_encrypt_key(key.data(), bits, &enc), 0);
    ASSERT_EQ(AES_set_decrypt_key(key.data(), bits, &dec), 0);
    EXPECT_EQ(enc.rounds, bits / 32 + 6);
    Bytes out(AES_BLOCK_SIZE);
    AES_encrypt(plain.data(), out.data(), &enc);
    EXPECT_EQ(out, cipher);
    AES_decrypt(cipher.data(), out.data(), &dec);
    EXPECT_EQ(out, plain);
    Bytes block = plain;
    AES_encrypt(block.data(), block.data(), &enc);
    EXPECT_EQ(block, cipher);
    AES_decrypt(block.data(), block.data(), &dec);
    EXPECT_EQ(block, plain);
  }
}

TEST_F(CryptoTest, AesKeySetupRejectsNullPointersAndOtherSizes) {
  const unsigned char key[32] = {};
  AES_KEY expanded;
  for (auto set : {AES_set_encrypt_key, AES_set_decrypt_key}) {
    EXPECT_EQ(set(nullptr, 128, &expanded), -1);
    EXPECT_EQ(set(key, 128, nullptr), -1);
    for (int bits : {0, 64, 127, 129, 160, 224, 512, -128}) {
      EXPECT_EQ(set(key, bits, &expanded), -2) << bits;
    }
  }
}

// Each message fed as the pieces [0, cut) and [cut, end), for every cut.
TEST_F(CryptoTest, Md5VectorsWhereverTheInputIsSplit) {
  for (const Row &row : Vectors("md5", 2)) {
    const std::string &message = row[1];
    for (size_t cut = 0; cut <= message.size(); ++cut) {
      SCOPED_TRACE(testing::Message() << '"' << message << "\" cut at " << cut);
      oru::MD5_CTX ctx;
      EXPECT_EQ(oru::MD5_Init(&ctx), 1);
      EXPECT_EQ(oru::MD5_Update(&ctx, message.data(), cut), 1);
      EXPECT_EQ(oru::MD5_Update(&ctx, message.data() + cut, message.size() - cut), 1);
      Bytes md(MD5_DIGEST_LENGTH);
      EXPECT_EQ(oru::MD5_Final(md.data(), &ctx), 1);
      EXPECT_EQ(md, Hex(row[0]));
    }
  }
  unsigned char md[MD5_DIGEST_LENGTH];
  EXPECT_EQ(oru::MD5_Init(nullptr), 0);
  EXPECT_EQ(oru::MD5_Update(nullptr, "a", 1), 0);
  EXPECT_EQ(oru::MD5_Final(md, nullptr), 0);
}

} // namespace
