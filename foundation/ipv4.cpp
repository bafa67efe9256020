#include <kest.h>
#include <kest/ipv4.h>

namespace oru {

ipv4::ipv4() : m_value(0) {}

ipv4::ipv4(const unsigned int &value) : m_value(__builtin_bswap32(value)) {}

ipv4::ipv4(const ipv4 &other) : m_value(other.m_value) {}

ipv4::ipv4(const char *text) : m_value(0) {
  from_str(text, &m_value);
}

ipv4::~ipv4() {}

ipv4 &ipv4::operator=(const unsigned int &value) {
  m_value = __builtin_bswap32(value);
  return *this;
}

ipv4 &ipv4::operator=(const char *text) {
  from_str(text, &m_value);
  return *this;
}

bool ipv4::is_valid() const {
  return m_value != 0;
}

unsigned int ipv4::get_value() const {
  return m_value;
}

char *ipv4::to_str(char (&buf)[16]) const {
  // Most significant byte first and no swap back: this is the half of the
  // pair that reverses the octets of a parsed text.
  kest_sprintf(buf, "%u.%u.%u.%u", (m_value >> 24) & 0xffu, (m_value >> 16) & 0xffu,
               (m_value >> 8) & 0xffu, m_value & 0xffu);
  return buf;
}

bool ipv4::from_str(const char *text, unsigned int *out) {
  if (text == nullptr || out == nullptr) {
    return false;
  }
  unsigned int octet[4] = {0, 0, 0, 0};
  if (kest_sscanf(text, "%u.%u.%u.%u", &octet[0], &octet[1], &octet[2], &octet[3]) != 4) {
    return false;
  }
  for (unsigned int value : octet) {
    if (value > 255u) {
      return false;
    }
  }
  const unsigned int first_highest =
      (octet[0] << 24) | (octet[1] << 16) | (octet[2] << 8) | octet[3];
  *out = __builtin_bswap32(first_highest);
  return true;
}

} // namespace oru
