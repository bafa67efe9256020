// A height-balanced binary search tree with unique keys. Nodes never move: a
// node pointer (which is what an iterator is) stays valid until that node is
// erased. Inserts rebalance; erase only unlinks, so heights may go stale after
// an erase and balance is restored by later inserts along the same paths.
#ifndef KEST_FDT_AVL_TREE_H
#define KEST_FDT_AVL_TREE_H

#include <kest/Export.h>
#include <kest/fdt/Alloc.h>
#include <new>
#include <stddef.h>
#include <stdint.h>
#include <utility>

namespace oru::fdt {

// Layout fixed: left, right, parent, height, value.
template <class T> struct avl_node {
  avl_node *m_left;
  avl_node *m_right;
  avl_node *m_parent; // null at the root
  int32_t m_height;   // 0 for a leaf; a missing child counts as -1
  T m_value;

  template <class... Args>
  explicit avl_node(Args &&...args)
      : m_left(nullptr), m_right(nullptr), m_parent(nullptr), m_height(0),
        m_value(std::forward<Args>(args)...) {}
};

// The next node in key order, or null after the last: the leftmost node of
// the right subtree, or else the first ancestor reached from its left side.
template <class N> N *avl_successor(N *n) {
  if (n->m_right != nullptr) {
    n = n->m_right;
    while (n->m_left != nullptr) {
      n = n->m_left;
    }
    return n;
  }
  N *p = n->m_parent;
  while (p != nullptr && n == p->m_right) {
    n = p;
    p = p->m_parent;
  }
  return p;
}

// The previous node in key order, or null before the first: the mirror of
// avl_successor.
template <class N> N *avl_predecessor(N *n) {
  if (n->m_left != nullptr) {
    n = n->m_left;
    while (n->m_right != nullptr) {
      n = n->m_right;
    }
    return n;
  }
  N *p = n->m_parent;
  while (p != nullptr && n == p->m_left) {
    n = p;
    p = p->m_parent;
  }
  return p;
}

template <class N> N *avl_rightmost(N *n) {
  if (n != nullptr) {
    while (n->m_right != nullptr) {
      n = n->m_right;
    }
  }
  return n;
}

template <class N> N *avl_leftmost(N *n) {
  if (n != nullptr) {
    while (n->m_left != nullptr) {
      n = n->m_left;
    }
  }
  return n;
}

// Compare must be stateless; it is built where it is used, so the tree stays
// one pointer. For lookups by something other than T, Compare needs the mixed
// overloads (key, T) and (T, key).
template <class T, class Compare, class Alloc> class KEST_API avl_tree {
public:
  typedef T value_type;
  typedef Compare value_compare;
  typedef Alloc allocator_type;
  typedef avl_node<T> node;

  class iterator {
  public:
    iterator() : m_node(nullptr) {}
    explicit iterator(avl_node<T> *n) : m_node(n) {}

    T &operator*() const { return m_node->m_value; }
    T *operator->() const { return &m_node->m_value; }
    iterator &operator++() {
      m_node = avl_successor(m_node);
      return *this;
    }
    iterator operator++(int) {
      iterator old = *this;
      m_node = avl_successor(m_node);
      return old;
    }
    bool operator==(const iterator &other) const { return m_node == other.m_node; }
    bool operator!=(const iterator &other) const { return m_node != other.m_node; }

    // Null at the end.
    avl_node<T> *node() const { return m_node; }

  private:
    avl_node<T> *m_node;
  };

  class const_iterator {
  public:
    const_iterator() : m_node(nullptr) {}
    explicit const_iterator(const avl_node<T> *n) : m_node(n) {}
    const_iterator(const iterator &it) : m_node(it.node()) {}

    const T &operator*() const { return m_node->m_value; }
    const T *operator->() const { return &m_node->m_value; }
    const_iterator &operator++() {
      m_node = avl_successor(m_node);
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator old = *this;
      m_node = avl_successor(m_node);
      return old;
    }
    bool operator==(const const_iterator &other) const { return m_node == other.m_node; }
    bool operator!=(const const_iterator &other) const { return m_node != other.m_node; }

    const avl_node<T> *node() const { return m_node; }

  private:
    const avl_node<T> *m_node;
  };

  avl_tree() : m_root(nullptr) {}

  // Element by element; an element that cannot be allocated is left out.
  avl_tree(const avl_tree &other) : m_root(nullptr) { insert_all(other); }

  avl_tree(avl_tree &&other) noexcept : m_root(other.m_root) { other.m_root = nullptr; }

  avl_tree &operator=(const avl_tree &other) {
    if (this != &other) {
      clear();
      insert_all(other);
    }
    return *this;
  }

  avl_tree &operator=(avl_tree &&other) noexcept {
    if (this != &other) {
      clear();
      m_root = other.m_root;
      other.m_root = nullptr;
    }
    return *this;
  }

  ~avl_tree() { clear(); }

  iterator begin() { return iterator(avl_leftmost(m_root)); }
  iterator end() { return iterator(); }
  const_iterator begin() const { return const_iterator(avl_leftmost(m_root)); }
  const_iterator end() const { return const_iterator(); }

  // The greatest element, or end() for an empty tree. Walk down from it with
  // prev(); prev() of the first element is end().
  iterator last() { return iterator(avl_rightmost(m_root)); }
  const_iterator last() const { return const_iterator(avl_rightmost(m_root)); }
  static iterator prev(iterator pos) { return iterator(avl_predecessor(pos.node())); }
  static const_iterator prev(const_iterator pos) {
    return const_iterator(avl_predecessor(pos.node()));
  }

  // The first element that does not compare less than `key`, or end().
  template <class Key> iterator lower_bound(const Key &key) {
    return iterator(const_cast<node *>(bound(key)));
  }
  template <class Key> const_iterator lower_bound(const Key &key) const {
    return const_iterator(bound(key));
  }

  // The last element that `key` does not compare less than (the greatest at
  // or before it), or end(): one walk down, where prev(upper bound) takes two.
  template <class Key> const_iterator at_or_before(const Key &key) const {
    const Compare less;
    const node *found = nullptr;
    for (const node *n = m_root; n != nullptr;) {
      if (less(key, n->m_value)) {
        n = n->m_left;
      } else {
        found = n;
        n = n->m_right;
      }
    }
    return const_iterator(found);
  }

  bool empty() const { return m_root == nullptr; }

  // Walks the tree.
  size_t size() const {
    size_t n = 0;
    for (const_iterator it = begin(); it != end(); ++it) {
      ++n;
    }
    return n;
  }

  node *root() { return m_root; }
  const node *root() const { return m_root; }

  // The node whose value compares equal to `key`, or end().
  template <class Key> iterator find(const Key &key) { return iterator(lookup(key)); }
  template <class Key> const_iterator find(const Key &key) const {
    return const_iterator(lookup(key));
  }

  // The new node, or end() if an equal value is already stored (which is kept
  // as it is) or the node cannot be allocated. A caller that must tell the two
  // apart looks the value up first.
  iterator insert(const T &value) { return emplace_key(value, value); }

  // As insert, but compares by `key` and builds the value from `args` only in
  // the new node, so nothing is copied when the key is already present.
  template <class Key, class... Args> iterator emplace_key(const Key &key, Args &&...args) {
    node **link = &m_root;
    node *parent = nullptr;
    const Compare less;
    while (*link != nullptr) {
      parent = *link;
      if (less(key, parent->m_value)) {
        link = &parent->m_left;
      } else if (less(parent->m_value, key)) {
        link = &parent->m_right;
      } else {
        return end();
      }
    }
    node *n = node_alloc::allocate(1);
    if (n == nullptr) {
      return end();
    }
    ::new (static_cast<void *>(n)) node(std::forward<Args>(args)...);
    n->m_parent = parent;
    *link = n;
    // Back up the path to the root: every level takes its height from its
    // children and rotates when one side is two or more taller.
    for (node *level = parent; level != nullptr; level = level->m_parent) {
      level = rebalance(level);
    }
    return iterator(n);
  }

  // Unlinks the node without rebalancing, then destroys its value and frees
  // it. A node with two children is replaced by its in-order successor, which
  // takes over the erased node's place and height. Erasing end() does nothing.
  void erase(iterator pos) {
    node *n = pos.node();
    if (n == nullptr) {
      return;
    }
    unlink(n);
    n->~node();
    node_alloc::deallocate(n, 1);
  }

  // Erases the root again and again.
  void clear() {
    while (m_root != nullptr) {
      erase(iterator(m_root));
    }
  }

  void swap(avl_tree &other) noexcept {
    node *root = m_root;
    m_root = other.m_root;
    other.m_root = root;
  }

private:
  typedef typename Alloc::template rebind<node>::other node_alloc;

  static int32_t height(const node *n) { return n != nullptr ? n->m_height : -1; }

  static void update_height(node *n) {
    const int32_t l = height(n->m_left);
    const int32_t r = height(n->m_right);
    n->m_height = (l > r ? l : r) + 1;
  }

  template <class Key> node *lookup(const Key &key) const {
    const Compare less;
    node *n = m_root;
    while (n != nullptr) {
      if (less(key, n->m_value)) {
        n = n->m_left;
      } else if (less(n->m_value, key)) {
        n = n->m_right;
      } else {
        return n;
      }
    }
    return nullptr;
  }

  template <class Key> const node *bound(const Key &key) const {
    const Compare less;
    const node *found = nullptr;
    for (const node *n = m_root; n != nullptr;) {
      if (less(n->m_value, key)) {
        n = n->m_right;
      } else {
        found = n;
        n = n->m_left;
      }
    }
    return found;
  }

  void insert_all(const avl_tree &other) {
    for (const_iterator it = other.begin(); it != other.end(); ++it) {
      insert(*it);
    }
  }

  // The link that holds `n`: its parent's child pointer, or the root.
  node *&link_of(node *n) {
    node *p = n->m_parent;
    if (p == nullptr) {
      return m_root;
    }
    return p->m_left == n ? p->m_left : p->m_right;
  }

  // Recomputes the height of `n` and rotates if it is out of balance. Returns
  // the node now at n's place.
  node *rebalance(node *n) {
    update_height(n);
    const int32_t diff = height(n->m_left) - height(n->m_right);
    if (diff >= 2) {
      node *heavy = n->m_left;
      if (height(heavy->m_right) > height(heavy->m_left)) {
        rotate_left(heavy);
      }
      return rotate_right(n);
    }
    if (diff <= -2) {
      node *heavy = n->m_right;
      if (height(heavy->m_left) > height(heavy->m_right)) {
        rotate_right(heavy);
      }
      return rotate_left(n);
    }
    return n;
  }

  // n's left child takes n's place; n becomes its right child.
  node *rotate_right(node *n) {
    node *l = n->m_left;
    node *&link = link_of(n);
    n->m_left = l->m_right;
    if (l->m_right != nullptr) {
      l->m_right->m_parent = n;
    }
    l->m_parent = n->m_parent;
    l->m_right = n;
    n->m_parent = l;
    link = l;
    update_height(n);
    update_height(l);
    return l;
  }

  // n's right child takes n's place; n becomes its left child.
  node *rotate_left(node *n) {
    node *r = n->m_right;
    node *&link = link_of(n);
    n->m_right = r->m_left;
    if (r->m_left != nullptr) {
      r->m_left->m_parent = n;
    }
    r->m_parent = n->m_parent;
    r->m_left = n;
    n->m_parent = r;
    link = r;
    update_height(n);
    update_height(r);
    return r;
  }

  void unlink(node *n) {
    node *&link = link_of(n);
    if (n->m_left == nullptr || n->m_right == nullptr) {
      node *child = n->m_left != nullptr ? n->m_left : n->m_right;
      if (child != nullptr) {
        child->m_parent = n->m_parent;
      }
      link = child;
      return;
    }
    node *s = avl_leftmost(n->m_right);
    if (s != n->m_right) {
      // Lift the successor out of its place; it has no left child.
      node *sp = s->m_parent;
      sp->m_left = s->m_right;
      if (s->m_right != nullptr) {
        s->m_right->m_parent = sp;
      }
      s->m_right = n->m_right;
      s->m_right->m_parent = s;
    }
    s->m_left = n->m_left;
    s->m_left->m_parent = s;
    s->m_parent = n->m_parent;
    s->m_height = n->m_height;
    link = s;
  }

  node *m_root;
};

} // namespace oru::fdt

#endif
