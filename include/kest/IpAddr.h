// The library's general address type: an IPv4 or IPv6 address in 16 bytes.
//
// Layout, fixed because plug-ins and rule stores read it directly: two 64-bit
// numbers in host byte order, m_high first.
//  - IPv6: m_high is the first 8 address bytes read as a big-endian number,
//    m_low the last 8.
//  - IPv4: m_high is 0 and m_low is the address value in host byte order.
//  - All zero: no address.
//
// The same 16 bytes seen as four 32-bit host-order words w0..w3 (memory order
// on a little-endian machine) give m_high = w1:w0 and m_low = w3:w2; the host
// endpoint records are converted with that view. An IPv4 address then lives in
// w2 alone, which is also how an address is told to be IPv4 on the way back
// (is_v4): any address with w0, w1, w3 zero and w2 not zero reads as IPv4, so
// the IPv6 addresses ::1 and ::a.b.c.d come back as IPv4 and the all-zero
// address comes back as IPv6.
#ifndef KEST_IPADDR_H
#define KEST_IPADDR_H

#include <kest.h>
#include <kest/Export.h>
#include <stdint.h>

namespace oru {

struct KEST_API IpAddr {
  uint64_t m_high;
  uint64_t m_low;

  constexpr IpAddr() : m_high(0), m_low(0) {}
  constexpr IpAddr(uint64_t high, uint64_t low) : m_high(high), m_low(low) {}

  // An IPv4 address from its value in host byte order (192.0.2.1 is 0xC0000201).
  static constexpr IpAddr FromV4(uint32_t host_order) { return IpAddr(0, host_order); }
  // An IPv6 address from its 16 bytes in network order.
  static IpAddr FromV6(const uint8_t *bytes);
  // From the address bytes of a host endpoint record: KEST_FAMILY_IPV4 reads 4
  // bytes, any other family 16.
  static IpAddr FromEndpoint(int family, const uint8_t *address);

  // The 16 bytes in network order, the reverse of FromV6.
  void ToV6(uint8_t *bytes) const;
  // Fills the 16 address bytes of a host endpoint record and returns the family:
  // KEST_FAMILY_IPV4 with 4 bytes and 12 zero bytes when is_v4, otherwise
  // KEST_FAMILY_IPV6 with all 16.
  int ToEndpoint(uint8_t *address) const;

  // The IPv4 value in host byte order; meaningful when is_v4.
  constexpr uint32_t v4() const { return static_cast<uint32_t>(m_low); }

  // The four-word view.
  constexpr uint32_t w0() const { return static_cast<uint32_t>(m_high); }
  constexpr uint32_t w1() const { return static_cast<uint32_t>(m_high >> 32); }
  constexpr uint32_t w2() const { return static_cast<uint32_t>(m_low); }
  constexpr uint32_t w3() const { return static_cast<uint32_t>(m_low >> 32); }

  constexpr bool is_v4() const {
    return m_high == 0 && (m_low >> 32) == 0 && static_cast<uint32_t>(m_low) != 0;
  }
  constexpr bool is_zero() const { return m_high == 0 && m_low == 0; }

  // Equality of all 16 bytes; order by m_high, then m_low, both unsigned.
  friend constexpr bool operator==(const IpAddr &a, const IpAddr &b) {
    return a.m_high == b.m_high && a.m_low == b.m_low;
  }
  friend constexpr bool operator!=(const IpAddr &a, const IpAddr &b) { return !(a == b); }
  friend constexpr bool operator<(const IpAddr &a, const IpAddr &b) {
    return a.m_high < b.m_high || (a.m_high == b.m_high && a.m_low < b.m_low);
  }
  friend constexpr bool operator>(const IpAddr &a, const IpAddr &b) { return b < a; }
  friend constexpr bool operator<=(const IpAddr &a, const IpAddr &b) { return !(b < a); }
  friend constexpr bool operator>=(const IpAddr &a, const IpAddr &b) { return !(a < b); }
};

static_assert(sizeof(IpAddr) == 16, "IpAddr is two 64-bit numbers");

} // namespace oru

#endif
