// A smart pointer over objects that count their own references (refcnt).
#ifndef KEST_FDT_INTRUSIVE_PTR_H
#define KEST_FDT_INTRUSIVE_PTR_H

#include <stddef.h>
#include <type_traits>

namespace oru::fdt {

// One pointer. Taking an object adds 1 to its count; dropping it subtracts 1,
// and the object deletes itself when the count reaches 0. T needs add_ref()
// and release(), as refcnt has them.
template <class T> class intrusive_ptr {
public:
  typedef T element_type;

  intrusive_ptr() : m_ptr(nullptr) {}
  intrusive_ptr(std::nullptr_t) : m_ptr(nullptr) {}
  intrusive_ptr(T *p) : m_ptr(p) { acquire(); }
  intrusive_ptr(const intrusive_ptr &other) : m_ptr(other.m_ptr) { acquire(); }
  intrusive_ptr(intrusive_ptr &&other) noexcept : m_ptr(other.m_ptr) { other.m_ptr = nullptr; }

  template <class U>
  requires std::is_convertible_v<U *, T *> intrusive_ptr(const intrusive_ptr<U> &other)
      : m_ptr(other.get()) {
    acquire();
  }

  template <class U>
  requires std::is_convertible_v<U *, T *> intrusive_ptr(intrusive_ptr<U> &&other)
  noexcept : m_ptr(other.detach()) {}

  ~intrusive_ptr() { drop(); }

  // Each assignment takes the new object before dropping the old one, so
  // assigning an object to the pointer that already holds it is safe.
  intrusive_ptr &operator=(const intrusive_ptr &other) {
    intrusive_ptr(other).swap(*this);
    return *this;
  }
  intrusive_ptr &operator=(intrusive_ptr &&other) {
    intrusive_ptr(static_cast<intrusive_ptr &&>(other)).swap(*this);
    return *this;
  }
  template <class U>
  requires std::is_convertible_v<U *, T *> intrusive_ptr &operator=(const intrusive_ptr<U> &other) {
    intrusive_ptr(other).swap(*this);
    return *this;
  }
  intrusive_ptr &operator=(T *p) {
    intrusive_ptr(p).swap(*this);
    return *this;
  }

  T *get() const { return m_ptr; }
  T &operator*() const { return *m_ptr; }
  T *operator->() const { return m_ptr; }
  explicit operator bool() const { return m_ptr != nullptr; }

  void reset() { intrusive_ptr().swap(*this); }
  void reset(T *p) { intrusive_ptr(p).swap(*this); }

  // Gives up the pointer without touching the count; the caller now owns
  // that reference.
  T *detach() {
    T *p = m_ptr;
    m_ptr = nullptr;
    return p;
  }

  void swap(intrusive_ptr &other) noexcept {
    T *p = m_ptr;
    m_ptr = other.m_ptr;
    other.m_ptr = p;
  }

private:
  void acquire() {
    if (m_ptr != nullptr) {
      m_ptr->add_ref();
    }
  }
  void drop() {
    if (m_ptr != nullptr) {
      m_ptr->release();
    }
  }

  T *m_ptr;
};

// Inequality and the reversed forms follow from these.
template <class T, class U> bool operator==(const intrusive_ptr<T> &a, const intrusive_ptr<U> &b) {
  return a.get() == b.get();
}
template <class T, class U> bool operator==(const intrusive_ptr<T> &a, U *b) {
  return a.get() == b;
}
template <class T> bool operator==(const intrusive_ptr<T> &a, std::nullptr_t) {
  return a.get() == nullptr;
}
// An order by address, so pointers can be keys.
template <class T, class U> bool operator<(const intrusive_ptr<T> &a, const intrusive_ptr<U> &b) {
  return a.get() < b.get();
}

template <class T, class U> intrusive_ptr<T> static_pointer_cast(const intrusive_ptr<U> &p) {
  return intrusive_ptr<T>(static_cast<T *>(p.get()));
}

} // namespace oru::fdt

#endif
