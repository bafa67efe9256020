// Ordered maps with unique keys: an avl_tree of pairs compared by key.
#ifndef KEST_FDT_MAP_H
#define KEST_FDT_MAP_H

#include <kest/Export.h>
#include <kest/fdt/Alloc.h>
#include <kest/fdt/avl_tree.h>
#include <kest/fdt/less.h>
#include <kest/fdt/pair.h>
#include <stddef.h>
#include <utility>

namespace oru {

namespace fdt {

template <class K, class V, class Compare = less<K>,
          class Alloc = local_container_alloc<pair<K, V>>>
class KEST_API map {
public:
  typedef K key_type;
  typedef V mapped_type;
  typedef pair<K, V> value_type;
  typedef Compare key_compare;

  // Applies Compare to the keys. Lookups may pass anything Compare takes next
  // to a K (a character pointer for a string key with Less_strcmp_forward,
  // say), so a search need not build a key.
  struct Map_Compare {
    bool operator()(const value_type &a, const value_type &b) const {
      return Compare()(a.first, b.first);
    }
    template <class Key> bool operator()(const value_type &a, const Key &b) const {
      return Compare()(a.first, b);
    }
    template <class Key> bool operator()(const Key &a, const value_type &b) const {
      return Compare()(a, b.first);
    }
  };

  typedef avl_tree<value_type, Map_Compare, Alloc> tree_type;
  typedef typename tree_type::node node;
  typedef typename tree_type::iterator iterator;
  typedef typename tree_type::const_iterator const_iterator;

  iterator begin() { return m_tree.begin(); }
  iterator end() { return m_tree.end(); }
  const_iterator begin() const { return m_tree.begin(); }
  const_iterator end() const { return m_tree.end(); }

  bool empty() const { return m_tree.empty(); }
  size_t size() const { return m_tree.size(); }

  // The element with this key, or end().
  template <class Key> iterator find(const Key &key) { return m_tree.find(key); }
  template <class Key> const_iterator find(const Key &key) const { return m_tree.find(key); }

  // The new element, or end() when the key is present already (the stored
  // value stays) or memory runs out. Find first to tell the two apart.
  iterator insert(const value_type &value) { return m_tree.emplace_key(value.first, value); }
  iterator insert(const K &key, const V &value) { return m_tree.emplace_key(key, key, value); }

  // Builds the value in place from `args` (default-constructed without any),
  // for values that cannot be copied. The new element, or end() when the key
  // is present already or memory runs out.
  template <class... Args> iterator try_emplace(const K &key, Args &&...args) {
    return m_tree.emplace_key(key, key, std::forward<Args>(args)...);
  }

  // The greatest element, or end(); prev() steps down from it.
  iterator last() { return m_tree.last(); }
  const_iterator last() const { return m_tree.last(); }
  static iterator prev(iterator pos) { return tree_type::prev(pos); }
  static const_iterator prev(const_iterator pos) { return tree_type::prev(pos); }
  // The first element whose key is not less than `key`, or end().
  template <class Key> iterator lower_bound(const Key &key) { return m_tree.lower_bound(key); }
  template <class Key> const_iterator lower_bound(const Key &key) const {
    return m_tree.lower_bound(key);
  }

  // The element with the greatest key not above `key`, or end().
  template <class Key> const_iterator at_or_before(const Key &key) const {
    return m_tree.at_or_before(key);
  }

  void erase(iterator pos) { m_tree.erase(pos); }

  // Whether there was an element with this key.
  bool erase(const K &key) {
    iterator it = m_tree.find(key);
    if (it == m_tree.end()) {
      return false;
    }
    m_tree.erase(it);
    return true;
  }

  void clear() { m_tree.clear(); }
  void swap(map &other) noexcept { m_tree.swap(other.m_tree); }

  tree_type &tree() { return m_tree; }
  const tree_type &tree() const { return m_tree; }

private:
  tree_type m_tree;
};

} // namespace fdt

// The map on the local heap, for data that stays with one thread.
template <class K, class V, class Less = fdt::less<K>>
class KEST_API Map : public fdt::map<K, V, Less, local_container_alloc<fdt::pair<K, V>>> {};

} // namespace oru

#endif
