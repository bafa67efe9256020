// Two values side by side: the element of a map.
#ifndef KEST_FDT_PAIR_H
#define KEST_FDT_PAIR_H

namespace oru::fdt {

// Layout fixed: first, then second.
template <class A, class B> struct pair {
  typedef A first_type;
  typedef B second_type;

  A first;
  B second;

  pair() : first(), second() {}
  pair(const A &a, const B &b) : first(a), second(b) {}
  // The second value built in place from `args`, for values that cannot be
  // copied (map::try_emplace).
  template <class... Args>
  explicit pair(const A &a, Args &&...args) : first(a), second(static_cast<Args &&>(args)...) {}
  template <class U, class V>
  pair(const pair<U, V> &other) : first(other.first), second(other.second) {}
};

template <class A, class B> pair<A, B> make_pair(const A &a, const B &b) {
  return pair<A, B>(a, b);
}

template <class A, class B> bool operator==(const pair<A, B> &a, const pair<A, B> &b) {
  return a.first == b.first && a.second == b.second;
}

} // namespace oru::fdt

#endif
