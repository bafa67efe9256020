// A 32-bit IPv4 address as plug-ins exchange it.
//
// The stored value is the address in network byte order on a little-endian
// machine: the integer constructor and from_str both byte-swap. to_str prints
// the stored integer most significant byte first without swapping back, so a
// text read in comes out with its octets reversed ("192.0.2.1" prints as
// "1.2.0.192"). Plug-ins depend on exactly this pairing; keep the two sides as
// they are.
#ifndef KEST_IPV4_H
#define KEST_IPV4_H

#include <kest/Export.h>

namespace oru {

class KEST_API ipv4 {
public:
  // Value 0, which means "no valid address".
  ipv4();
  // Value is `value` byte-swapped.
  ipv4(const unsigned int &value);
  ipv4(const ipv4 &other);
  // Value 0, then from_str into the value.
  ipv4(const char *text);
  ~ipv4();

  ipv4 &operator=(const ipv4 &other) = default;
  // As the integer constructor.
  ipv4 &operator=(const unsigned int &value);
  // from_str into the value; a text that does not parse leaves it unchanged.
  ipv4 &operator=(const char *text);

  bool is_valid() const;
  // The stored value, unchanged.
  unsigned int get_value() const;
  // Prints the value's bytes, most significant first, as "%u.%u.%u.%u".
  // Returns `buf`.
  char *to_str(char (&buf)[16]) const;

  // Reads four dotted numbers of at most 255 each; text behind the fourth is
  // ignored. On success stores them first octet highest, byte-swapped, and
  // returns true; otherwise returns false and leaves `*out` untouched.
  static bool from_str(const char *text, unsigned int *out);

private:
  unsigned int m_value;
};

static_assert(sizeof(ipv4) == 4, "ipv4 is one 32-bit value");

} // namespace oru

#endif
