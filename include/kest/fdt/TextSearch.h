// Searches of string-keyed maps by a plain character pointer, so that a lookup
// never has to build (and allocate) a key string. The order is kest_strcmp's,
// which is the order of the maps' own string comparison.
#ifndef KEST_FDT_TEXTSEARCH_H
#define KEST_FDT_TEXTSEARCH_H

#include <kest.h>
#include <kest/fdt/map.h>

namespace oru {

// The element whose key equals `text`, or end().
template <class MapType> typename MapType::iterator FindText(MapType &map, const char *text) {
  auto *node = map.tree().root();
  while (node != nullptr) {
    const int order = kest_strcmp(text, node->m_value.first.c_str());
    if (order < 0) {
      node = node->m_left;
    } else if (order > 0) {
      node = node->m_right;
    } else {
      return typename MapType::iterator(node);
    }
  }
  return map.end();
}

// The first element whose key is not less than `text`, or end(), found by
// walking down from the root.
template <class MapType> typename MapType::iterator LowerBoundText(MapType &map, const char *text) {
  auto *node = map.tree().root();
  decltype(node) best = nullptr;
  while (node != nullptr) {
    if (kest_strcmp(node->m_value.first.c_str(), text) < 0) {
      node = node->m_right;
    } else {
      best = node;
      node = node->m_left;
    }
  }
  return best != nullptr ? typename MapType::iterator(best) : map.end();
}

// Inserts (key, value) into a string-keyed map. The node holds a copy of the
// key, and a string copy short of memory comes out short without a word; such
// a node would sit where the whole key belongs, so it is taken out again and
// the result is end(), as for any insert that could not store.
template <class MapType, class Key, class Value>
typename MapType::iterator InsertWhole(MapType &map, const Key &key, const Value &value) {
  auto placed = map.insert(key, value);
  if (placed != map.end() && placed->first.size() != key.size()) {
    map.erase(placed);
    return map.end();
  }
  return placed;
}

} // namespace oru

#endif
