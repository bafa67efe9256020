// A byte string on one of the hook heaps.
//
// The string stores its own terminator: the stored bytes are the characters
// followed by a NUL. It has two empty states, and every reader must accept
// both: never stored (all three pointers null), and stored with nothing but
// the terminator. An empty string reads as a pointer to a static NUL byte,
// never as null.
//
// Nothing here fails loudly. append and reserve return false and leave the
// string as it was; a copy that runs out of memory comes out shorter (or, in
// the worst case, without its terminator) and says nothing, so callers that
// must know build with append.
#ifndef KEST_FDT_BASIC_STRING_H
#define KEST_FDT_BASIC_STRING_H

#include <kest.h>
#include <kest/Export.h>
#include <kest/fdt/Alloc.h>
#include <kest/fdt/PowerMask.h>
#include <stddef.h>
#include <stdint.h>

namespace oru::fdt {

template <class Alloc> class KEST_API basic_string {
public:
  using allocator_type = typename Alloc::template rebind<char>::other;
  using value_type = char;
  using size_type = size_t;
  using iterator = char *;
  using const_iterator = const char *;

  // The terminators that empty strings read as, one pair per allocator. The
  // writable one is handed out by the non-const accessors and may be written
  // with NUL; anything else written there breaks every empty string.
  static inline char s_writable_nul = '\0';
  static constexpr char s_readonly_nul = '\0';

  // Allocates nothing until the first byte is stored.
  basic_string() = default;

  // Takes kest_strlen of `s`; an empty or null `s` stores nothing.
  basic_string(const char *s) {
    if (s != nullptr) {
      append(s, kest_strlen(s));
    }
  }

  // Stores n bytes of `bytes`; embedded NULs are kept.
  basic_string(const char *bytes, size_t n) { append(bytes, n); }

  basic_string(const basic_string &other) { copy_from(other); }

  basic_string(basic_string &&other) noexcept
      : m_begin(other.m_begin), m_end(other.m_end), m_limit(other.m_limit) {
    other.m_begin = other.m_end = other.m_limit = nullptr;
  }

  ~basic_string() { clear(); }

  // Reuses the block when it is large enough, otherwise copies as the copy
  // constructor does.
  basic_string &operator=(const basic_string &other) {
    if (this == &other) {
      return *this;
    }
    const size_t stored = other.stored();
    if (stored != 0 && stored <= capacity()) {
      kest_memcpy(m_begin, other.m_begin, stored);
      m_end = m_begin + stored;
      return *this;
    }
    clear();
    copy_from(other);
    return *this;
  }

  basic_string &operator=(basic_string &&other) noexcept {
    if (this != &other) {
      clear();
      m_begin = other.m_begin;
      m_end = other.m_end;
      m_limit = other.m_limit;
      other.m_begin = other.m_end = other.m_limit = nullptr;
    }
    return *this;
  }

  void swap(basic_string &other) noexcept {
    char *begin = m_begin;
    char *end = m_end;
    char *limit = m_limit;
    m_begin = other.m_begin;
    m_end = other.m_end;
    m_limit = other.m_limit;
    other.m_begin = begin;
    other.m_end = end;
    other.m_limit = limit;
  }

  // Appends n bytes. False when the room cannot be had; the string is then
  // unchanged. `bytes` may point into this string.
  bool append(const char *bytes, size_t n) {
    if (n == 0) {
      return true;
    }
    const size_t stored = this->stored();
    const size_t length = size();
    if (n > SIZE_MAX - stored - 1) {
      return false;
    }
    const size_t total = stored == 0 ? n + 1 : stored + n;
    if (total > capacity()) {
      // Growing frees the old block; keep hold of a source inside it.
      const bool inside =
          m_begin != nullptr &&
          reinterpret_cast<uintptr_t>(bytes) >= reinterpret_cast<uintptr_t>(m_begin) &&
          reinterpret_cast<uintptr_t>(bytes) < reinterpret_cast<uintptr_t>(m_limit);
      const size_t offset = inside ? static_cast<size_t>(bytes - m_begin) : 0;
      if (!reallocate(room_target(capacity(), total))) {
        return false;
      }
      if (inside) {
        bytes = m_begin + offset;
      }
    }
    // Copy first, then terminate: a source inside this string is read before
    // its old terminator is overwritten.
    kest_memcpy(m_begin + length, bytes, n);
    m_end = m_begin + total;
    m_end[-1] = '\0';
    return true;
  }

  bool append(const char *s) { return s == nullptr || append(s, kest_strlen(s)); }
  bool append(const basic_string &other) { return append(other.c_str(), other.size()); }
  bool push_back(char c) { return append(&c, 1); }

  // Makes room for n stored bytes, terminator included: n rounded up to one
  // less than a power of two, or exactly n when n is a power of two. False if
  // the block cannot be had; the string is then unchanged.
  bool reserve(size_t n) {
    if (n == 0) {
      return true;
    }
    const size_t target = reserve_target(n);
    if (capacity() >= target) {
      return true;
    }
    return reallocate(target);
  }

  // Frees the block; the string is never-stored again.
  void clear() {
    if (m_begin != nullptr) {
      allocator_type::deallocate(m_begin, capacity());
    }
    m_begin = m_end = m_limit = nullptr;
  }

  const char *c_str() const { return size() == 0 ? &s_readonly_nul : m_begin; }
  const char *data() const { return c_str(); }
  char *data() { return size() == 0 ? &s_writable_nul : m_begin; }

  // Characters, without the terminator; 0 in both empty states.
  size_t size() const {
    const size_t stored = this->stored();
    return stored <= 1 ? 0 : stored - 1;
  }
  size_t length() const { return size(); }
  bool empty() const { return size() == 0; }
  // Bytes in the block, room for the terminator included.
  size_t capacity() const { return static_cast<size_t>(m_limit - m_begin); }

  char &operator[](size_t i) { return data()[i]; }
  const char &operator[](size_t i) const { return c_str()[i]; }

  iterator begin() { return data(); }
  iterator end() { return data() + size(); }
  const_iterator begin() const { return c_str(); }
  const_iterator end() const { return c_str() + size(); }

  // Orders by kest_strcmp of the characters: bytes after an embedded NUL do
  // not count, and neither does the length.
  template <class OtherAlloc> int compare(const basic_string<OtherAlloc> &other) const {
    return kest_strcmp(c_str(), other.c_str());
  }
  int compare(const char *s) const { return kest_strcmp(c_str(), s == nullptr ? "" : s); }

  friend bool operator==(const basic_string &a, const basic_string &b) { return a.compare(b) == 0; }
  friend bool operator!=(const basic_string &a, const basic_string &b) { return a.compare(b) != 0; }
  friend bool operator<(const basic_string &a, const basic_string &b) { return a.compare(b) < 0; }
  friend bool operator==(const basic_string &a, const char *b) { return a.compare(b) == 0; }

private:
  size_t stored() const { return static_cast<size_t>(m_end - m_begin); }

  // Moves the stored bytes into a block of exactly `target` bytes.
  bool reallocate(size_t target) {
    char *block = allocator_type::allocate(target);
    if (block == nullptr) {
      return false;
    }
    const size_t stored = this->stored();
    if (stored != 0) {
      kest_memcpy(block, m_begin, stored);
    }
    if (m_begin != nullptr) {
      allocator_type::deallocate(m_begin, capacity());
    }
    m_begin = block;
    m_end = block + stored;
    m_limit = block + target;
    return true;
  }

  // Stores one raw byte, growing one step of the ladder when full; the byte
  // is dropped if that fails.
  void push_byte(char c) {
    if (m_end == m_limit) {
      const size_t target = growth_step_target(capacity());
      if (target == 0 || !reallocate(target)) {
        return;
      }
    }
    *m_end++ = c;
  }

  // Copies the stored bytes of `other` into this never-stored string. When the
  // whole block cannot be had, the bytes go one at a time and those that find
  // no room are skipped.
  void copy_from(const basic_string &other) {
    const size_t stored = other.stored();
    if (stored == 0) {
      return;
    }
    if (reserve(stored)) {
      kest_memcpy(m_begin, other.m_begin, stored);
      m_end = m_begin + stored;
      return;
    }
    for (const char *p = other.m_begin; p != other.m_end; ++p) {
      push_byte(*p);
    }
  }

  // Layout fixed: plug-ins compile against it.
  char *m_begin = nullptr; // first byte of the block, or null
  char *m_end = nullptr;   // one past the last stored byte (the terminator)
  char *m_limit = nullptr; // one past the block
};

using string = basic_string<local_container_alloc<char>>;
using shared_string = basic_string<shared_container_alloc<char>>;

static_assert(sizeof(string) == 3 * sizeof(char *), "a string is three pointers");

} // namespace oru::fdt

#endif
