// A classification result's stack as text ("TCP/HTTP"), and a result
// callback that keeps the last one in the std::string its user word names.
#ifndef KEST_TESTS_STACKNAMES_H
#define KEST_TESTS_STACKNAMES_H

#include <kest.h>

#include <string>

namespace kest_test {

// The protocol names of a result's stack, lowest first, joined by "/".
inline std::string StackNames(kest_handle_t h, kest_result_t cursor) {
  std::string names;
  for (kest_proto_first(h, &cursor); kest_proto_valid(h, &cursor) != 0;
       kest_proto_next(h, &cursor)) {
    char name[32];
    const char *got = kest_proto_get_name(h, kest_proto_get_index(h, &cursor), name, sizeof name);
    names += (names.empty() ? "" : "/") + std::string(got != nullptr ? got : "?");
  }
  return names;
}

inline int LastStack(kest_handle_t h, kest_result_t *result, int, kest_conn_id_t, void *user, int) {
  *static_cast<std::string *>(user) = StackNames(h, *result);
  return 0;
}

} // namespace kest_test

#endif
