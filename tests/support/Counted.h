// An element type for container tests that counts its live instances, so that
// every construction is seen to be matched by a destruction.
#ifndef KEST_TESTS_COUNTED_H
#define KEST_TESTS_COUNTED_H

namespace kest_test {

struct Counted {
  static inline long live = 0;
  int v;
  Counted(int value) : v(value) { ++live; }
  Counted(const Counted &other) : v(other.v) { ++live; }
  ~Counted() { --live; }
  bool operator==(const Counted &other) const { return v == other.v; }
};

} // namespace kest_test

#endif
