// A circular doubly linked list whose sentinel lives inside the list object.
// Nodes are allocated one at a time and never move, so an iterator stays valid
// until its own element is erased. There is no stored count.
#ifndef KEST_FDT_LIST_H
#define KEST_FDT_LIST_H

#include <kest/Export.h>
#include <kest/fdt/Alloc.h>
#include <new>
#include <stddef.h>
#include <utility>

namespace oru {

namespace fdt {

// Layout fixed: next, then previous. This is the sentinel of every list and the
// head of every node.
struct list_link {
  list_link *m_next;
  list_link *m_prev;
};

// Layout fixed: next, previous, value.
template <class T> struct list_node : list_link {
  T m_value;

  template <class... Args>
  explicit list_node(Args &&...args) : m_value(std::forward<Args>(args)...) {}
};

} // namespace fdt

template <class T, class Alloc = local_container_alloc<T>> class KEST_API List {
public:
  typedef T value_type;
  typedef Alloc allocator_type;
  typedef fdt::list_link link_type;
  typedef fdt::list_node<T> node_type;

  class const_iterator;

  class iterator {
  public:
    iterator() : m_link(nullptr) {}
    explicit iterator(link_type *link) : m_link(link) {}

    T &operator*() const { return static_cast<node_type *>(m_link)->m_value; }
    T *operator->() const { return &static_cast<node_type *>(m_link)->m_value; }
    iterator &operator++() {
      m_link = m_link->m_next;
      return *this;
    }
    iterator operator++(int) {
      iterator old = *this;
      m_link = m_link->m_next;
      return old;
    }
    iterator &operator--() {
      m_link = m_link->m_prev;
      return *this;
    }
    iterator operator--(int) {
      iterator old = *this;
      m_link = m_link->m_prev;
      return old;
    }
    bool operator==(const iterator &other) const { return m_link == other.m_link; }
    bool operator!=(const iterator &other) const { return m_link != other.m_link; }

    // The node, or the list's sentinel at the end position.
    link_type *node() const { return m_link; }

  private:
    link_type *m_link;
  };

  class const_iterator {
  public:
    const_iterator() : m_link(nullptr) {}
    explicit const_iterator(const link_type *link) : m_link(link) {}
    const_iterator(const iterator &it) : m_link(it.node()) {}

    const T &operator*() const { return static_cast<const node_type *>(m_link)->m_value; }
    const T *operator->() const { return &static_cast<const node_type *>(m_link)->m_value; }
    const_iterator &operator++() {
      m_link = m_link->m_next;
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator old = *this;
      m_link = m_link->m_next;
      return old;
    }
    const_iterator &operator--() {
      m_link = m_link->m_prev;
      return *this;
    }
    const_iterator operator--(int) {
      const_iterator old = *this;
      m_link = m_link->m_prev;
      return old;
    }
    bool operator==(const const_iterator &other) const { return m_link == other.m_link; }
    bool operator!=(const const_iterator &other) const { return m_link != other.m_link; }

    const link_type *node() const { return m_link; }

  private:
    const link_type *m_link;
  };

  List() { m_head.m_next = m_head.m_prev = &m_head; }

  // Element by element; an element that cannot be allocated is left out, so
  // under memory exhaustion the copy comes out shorter.
  List(const List &other) : List() { append_all(other); }

  // Takes the nodes over; the source is left empty.
  List(List &&other) noexcept : List() { swap(other); }

  List &operator=(const List &other) {
    if (this != &other) {
      clear();
      append_all(other);
    }
    return *this;
  }

  List &operator=(List &&other) noexcept {
    if (this != &other) {
      clear();
      swap(other);
    }
    return *this;
  }

  ~List() { clear(); }

  iterator begin() { return iterator(m_head.m_next); }
  iterator end() { return iterator(&m_head); }
  const_iterator begin() const { return const_iterator(m_head.m_next); }
  const_iterator end() const { return const_iterator(&m_head); }
  const_iterator cbegin() const { return begin(); }
  const_iterator cend() const { return end(); }

  bool empty() const { return m_head.m_next == &m_head; }

  // Walks the list.
  size_t size() const {
    size_t n = 0;
    for (const link_type *l = m_head.m_next; l != &m_head; l = l->m_next) {
      ++n;
    }
    return n;
  }

  // Only on a non-empty list.
  T &front() { return static_cast<node_type *>(m_head.m_next)->m_value; }
  const T &front() const { return static_cast<const node_type *>(m_head.m_next)->m_value; }
  T &back() { return static_cast<node_type *>(m_head.m_prev)->m_value; }
  const T &back() const { return static_cast<const node_type *>(m_head.m_prev)->m_value; }

  // Each of the adding operations returns the new element, or end() when the
  // node cannot be allocated; the list is then unchanged.
  iterator push_back(const T &value) { return emplace(end(), value); }
  iterator push_front(const T &value) { return emplace(begin(), value); }
  iterator insert(const_iterator pos, const T &value) { return emplace(pos, value); }
  template <class... Args> iterator emplace_back(Args &&...args) {
    return emplace(end(), std::forward<Args>(args)...);
  }

  // Builds the element in a new node linked before `pos`.
  template <class... Args> iterator emplace(const_iterator pos, Args &&...args) {
    node_type *n = node_alloc::allocate(1);
    if (n == nullptr) {
      return end();
    }
    ::new (static_cast<void *>(n)) node_type(std::forward<Args>(args)...);
    link_type *next = const_cast<link_type *>(pos.node());
    link_type *prev = next->m_prev;
    n->m_next = next;
    n->m_prev = prev;
    prev->m_next = n;
    next->m_prev = n;
    return iterator(n);
  }

  // Unlinks and frees the element; returns the one behind it. Erasing end()
  // does nothing.
  iterator erase(const_iterator pos) {
    link_type *l = const_cast<link_type *>(pos.node());
    if (l == &m_head) {
      return end();
    }
    link_type *next = l->m_next;
    l->m_prev->m_next = next;
    next->m_prev = l->m_prev;
    destroy(static_cast<node_type *>(l));
    return iterator(next);
  }

  void pop_front() { erase(begin()); }
  void pop_back() { erase(iterator(m_head.m_prev)); }

  void clear() {
    link_type *l = m_head.m_next;
    while (l != &m_head) {
      link_type *next = l->m_next;
      destroy(static_cast<node_type *>(l));
      l = next;
    }
    m_head.m_next = m_head.m_prev = &m_head;
  }

  // Exchanges the elements of two lists of the same type; no node moves.
  void swap(List &other) noexcept {
    if (this == &other) {
      return;
    }
    const bool mine = !empty();
    const bool theirs = !other.empty();
    link_type saved = m_head;
    adopt(other.m_head, theirs);
    other.adopt(saved, mine);
  }

private:
  typedef typename Alloc::template rebind<node_type>::other node_alloc;

  static void destroy(node_type *n) {
    n->~node_type();
    node_alloc::deallocate(n, 1);
  }

  void append_all(const List &other) {
    for (const_iterator it = other.begin(); it != other.end(); ++it) {
      push_back(*it);
    }
  }

  // Makes this list's sentinel the head of the chain `from` pointed at.
  void adopt(const link_type &from, bool nonempty) {
    if (!nonempty) {
      m_head.m_next = m_head.m_prev = &m_head;
      return;
    }
    m_head = from;
    m_head.m_next->m_prev = &m_head;
    m_head.m_prev->m_next = &m_head;
  }

  link_type m_head;
};

} // namespace oru

#endif
