// The text of an address rule as a host or an operator writes it: an IPv4
// address or range, optionally with a port, or a port alone.
//
//   rule:      addresses | addresses ":" port | ":" port
//   addresses: address | address "-" address
//   address:   four decimal numbers joined by "."
//
// Spaces may stand around "-" and behind ":". The string only parses: bounds
// of the port, and what the rule means, belong to the plug-in that uses it.
#ifndef KEST_IPPORTRULESTRING_H
#define KEST_IPPORTRULESTRING_H

#include <kest/Export.h>
#include <kest/fdt/basic_string.h>
#include <stdint.h>

namespace oru {

// Layout fixed: plug-ins read the fields.
class KEST_API IpPortRuleString {
public:
  // Parses `text` (NUL-terminated). Never fails otherwise than by `valid`
  // false, and then the other fields are not to be relied on.
  explicit IpPortRuleString(const char *text);

  // Validator for the "customrule." keys of a module: whether the rule text
  // inside `key` parses. `old_value` is not looked at.
  static bool ValidateRule(const fdt::string &key, const fdt::string &old_value,
                           const fdt::string &new_value);

  // True only after a complete parse.
  bool valid;
  // First address, first octet most significant ("a.b.c.d" is a << 24 | b <<
  // 16 | c << 8 | d); 0 if none was given.
  uint32_t low;
  // Last address in the same form; equal to `low` when only one was given.
  uint32_t high;
  // The port as written, 0 if none. Not bounded: ":70000" keeps 70000.
  uint32_t port;
};

} // namespace oru

#endif
