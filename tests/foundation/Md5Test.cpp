#include "LeakCheck.h"

#include <gtest/gtest.h>
#include <kest/md5.h>

#include <string>

namespace {

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
  const char *message, *digest;
};

// The test suite of the MD5 definition.
const Vector kSuite[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"1234567890123456789012345678901234567890123456789012345678901234567890123456789"
     "0",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

// Digest of `message` fed as the pieces [0, cut) and [cut, end).
std::string Digest(const std::string &message, size_t cut) {
  oru::MD5_CTX ctx;
  EXPECT_EQ(oru::MD5_Init(&ctx), 1);
  EXPECT_EQ(oru::MD5_Update(&ctx, message.data(), cut), 1);
  EXPECT_EQ(oru::MD5_Update(&ctx, message.data() + cut, message.size() - cut), 1);
  unsigned char md[MD5_DIGEST_LENGTH];
  EXPECT_EQ(oru::MD5_Final(md, &ctx), 1);
  return ToHex(md, sizeof md);
}

using Md5Test = kest_test::LeakCheck;

TEST_F(Md5Test, SuiteDigestsWhereverTheInputIsSplit) {
  for (const Vector &v : kSuite) {
    const std::string message = v.message;
    for (size_t cut = 0; cut <= message.size(); ++cut) {
      SCOPED_TRACE(testing::Message() << '"' << message << "\" cut at " << cut);
      EXPECT_EQ(Digest(message, cut), v.digest);
    }
  }
}

TEST_F(Md5Test, NullContextIsRefused) {
  unsigned char md[MD5_DIGEST_LENGTH];
  EXPECT_EQ(oru::MD5_Init(nullptr), 0);
  EXPECT_EQ(oru::MD5_Update(nullptr, "a", 1), 0);
  EXPECT_EQ(oru::MD5_Final(md, nullptr), 0);
}

} // namespace
