#include <gtest/gtest.h>
#include <kest.h>
#include <kest/IpAddr.h>

#include <cstring>
#include <vector>

namespace {

using oru::IpAddr;

struct Bytes16 {
  uint8_t b[16];
};

TEST(IpAddrTest, EndpointRecordsConvertThroughTheFourWordView) {
  struct Row {
    const char *name;
    int family;
    Bytes16 address;
    uint32_t w0, w1, w2, w3;
    int family_back; // the family the address reads back as
  };
  const Row rows[] = {
      {"192.0.2.1", KEST_FAMILY_IPV4, {{192, 0, 2, 1}}, 0, 0, 0xc0000201u, 0, KEST_FAMILY_IPV4},
      {"2001:db8::1",
       KEST_FAMILY_IPV6,
       {{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}},
       0,
       0x20010db8u,
       1,
       0,
       KEST_FAMILY_IPV6},
      {"fe80::1:2:3:4",
       KEST_FAMILY_IPV6,
       {{0xfe, 0x80, 0, 0, 0, 1, 0, 2, 0, 3, 0, 4, 0xaa, 0xbb, 0xcc, 0xdd}},
       0x00010002u,
       0xfe800000u,
       0xaabbccddu,
       0x00030004u,
       KEST_FAMILY_IPV6},
      {"::ffff:192.0.2.1",
       KEST_FAMILY_IPV6,
       {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 192, 0, 2, 1}},
       0,
       0,
       0xc0000201u,
       0x0000ffffu,
       KEST_FAMILY_IPV6},
      // Only w2 set: indistinguishable from IPv4 0.0.0.1 on the way back.
      {"::1",
       KEST_FAMILY_IPV6,
       {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}},
       0,
       0,
       1,
       0,
       KEST_FAMILY_IPV4},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    const IpAddr addr = IpAddr::FromEndpoint(row.family, row.address.b);
    EXPECT_EQ(addr.w0(), row.w0);
    EXPECT_EQ(addr.w1(), row.w1);
    EXPECT_EQ(addr.w2(), row.w2);
    EXPECT_EQ(addr.w3(), row.w3);
    EXPECT_EQ(addr.is_v4(), row.family_back == KEST_FAMILY_IPV4);

    uint8_t back[16];
    std::memset(back, 0xee, sizeof back);
    EXPECT_EQ(addr.ToEndpoint(back), row.family_back);
    if (row.family == row.family_back) {
      EXPECT_EQ(std::memcmp(back, row.address.b, 16), 0);
    }
  }
}

TEST(IpAddrTest, LoopbackV6ComesBackAsV4Address0001) {
  const Bytes16 loopback = {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};
  uint8_t back[16];
  ASSERT_EQ(IpAddr::FromEndpoint(KEST_FAMILY_IPV6, loopback.b).ToEndpoint(back), KEST_FAMILY_IPV4);
  const uint8_t expected[16] = {0, 0, 0, 1};
  EXPECT_EQ(std::memcmp(back, expected, 16), 0);
}

TEST(IpAddrTest, AllZeroComesBackAsV6EvenWhenMadeAsV4) {
  const uint8_t zero[16] = {};
  const IpAddr addr = IpAddr::FromEndpoint(KEST_FAMILY_IPV4, zero);
  EXPECT_TRUE(addr.is_zero());
  EXPECT_FALSE(addr.is_v4());
  EXPECT_EQ(addr, IpAddr());

  uint8_t back[16];
  std::memset(back, 0xee, sizeof back);
  EXPECT_EQ(addr.ToEndpoint(back), KEST_FAMILY_IPV6);
  EXPECT_EQ(std::memcmp(back, zero, 16), 0);
}

TEST(IpAddrTest, V4ValueIsTheLowNumberInHostOrder) {
  const IpAddr addr = IpAddr::FromV4(0xc0000201u);
  EXPECT_EQ(addr.m_high, 0u);
  EXPECT_EQ(addr.m_low, 0xc0000201u);
  EXPECT_EQ(addr.v4(), 0xc0000201u);
  EXPECT_TRUE(addr.is_v4());
  EXPECT_FALSE(addr.is_zero());
}

TEST(IpAddrTest, V6BytesAreTwoBigEndianNumbersHighFirst) {
  const uint8_t bytes[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  const IpAddr addr = IpAddr::FromV6(bytes);
  EXPECT_EQ(addr.m_high, 0x0102030405060708u);
  EXPECT_EQ(addr.m_low, 0x090a0b0c0d0e0f10u);
  uint8_t back[16];
  addr.ToV6(back);
  EXPECT_EQ(std::memcmp(back, bytes, 16), 0);
}

// Plug-ins read the object as raw words; the words of the view are the memory
// order of the 16 bytes on a little-endian machine.
TEST(IpAddrTest, MemoryLayoutIsHighThenLowInHostOrder) {
  const IpAddr addr(0x1111111122222222u, 0x3333333344444444u);
  uint32_t words[4];
  uint64_t numbers[2];
  std::memcpy(words, &addr, sizeof words);
  std::memcpy(numbers, &addr, sizeof numbers);
  EXPECT_EQ(numbers[0], addr.m_high);
  EXPECT_EQ(numbers[1], addr.m_low);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  EXPECT_EQ(words[0], addr.w0());
  EXPECT_EQ(words[1], addr.w1());
  EXPECT_EQ(words[2], addr.w2());
  EXPECT_EQ(words[3], addr.w3());
#endif
  EXPECT_EQ(addr.w0(), 0x22222222u);
  EXPECT_EQ(addr.w1(), 0x11111111u);
  EXPECT_EQ(addr.w2(), 0x44444444u);
  EXPECT_EQ(addr.w3(), 0x33333333u);
}

TEST(IpAddrTest, OrderIsHighThenLowUnsigned) {
  // Ascending.
  const std::vector<IpAddr> sorted = {
      IpAddr(0, 0),
      IpAddr(0, 1),
      IpAddr(0, 0xffffffffu),
      IpAddr(0, 0x100000000u),
      IpAddr(0, 0xffffffffffffffffu),
      IpAddr(1, 0),
      IpAddr(1, 5),
      IpAddr(0x8000000000000000u, 0),
      IpAddr(0xffffffffffffffffu, 0xffffffffffffffffu),
  };
  for (size_t i = 0; i < sorted.size(); ++i) {
    for (size_t j = 0; j < sorted.size(); ++j) {
      SCOPED_TRACE(testing::Message() << i << " vs " << j);
      const IpAddr &a = sorted[i];
      const IpAddr &b = sorted[j];
      EXPECT_EQ(a == b, i == j);
      EXPECT_EQ(a != b, i != j);
      EXPECT_EQ(a < b, i < j);
      EXPECT_EQ(a > b, i > j);
      EXPECT_EQ(a <= b, i <= j);
      EXPECT_EQ(a >= b, i >= j);
    }
  }
}

} // namespace
