// Orderings for the trees and maps.
#ifndef KEST_FDT_LESS_H
#define KEST_FDT_LESS_H

#include <kest.h>
#include <kest/Export.h>

namespace oru {

namespace fdt {

// a before b by the type's own operator<; for the library's strings that is
// kest_strcmp on their characters.
template <class T> struct less {
  bool operator()(const T &a, const T &b) const { return a < b; }
};

} // namespace fdt

// Case-insensitive order by kest_strcasecmp, for keys that name things the
// user typed (header names and the like). Takes anything with c_str() and
// plain character pointers, in any mix, so a map keyed by strings can be
// searched with a literal without building a string. A null pointer orders as
// the empty string.
struct KEST_API Less_strcmp_forward {
  template <class A, class B> bool operator()(const A &a, const B &b) const {
    return kest_strcasecmp(Chars(a), Chars(b)) < 0;
  }

private:
  static const char *Chars(const char *s) { return s != nullptr ? s : ""; }
  template <class S>
  requires requires(const S &s) { s.c_str(); }
  static const char *Chars(const S &s) { return s.c_str(); }
};

} // namespace oru

#endif
