#include <kest.h>
#include <kest/IpPortRuleString.h>

#include "rules/CustomApp.h"

namespace oru {

// Plug-ins read the fields in place: flag, then low, high and port.
static_assert(sizeof(IpPortRuleString) == 16, "valid, low, high, port");

namespace {

bool IsDigit(char c) {
  return kest_isdigit(static_cast<unsigned char>(c)) != 0;
}

const char *SkipSpaces(const char *p) {
  while (*p != '\0' && kest_isspace(static_cast<unsigned char>(*p)) != 0) {
    ++p;
  }
  return p;
}

// Reads "a.b.c.d" at `p` into `address`, first octet most significant. False
// with `address` cleared for fewer than four numbers or one above 255; false
// as well for 0.0.0.0, which never names an address here.
bool ReadAddress(const char *p, uint32_t &address) {
  unsigned int octets[4];
  if (kest_sscanf(p, "%u.%u.%u.%u", &octets[0], &octets[1], &octets[2], &octets[3]) != 4) {
    address = 0;
    return false;
  }
  uint32_t value = 0;
  for (unsigned int octet : octets) {
    if (octet > 255) {
      address = 0;
      return false;
    }
    value = value << 8 | octet;
  }
  address = value;
  return value != 0;
}

} // namespace

IpPortRuleString::IpPortRuleString(const char *text) : valid(false), low(0), high(0), port(0) {
  const char *p = text;
  if (IsDigit(*p)) {
    uint32_t *const addresses[2] = {&low, &high};
    for (uint32_t *address : addresses) {
      if (!ReadAddress(p, *address)) {
        return;
      }
      // Whatever digits and dots follow the four numbers are passed over, so
      // a surplus group such as a fifth ".5" vanishes.
      while (IsDigit(*p) || *p == '.') {
        ++p;
      }
      p = SkipSpaces(p);
      if (*p != '-') {
        break;
      }
      // A "-" behind the second address is passed over just the same.
      p = SkipSpaces(p + 1);
    }
  }
  if (high == 0) {
    high = low;
  }
  if (*p == ':') {
    // The number ends at the first non-digit; what follows is ignored, and
    // the order of the addresses is not looked at on this branch.
    port = static_cast<uint32_t>(kest_atoi(SkipSpaces(p + 1)));
    valid = port != 0;
    return;
  }
  if (*p != '\0') {
    return;
  }
  valid = low != 0 && low <= high;
}

bool IpPortRuleString::ValidateRule(const fdt::string &key, const fdt::string & /*old_value*/,
                                    const fdt::string & /*new_value*/) {
  fdt::string rule;
  return CustomApp::RuleOfItem(key, rule) && IpPortRuleString(rule.c_str()).valid;
}

} // namespace oru
