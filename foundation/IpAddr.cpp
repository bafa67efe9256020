#include <kest/IpAddr.h>

namespace oru {

namespace {

uint64_t ReadBigEndian64(const uint8_t *bytes) {
  uint64_t value = 0;
  for (int i = 0; i < 8; ++i) {
    value = (value << 8) | bytes[i];
  }
  return value;
}

void WriteBigEndian64(uint64_t value, uint8_t *bytes) {
  for (int i = 7; i >= 0; --i) {
    bytes[i] = static_cast<uint8_t>(value);
    value >>= 8;
  }
}

} // namespace

IpAddr IpAddr::FromV6(const uint8_t *bytes) {
  return IpAddr(ReadBigEndian64(bytes), ReadBigEndian64(bytes + 8));
}

IpAddr IpAddr::FromEndpoint(int family, const uint8_t *address) {
  if (family == KEST_FAMILY_IPV4) {
    const uint32_t value = (static_cast<uint32_t>(address[0]) << 24) |
                           (static_cast<uint32_t>(address[1]) << 16) |
                           (static_cast<uint32_t>(address[2]) << 8) | address[3];
    return FromV4(value);
  }
  return FromV6(address);
}

void IpAddr::ToV6(uint8_t *bytes) const {
  WriteBigEndian64(m_high, bytes);
  WriteBigEndian64(m_low, bytes + 8);
}

int IpAddr::ToEndpoint(uint8_t *address) const {
  if (!is_v4()) {
    ToV6(address);
    return KEST_FAMILY_IPV6;
  }
  const uint32_t value = v4();
  address[0] = static_cast<uint8_t>(value >> 24);
  address[1] = static_cast<uint8_t>(value >> 16);
  address[2] = static_cast<uint8_t>(value >> 8);
  address[3] = static_cast<uint8_t>(value);
  for (int i = 4; i < 16; ++i) {
    address[i] = 0;
  }
  return KEST_FAMILY_IPV4;
}

} // namespace oru
