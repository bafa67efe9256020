#include <gtest/gtest.h>
#include <kest.h>
#include <kest/IpAddr.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace {

using oru::IpAddr;

// Address bytes as hex text, padded with zeros to the 16 bytes of a record.
std::vector<uint8_t> Bytes(const char *hex) {
  std::vector<uint8_t> out(16, 0);
  for (size_t i = 0; hex[2 * i] != '\0'; ++i) {
    out[i] = static_cast<uint8_t>(std::stoul(std::string(hex + 2 * i, 2), nullptr, 16));
  }
  return out;
}

// The four words of the view, w0 first.
std::array<uint32_t, 4> Words(const IpAddr &addr) {
  return {addr.w0(), addr.w1(), addr.w2(), addr.w3()};
}

TEST(IpAddrTest, EndpointRecordsConvertThroughTheFourWordView) {
  constexpr int V4 = KEST_FAMILY_IPV4, V6 = KEST_FAMILY_IPV6;
  struct Row {
    int family;
    const char *address;
    std::array<uint32_t, 4> w;
    int family_back;
    const char *address_back; // null: the address itself
  };
  const Row rows[] = {
      {V4, "c0000201", {0, 0, 0xc0000201u, 0}, V4, nullptr},
      {V6,
       "fe8000000001000200030004aabbccdd",
       {0x00010002u, 0xfe800000u, 0xaabbccddu, 0x00030004u},
       V6,
       nullptr},
      {V6, "00000000000000000000ffffc0000201", {0, 0, 0xc0000201u, 0x0000ffffu}, V6, nullptr},
      // ::1 sets only w2, so it reads back as the IPv4 address 0.0.0.1.
      {V6, "00000000000000000000000000000001", {0, 0, 1, 0}, V4, "00000001"},
      // No address at all reads back as IPv6, whatever it was made as.
      {V4, "00000000", {0, 0, 0, 0}, V6, ""},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.address);
    const IpAddr addr = IpAddr::FromEndpoint(row.family, Bytes(row.address).data());
    EXPECT_EQ(Words(addr), row.w);
    EXPECT_EQ(addr.is_v4(), row.family_back == V4);
    EXPECT_EQ(addr.is_zero(), row.w == (std::array<uint32_t, 4>{}));

    std::vector<uint8_t> back(16, 0xee);
    EXPECT_EQ(addr.ToEndpoint(back.data()), row.family_back);
    EXPECT_EQ(back, Bytes(row.address_back != nullptr ? row.address_back : row.address));
  }
}

// Plug-ins and rule stores read the 16 bytes directly.
TEST(IpAddrTest, LayoutIsTwoHostOrderNumbersHighFirst) {
  const uint8_t bytes[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  const IpAddr addr = IpAddr::FromV6(bytes);
  uint64_t numbers[2];
  std::memcpy(numbers, &addr, sizeof numbers);
  EXPECT_EQ(numbers[0], 0x0102030405060708u);
  EXPECT_EQ(numbers[1], 0x090a0b0c0d0e0f10u);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  std::array<uint32_t, 4> words;
  std::memcpy(words.data(), &addr, sizeof words);
  EXPECT_EQ(words, Words(addr));
#endif
  uint8_t back[16];
  addr.ToV6(back);
  EXPECT_EQ(std::memcmp(back, bytes, 16), 0);
  EXPECT_EQ(IpAddr::FromV4(0xc0000201u), IpAddr(0, 0xc0000201u));
}

TEST(IpAddrTest, OrderIsHighThenLowUnsigned) {
  const IpAddr ascending[] = {IpAddr(0, 0),
                              IpAddr(0, 1),
                              IpAddr(0, 0x100000000u),
                              IpAddr(0, 0xffffffffffffffffu),
                              IpAddr(1, 0),
                              IpAddr(0x8000000000000000u, 0),
                              IpAddr(~0ull, ~0ull)};
  for (size_t i = 0; i < std::size(ascending); ++i) {
    for (size_t j = 0; j < std::size(ascending); ++j) {
      const IpAddr &a = ascending[i], &b = ascending[j];
      EXPECT_TRUE((a == b) == (i == j) && (a != b) == (i != j) && (a < b) == (i < j) &&
                  (a > b) == (i > j) && (a <= b) == (i <= j) && (a >= b) == (i >= j))
          << i << " vs " << j;
    }
  }
}

} // namespace
