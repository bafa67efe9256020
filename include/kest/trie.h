// A prefix tree over bytes, for names that are looked up while a message is
// parsed: header field names with the attribute identifiers subscribed to
// them. Letters are compared through a traits class; with
// char_traits_nocase the tree ignores case, and each node keeps the spelling
// of the first name that made it.
//
// The trie object is itself the root node, standing for the empty prefix.
// Every other node is created whole on the local heap with the object prefix.
#ifndef KEST_TRIE_H
#define KEST_TRIE_H

#include <kest.h>
#include <kest/Export.h>
#include <kest/fdt/List.h>
#include <kest/fdt/ObjectPrefix.h>
#include <kest/fdt/vector.h>
#include <stddef.h>

namespace oru {

// Letters compared by their upper-case forms, through the host's kest_toupper.
struct KEST_API char_traits_nocase {
  static int fold(char c) { return kest_toupper(static_cast<unsigned char>(c)); }
  static bool eq(char a, char b) { return fold(a) == fold(b); }
  static bool lt(char a, char b) { return fold(a) < fold(b); }
};

// V: the values kept under a name. Traits: eq and lt over letters. Flag:
// every user passes true; it selects nothing yet.
template <class V, class Traits = char_traits_nocase, bool Flag = true> class KEST_API trie {
public:
  typedef V value_type;
  typedef Traits traits_type;
  typedef fdt::vector<trie *> child_vector;
  typedef List<V> value_list;

  // The root's letter is never compared; a blank by default.
  explicit trie(char letter = ' ') : m_letter(letter) {}

  trie(const trie &) = delete;
  trie &operator=(const trie &) = delete;

  // Destroys every node below.
  ~trie() {
    for (trie *child : m_children) {
      fdt::DestroyObject(child);
    }
  }

  char letter() const { return m_letter; }
  // Sorted by folded letter, one child per folded letter.
  child_vector &children() { return m_children; }
  const child_vector &children() const { return m_children; }
  value_list &values() { return m_values; }
  const value_list &values() const { return m_values; }

  // The child for `c` under the traits, or null: binary search over the
  // children.
  trie *child(char c) {
    trie **slot = child_slot(c);
    return slot == nullptr ? nullptr : *slot;
  }
  const trie *child(char c) const { return const_cast<trie *>(this)->child(c); }

  // The node that the first `length` bytes of `key` lead to, or null.
  const trie *find(const char *key, size_t length) const {
    const trie *node = this;
    for (size_t i = 0; i < length && node != nullptr; ++i) {
      node = node->child(key[i]);
    }
    return node;
  }
  // The node that the NUL-terminated `key` leads to, or null.
  const trie *find(const char *key) const {
    const trie *node = this;
    for (; *key != '\0' && node != nullptr; ++key) {
      node = node->child(*key);
    }
    return node;
  }

  // Appends `value` to the values of the node of `key` (NUL-terminated),
  // making the missing nodes on the way. False when memory runs out: the
  // name is then lost, and the nodes made for it are taken away again.
  bool add(const char *key, const V &value) {
    trie *node = this;
    trie *made_under = nullptr; // parent of the first node made by this call
    trie *made = nullptr;
    for (; *key != '\0'; ++key) {
      trie *next = node->child(*key);
      if (next == nullptr) {
        next = node->make_child(*key);
        if (next == nullptr) {
          undo_add(made_under, made);
          return false;
        }
        if (made == nullptr) {
          made_under = node;
          made = next;
        }
      }
      node = next;
    }
    if (node->m_values.push_back(value) == node->m_values.end()) {
      undo_add(made_under, made);
      return false;
    }
    return true;
  }

  // Takes `value` away along the path of `key`: every node on the path, as
  // far as it exists, loses the first value equal to it, and a node below
  // this one that is left without children is destroyed with whatever values
  // it still holds.
  //
  // The parent's vector is not compacted: it keeps its entry for the
  // destroyed node, at the same index, and its size. A look-up of any child
  // of that parent binary-searches over the stale entry, so until the caller
  // has taken it out nothing below that parent may be found, added or
  // removed, and the parent must not be destroyed.
  void remove(const char *key, const V &value) {
    if (*key != '\0') {
      trie **slot = child_slot(*key);
      if (slot != nullptr) {
        trie *next = *slot;
        next->remove(key + 1, value);
        if (next->m_children.empty()) {
          // The slot keeps the pointer; see above.
          fdt::DestroyObject(next);
        }
      }
    }
    for (typename value_list::iterator it = m_values.begin(); it != m_values.end(); ++it) {
      if (*it == value) {
        m_values.erase(it);
        break;
      }
    }
  }

private:
  // The vector slot of the child for `c`, or null.
  trie **child_slot(char c) {
    size_t low = 0;
    size_t high = m_children.size();
    while (low < high) {
      const size_t mid = low + (high - low) / 2;
      trie *candidate = m_children[mid];
      if (Traits::lt(candidate->m_letter, c)) {
        low = mid + 1;
      } else if (Traits::lt(c, candidate->m_letter)) {
        high = mid;
      } else {
        return &m_children[mid];
      }
    }
    return nullptr;
  }

  // A new child with `c` as given, placed before the first child with a
  // greater letter. Null when memory runs out; nothing changes then.
  trie *make_child(char c) {
    trie *child = fdt::CreateObject<trie>(fdt::OBJECT_LOCAL, c);
    if (child == nullptr) {
      return nullptr;
    }
    typename child_vector::iterator pos = m_children.begin();
    while (pos != m_children.end() && !Traits::lt(c, (*pos)->m_letter)) {
      ++pos;
    }
    if (m_children.insert(pos, child) == m_children.end()) {
      fdt::DestroyObject(child);
      return nullptr;
    }
    return child;
  }

  // Takes out the branch that a failed add made; `made` holds nothing else.
  static void undo_add(trie *parent, trie *made) {
    if (made == nullptr) {
      return;
    }
    for (typename child_vector::iterator it = parent->m_children.begin();
         it != parent->m_children.end(); ++it) {
      if (*it == made) {
        parent->m_children.erase(it);
        break;
      }
    }
    // A vector that this add started goes too.
    if (parent->m_children.empty()) {
      parent->m_children.clear();
    }
    fdt::DestroyObject(made);
  }

  // Layout fixed: plug-ins compile against it.
  child_vector m_children; // sorted by folded letter
  value_list m_values;     // in the order added
  char m_letter;           // as first spelled
};

} // namespace oru

#endif
