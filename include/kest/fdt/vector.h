// A growable array on one of the hook heaps.
//
// Elements move only by copy construction followed by destruction of the
// source, one at a time, so a vector of strings or lists makes deep copies
// when it grows or shrinks, and such a copy may come out short when memory
// runs out. Plain words (trivially copyable elements) move with kest_memcpy.
//
// Growth follows the ladder 16, 31, 63, 127, ...; shrinking by resize gives
// memory back one element at a time down the powers of two. Operations that
// need memory report failure by their result and leave the vector as it was.
#ifndef KEST_FDT_VECTOR_H
#define KEST_FDT_VECTOR_H

#include <kest.h>
#include <kest/Export.h>
#include <kest/fdt/Alloc.h>
#include <kest/fdt/PowerMask.h>
#include <new>
#include <stddef.h>
#include <stdint.h>
#include <type_traits>

namespace oru::fdt {

template <class T, class Alloc = local_container_alloc<T>> class KEST_API vector {
public:
  using allocator_type = typename Alloc::template rebind<T>::other;
  using value_type = T;
  using size_type = size_t;
  using iterator = T *;
  using const_iterator = const T *;

  // Allocates nothing until the first element is stored.
  vector() = default;

  // Copies the elements; those that find no room are left out.
  vector(const vector &other) { copy_from(other); }

  vector(vector &&other) noexcept
      : m_begin(other.m_begin), m_end(other.m_end), m_limit(other.m_limit) {
    other.m_begin = other.m_end = other.m_limit = nullptr;
  }

  ~vector() { clear(); }

  // Keeps the block and copies into it as the copy constructor does.
  vector &operator=(const vector &other) {
    if (this != &other) {
      destroy_all();
      copy_from(other);
    }
    return *this;
  }

  vector &operator=(vector &&other) noexcept {
    if (this != &other) {
      clear();
      m_begin = other.m_begin;
      m_end = other.m_end;
      m_limit = other.m_limit;
      other.m_begin = other.m_end = other.m_limit = nullptr;
    }
    return *this;
  }

  void swap(vector &other) noexcept {
    T *begin = m_begin;
    T *end = m_end;
    T *limit = m_limit;
    m_begin = other.m_begin;
    m_end = other.m_end;
    m_limit = other.m_limit;
    other.m_begin = begin;
    other.m_end = end;
    other.m_limit = limit;
  }

  // Appends a copy of `value`, which may be an element of this vector. False
  // if the block is full and a larger one cannot be had.
  bool push_back(const T &value) {
    if (m_end != m_limit) {
      ::new (static_cast<void *>(m_end)) T(value);
      ++m_end;
      return true;
    }
    return grow_insert(size(), value) != nullptr;
  }

  // Inserts a copy of `value` before `pos`; the result is the new element, or
  // end() if there was no room. `value` may be an element of this vector.
  iterator insert(iterator pos, const T &value) {
    const size_t index = static_cast<size_t>(pos - m_begin);
    if (m_end == m_limit) {
      T *placed = grow_insert(index, value);
      return placed != nullptr ? placed : m_end;
    }
    if (pos == m_end) {
      ::new (static_cast<void *>(m_end)) T(value);
      return m_end++;
    }
    // Shifting moves an aliased `value` one place up with its neighbours.
    const T *source = &value;
    if (reinterpret_cast<uintptr_t>(source) >= reinterpret_cast<uintptr_t>(pos) &&
        reinterpret_cast<uintptr_t>(source) < reinterpret_cast<uintptr_t>(m_end)) {
      ++source;
    }
    ::new (static_cast<void *>(m_end)) T(m_end[-1]);
    for (T *p = m_end - 1; p != pos; --p) {
      p->~T();
      ::new (static_cast<void *>(p)) T(p[-1]);
    }
    ++m_end;
    pos->~T();
    ::new (static_cast<void *>(pos)) T(*source);
    return pos;
  }

  // Removes the element at `pos`; the result is the element that took its
  // place, or end(). The block is kept.
  iterator erase(iterator pos) {
    if (pos == m_end) {
      return m_end;
    }
    for (T *p = pos; p + 1 != m_end; ++p) {
      p->~T();
      ::new (static_cast<void *>(p)) T(p[1]);
    }
    --m_end;
    m_end->~T();
    return pos;
  }

  // Removes the last element; the block is kept.
  void pop_back() {
    --m_end;
    m_end->~T();
  }

  // Makes room for n elements: n rounded up to one less than a power of two,
  // or exactly n when n is a power of two. False if the block cannot be had;
  // the vector is then unchanged.
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

  // Growing appends value-initialised elements and fails as a whole, leaving
  // the vector unchanged. Shrinking removes the last element one at a time and
  // after each removal moves to a block of the power of two at or above the
  // new size when that is smaller; a failed move keeps the old block.
  bool resize(size_t n) {
    const size_t old_size = size();
    if (n > old_size) {
      if (n > capacity() && !reallocate(room_target(capacity(), n))) {
        return false;
      }
      T *const last = m_begin + n;
      while (m_end != last) {
        ::new (static_cast<void *>(m_end)) T();
        ++m_end;
      }
      return true;
    }
    while (size() > n) {
      remove_last_and_shrink();
    }
    return true;
  }

  // Destroys the elements and frees the block.
  void clear() {
    destroy_all();
    if (m_begin != nullptr) {
      allocator_type::deallocate(m_begin, capacity());
    }
    m_begin = m_end = m_limit = nullptr;
  }

  iterator begin() { return m_begin; }
  iterator end() { return m_end; }
  const_iterator begin() const { return m_begin; }
  const_iterator end() const { return m_end; }

  size_t size() const { return static_cast<size_t>(m_end - m_begin); }
  size_t capacity() const { return static_cast<size_t>(m_limit - m_begin); }
  bool empty() const { return m_end == m_begin; }

  T &operator[](size_t i) { return m_begin[i]; }
  const T &operator[](size_t i) const { return m_begin[i]; }
  T &front() { return *m_begin; }
  const T &front() const { return *m_begin; }
  T &back() { return m_end[-1]; }
  const T &back() const { return m_end[-1]; }
  T *data() { return m_begin; }
  const T *data() const { return m_begin; }

private:
  static constexpr bool kPlainWords = std::is_trivially_copyable_v<T>;

  // Moves [first, last) to the uninitialised `dest`.
  static void relocate(T *first, T *last, T *dest) {
    if constexpr (kPlainWords) {
      if (first != last) {
        kest_memcpy(dest, first, static_cast<size_t>(last - first) * sizeof(T));
      }
    } else {
      for (; first != last; ++first, ++dest) {
        ::new (static_cast<void *>(dest)) T(*first);
        first->~T();
      }
    }
  }

  // Moves the elements into a block of exactly `target` elements.
  bool reallocate(size_t target) {
    T *block = allocator_type::allocate(target);
    if (block == nullptr) {
      return false;
    }
    const size_t count = size();
    relocate(m_begin, m_end, block);
    if (m_begin != nullptr) {
      allocator_type::deallocate(m_begin, capacity());
    }
    m_begin = block;
    m_end = block + count;
    m_limit = block + target;
    return true;
  }

  // The full-block case of push_back and insert: one step up the ladder, with
  // `value` copied into the new block before the old one goes, since it may
  // live there. Null when the block cannot be had.
  T *grow_insert(size_t index, const T &value) {
    const size_t target = growth_step_target(capacity());
    if (target == 0) {
      return nullptr;
    }
    T *block = allocator_type::allocate(target);
    if (block == nullptr) {
      return nullptr;
    }
    const size_t count = size();
    ::new (static_cast<void *>(block + index)) T(value);
    relocate(m_begin, m_begin + index, block);
    relocate(m_begin + index, m_end, block + index + 1);
    if (m_begin != nullptr) {
      allocator_type::deallocate(m_begin, capacity());
    }
    m_begin = block;
    m_end = block + count + 1;
    m_limit = block + target;
    return block + index;
  }

  // One step of shrinking: drop the last element, then move down to the power
  // of two at or above the new size if that is below the capacity. An empty
  // vector frees its block.
  void remove_last_and_shrink() {
    pop_back();
    const size_t count = size();
    if (count > UINT32_MAX) {
      return;
    }
    const uint32_t target = shrink_target(static_cast<uint32_t>(count));
    if (target == 0) {
      allocator_type::deallocate(m_begin, capacity());
      m_begin = m_end = m_limit = nullptr;
    } else if (target < capacity()) {
      reallocate(target);
    }
  }

  void destroy_all() {
    if constexpr (!std::is_trivially_destructible_v<T>) {
      for (T *p = m_begin; p != m_end; ++p) {
        p->~T();
      }
    }
    m_end = m_begin;
  }

  void copy_from(const vector &other) {
    reserve(other.size());
    for (const T *p = other.m_begin; p != other.m_end; ++p) {
      push_back(*p);
    }
  }

  // Layout fixed: plug-ins compile against it.
  T *m_begin = nullptr; // first element, or null
  T *m_end = nullptr;   // one past the last element
  T *m_limit = nullptr; // one past the block
};

} // namespace oru::fdt

#endif
