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

} // namespace oru

#endif
