// The hash container of the rule stores: integer or pointer keys, chains of
// list nodes, and bucket counts from a fixed ladder of primes.
//
// Every element lives once in `entries`, which is also the iteration order:
// new elements go to the tail and a touched element moves there, so the head
// is always the element that was least recently inserted or touched, which is
// what expiry picks. The buckets only hold pointers to those entry nodes.
//
// Growing a large table must not stall one packet, so a rehash moves the chain
// nodes a quota at a time: while it runs, the old bucket vector (active) is
// searched first and the new one (alternate) second, and each touch moves the
// next quota of nodes across.
#ifndef KEST_FDT_HASH_TABLE_H
#define KEST_FDT_HASH_TABLE_H

#include <kest/Export.h>
#include <kest/fdt/Alloc.h>
#include <kest/fdt/List.h>
#include <kest/fdt/pair.h>
#include <kest/fdt/vector.h>
#include <stddef.h>
#include <stdint.h>
#include <type_traits>

namespace oru::fdt {

// The bucket counts a hash_table can have, ascending. Beyond the last one a
// table only gets longer chains.
inline constexpr uint32_t hash_table_primes[91] = {
    2,     3,     5,     7,     11,    13,    17,    19,    23,    29,    31,    37,    41,
    47,    53,    59,    67,    73,    83,    97,    107,   127,   139,   157,   173,   191,
    211,   233,   257,   283,   311,   347,   383,   421,   463,   509,   563,   619,   683,
    751,   827,   911,   1009,  1109,  1223,  1361,  1499,  1657,  1823,  2011,  2213,  2437,
    2683,  2953,  3251,  3581,  3943,  4337,  4783,  5261,  5791,  6373,  7013,  7717,  8501,
    9371,  10313, 11351, 12487, 13751, 15131, 16649, 18313, 20147, 22171, 24391, 26833, 29527,
    32479, 35729, 39301, 43237, 47563, 52321, 57557, 63313, 69653, 76631, 84299, 92737, 102013};

inline constexpr size_t hash_table_prime_count = sizeof(hash_table_primes) / sizeof(uint32_t);

// The first prime of the ladder that is not less than `wanted`, by binary
// search over all but the last; when none of those is large enough, the last.
inline uint32_t hash_table_prime_at_least(float wanted) {
  size_t low = 0;
  size_t high = hash_table_prime_count - 1;
  while (low < high) {
    const size_t mid = low + (high - low) / 2;
    if (static_cast<float>(hash_table_primes[mid]) < wanted) {
      low = mid + 1;
    } else {
      high = mid;
    }
  }
  return hash_table_primes[low];
}

// Keys are 32-bit integers or pointers taken as integers; this is the number
// that is reduced modulo the bucket count.
template <class K> inline uintptr_t hash_table_key_number(const K &key) {
  static_assert(std::is_integral_v<K> || std::is_pointer_v<K>,
                "hash_table keys are integers or pointers");
  if constexpr (std::is_pointer_v<K>) {
    return reinterpret_cast<uintptr_t>(key);
  } else {
    return static_cast<uintptr_t>(key);
  }
}

template <class K, class V> class KEST_API hash_table {
public:
  typedef K key_type;
  typedef V mapped_type;
  typedef pair<K, V> value_type;
  typedef List<value_type> entry_list;
  typedef typename entry_list::iterator iterator;
  typedef typename entry_list::const_iterator const_iterator;
  typedef list_node<value_type> entry_node;
  // A bucket: list nodes that point at entry nodes.
  typedef List<entry_node *> chain;
  typedef vector<chain> bucket_vector;

  // Allocates nothing; the first insert makes the first buckets.
  hash_table() : m_active(&m_buckets[0]), m_alternate(&m_buckets[1]) {}

  // The bucket pointers point into the object itself and the chains point at
  // its entry nodes: a table stays where it was made.
  hash_table(const hash_table &) = delete;
  hash_table &operator=(const hash_table &) = delete;

  // The buckets go first (they only point at entries), then the entries.
  ~hash_table() = default;

  iterator begin() { return m_entries.begin(); }
  iterator end() { return m_entries.end(); }
  const_iterator begin() const { return m_entries.begin(); }
  const_iterator end() const { return m_entries.end(); }

  uint32_t size() const { return m_count; }
  bool empty() const { return m_count == 0; }

  // Buckets searched first; during a rehash, the old ones.
  uint32_t bucket_count() const { return static_cast<uint32_t>(m_active->size()); }
  const bucket_vector &active_buckets() const { return *m_active; }
  const bucket_vector &alternate_buckets() const { return *m_alternate; }

  float max_load() const { return m_max_load; }
  uint32_t next_resize() const { return m_next_resize; }
  uint32_t next_shrink() const { return m_next_shrink; }
  bool auto_resize() const { return m_auto_resize != 0; }
  bool migrating() const { return m_migrating != 0; }
  uint32_t migrate_quota() const { return m_migrate_quota; }
  uint32_t new_buckets() const { return m_new_buckets; }
  uint32_t cursor() const { return m_cursor; }

  // With auto_resize off the owner fixes the bucket count through rehash, and
  // the table then refuses elements beyond max_load of it.
  void set_auto_resize(bool on) { m_auto_resize = on ? 1 : 0; }

  // The growth and shrink policy. `change` greater than 0 asks about growing
  // by that many elements, 0 or less about shrinking to element_count +
  // change. first: whether the bucket count should change; second: the new
  // count. Updates next_resize and next_shrink.
  pair<bool, uint32_t> need_rehash(uint32_t bucket_count, uint32_t element_count, int32_t change) {
    const float buckets = static_cast<float>(bucket_count);
    if (change > 0) {
      const uint64_t wanted = static_cast<uint64_t>(element_count) + static_cast<uint64_t>(change);
      if (wanted < m_next_resize) {
        return pair<bool, uint32_t>(false, 0);
      }
      const float min = static_cast<float>(wanted) / m_max_load;
      if (!(min > buckets)) {
        thresholds(truncate(buckets * m_max_load));
        return pair<bool, uint32_t>(false, 0);
      }
      const float grown = 1.5f * buckets;
      const uint32_t prime = hash_table_prime_at_least(min > grown ? min : grown);
      thresholds(truncate(static_cast<float>(prime) * m_max_load));
      return pair<bool, uint32_t>(true, prime);
    }
    const int64_t remaining = static_cast<int64_t>(element_count) + change;
    if (remaining >= static_cast<int64_t>(m_next_shrink)) {
      return pair<bool, uint32_t>(false, 0);
    }
    const uint32_t prime = hash_table_prime_at_least(1.5f * static_cast<float>(m_next_shrink));
    if (remaining == 1) {
      return pair<bool, uint32_t>(false, 0);
    }
    if (remaining == 0) {
      m_next_resize = 0;
      m_next_shrink = 0;
      return pair<bool, uint32_t>(true, 0);
    }
    // The thresholds stay those of the present size until the rehash is done.
    thresholds(truncate(buckets * m_max_load));
    return pair<bool, uint32_t>(true, prime);
  }

  // Starts moving the elements into n buckets and makes the first step. Does
  // nothing while a rehash runs or when there are n buckets already. n of 0
  // drops every element and the buckets. False when the new bucket vector
  // cannot be had; the table is then unchanged.
  bool rehash(uint32_t n) {
    if (m_migrating != 0 || m_active->size() == n) {
      return true;
    }
    if (n == 0) {
      m_active->clear();
      m_entries.clear();
      m_count = 0;
      return true;
    }
    // Made empty and at its final size, so that no chain is ever relocated.
    m_alternate->clear();
    if (!m_alternate->reserve(n) || !m_alternate->resize(n)) {
      m_alternate->clear();
      return false;
    }
    m_migrating = 1;
    m_new_buckets = n;
    m_cursor = 0;
    migrate_step();
    return true;
  }

  // Adds key with value; an equal key is not replaced. The new element, or
  // end() when the table refuses it or memory runs out (the table is then
  // unchanged).
  iterator insert(const K &key, const V &value) {
    if (static_cast<uint64_t>(m_count) + 1 >= m_next_resize) {
      const pair<bool, uint32_t> policy = need_rehash(bucket_count(), m_count, 1);
      if (policy.first && m_auto_resize != 0 && m_migrating == 0) {
        // On failure the old buckets take the element.
        rehash(policy.second);
      }
    }
    bucket_vector &target = m_migrating != 0 ? *m_alternate : *m_active;
    const uint32_t limit = truncate(static_cast<float>(target.size()) * m_max_load);
    if (limit == 0 || (m_auto_resize == 0 && m_count >= limit)) {
      return end();
    }
    if (locate(key, nullptr) != nullptr) {
      return end();
    }
    iterator entry = m_entries.emplace_back(key, value);
    if (entry == m_entries.end()) {
      return end();
    }
    chain &bucket = target[hash_table_key_number(key) % target.size()];
    if (bucket.push_back(static_cast<entry_node *>(entry.node())) == bucket.end()) {
      m_entries.erase(entry);
      return end();
    }
    ++m_count;
    return entry;
  }

  // The element with `key`, or end(). Changes nothing.
  iterator find(const K &key) {
    list_link *link = locate(key, nullptr);
    return link == nullptr ? end() : iterator(entry_of(link));
  }
  const_iterator find(const K &key) const {
    list_link *link = const_cast<hash_table *>(this)->locate(key, nullptr);
    return link == nullptr ? end() : const_iterator(entry_of(link));
  }

  // The look-up of a hit: advances a running rehash by one step, then finds
  // the element, moves it to the front of its chain and to the tail of the
  // entries, the most recently touched place.
  iterator touch(const K &key) {
    if (m_migrating != 0) {
      migrate_step();
    }
    chain *bucket = nullptr;
    list_link *link = locate(key, &bucket);
    if (link == nullptr) {
      return end();
    }
    list_link *first = bucket->begin().node();
    if (link != first) {
      unlink(link);
      link_before(link, first);
    }
    entry_node *entry = entry_of(link);
    unlink(entry);
    link_before(entry, m_entries.end().node());
    return iterator(entry);
  }

  // Removes the element; the table may then shrink. Erasing end() does
  // nothing.
  void erase(iterator pos) {
    if (pos == end()) {
      return;
    }
    entry_node *entry = static_cast<entry_node *>(pos.node());
    const pair<bool, uint32_t> policy = need_rehash(bucket_count(), m_count, -1);
    bool in_active = true;
    chain *bucket = nullptr;
    list_link *link = chain_link_of(*m_active, entry, &bucket);
    if (link == nullptr && m_migrating != 0) {
      link = chain_link_of(*m_alternate, entry, &bucket);
      in_active = false;
    }
    if (link != nullptr) {
      bucket->erase(typename chain::const_iterator(link));
    }
    m_entries.erase(pos);
    --m_count;
    if (policy.first && in_active && m_auto_resize != 0 && m_migrating == 0) {
      rehash(policy.second);
    }
  }

private:
  // float to an unsigned count, cut towards zero.
  static uint32_t truncate(float x) {
    if (!(x > 0.0f)) {
      return 0;
    }
    if (x >= 4294967296.0f) {
      return UINT32_MAX;
    }
    return static_cast<uint32_t>(x);
  }

  // next_shrink ends up near a third of next_resize.
  void thresholds(uint32_t x) {
    const float fx = static_cast<float>(x);
    m_next_resize = x;
    m_next_shrink = x - 2 * truncate(fx - fx / 1.5f);
  }

  static entry_node *entry_of(list_link *chain_link) {
    return static_cast<typename chain::node_type *>(chain_link)->m_value;
  }

  static void unlink(list_link *link) {
    link->m_prev->m_next = link->m_next;
    link->m_next->m_prev = link->m_prev;
  }

  static void link_before(list_link *link, list_link *pos) {
    link->m_next = pos;
    link->m_prev = pos->m_prev;
    pos->m_prev->m_next = link;
    pos->m_prev = link;
  }

  // The chain node of `key` in one bucket vector, or null.
  static list_link *search(bucket_vector &buckets, const K &key, chain **bucket) {
    if (buckets.size() == 0) {
      return nullptr;
    }
    chain &c = buckets[hash_table_key_number(key) % buckets.size()];
    for (typename chain::iterator it = c.begin(); it != c.end(); ++it) {
      if ((*it)->m_value.first == key) {
        if (bucket != nullptr) {
          *bucket = &c;
        }
        return it.node();
      }
    }
    return nullptr;
  }

  // The active buckets first, then, during a rehash, the alternate ones.
  list_link *locate(const K &key, chain **bucket) {
    list_link *link = search(*m_active, key, bucket);
    if (link == nullptr && m_migrating != 0) {
      link = search(*m_alternate, key, bucket);
    }
    return link;
  }

  // The chain node that points at `entry` in one bucket vector, or null.
  static list_link *chain_link_of(bucket_vector &buckets, entry_node *entry, chain **bucket) {
    if (buckets.size() == 0) {
      return nullptr;
    }
    chain &c = buckets[hash_table_key_number(entry->m_value.first) % buckets.size()];
    for (typename chain::iterator it = c.begin(); it != c.end(); ++it) {
      if (*it == entry) {
        *bucket = &c;
        return it.node();
      }
    }
    return nullptr;
  }

  // Moves up to migrate_quota chain nodes from the old buckets, from cursor
  // on, to the tails of their new buckets; the nodes themselves are reused,
  // so a step cannot fail. When the last old bucket is empty the new buckets
  // become the active ones.
  void migrate_step() {
    bucket_vector &from = *m_active;
    bucket_vector &to = *m_alternate;
    const size_t old_count = from.size();
    uint32_t moved = 0;
    while (m_cursor < old_count) {
      chain &c = from[m_cursor];
      while (!c.empty()) {
        if (moved >= m_migrate_quota) {
          return;
        }
        list_link *link = c.begin().node();
        chain &dest = to[hash_table_key_number(entry_of(link)->m_value.first) % m_new_buckets];
        unlink(link);
        link_before(link, dest.end().node());
        ++moved;
      }
      ++m_cursor;
    }
    bucket_vector *done = m_active;
    m_active = m_alternate;
    m_alternate = done;
    m_migrating = 0;
    // Only empty chains are left there; the next rehash makes its own.
    m_alternate->clear();
  }

  // Layout fixed: plug-ins compile against it.
  entry_list m_entries;           // every element, least recently touched first
  float m_max_load = 0.8f;        // elements per bucket aimed at
  uint32_t m_next_resize = 0;     // element count at which growth is considered
  uint32_t m_next_shrink = 0;     // element count below which shrinking is considered
  uint8_t m_auto_resize = 1;      // 0: the owner fixes the bucket count
  uint32_t m_count = 0;           // number of elements
  uint8_t m_migrating = 0;        // 1 while a rehash moves nodes
  uint32_t m_migrate_quota = 100; // chain nodes moved per step
  uint32_t m_new_buckets = 0;     // bucket count of the rehash under way
  uint32_t m_cursor = 0;          // next old bucket to drain
  bucket_vector *m_active;        // searched first
  bucket_vector *m_alternate;     // filled during a rehash
  bucket_vector m_buckets[2];     // the storage behind active and alternate
};

} // namespace oru::fdt

#endif
