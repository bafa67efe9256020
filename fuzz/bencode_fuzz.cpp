// The BitTorrent decoder's bencode reader on any bytes: no read outside
// them, a value it takes lies within them from their first byte, and a
// dictionary walk over a value it took ends well-formed.
#include "bittorrent/Bencode.h"

#include <stdlib.h>
#include <string.h>

using kest_bittorrent::Bencode;
using oru::kit::ByteReader;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // A block of exactly the input's size, so that a read past the end is one
  // past the block.
  uint8_t *copy = static_cast<uint8_t *>(malloc(size != 0 ? size : 1));
  if (copy == nullptr) {
    return 0;
  }
  if (size != 0) {
    memcpy(copy, data, size);
  }
  ByteReader r(copy, size);
  const ByteReader value = Bencode::Value(r);
  if (value.Ok() && (value.Here() != copy || value.Left() + r.Left() != size)) {
    abort();
  }
  if (value.Ok() && value.Peek() == 'd') {
    Bencode::Dict d(value);
    ByteReader key;
    ByteReader item;
    size_t items = 0;
    while (d.Next(key, item)) {
      if (key.Here() < copy || item.Here() + item.Left() > copy + size) {
        abort();
      }
      ++items;
    }
    if (!d.Ok() || items > Bencode::kMaxItems) {
      abort();
    }
    ByteReader id = Bencode::Find(value, "id", 2);
    Bencode::String(id);
  }
  ByteReader n(copy, size);
  int64_t number = 0;
  Bencode::Integer(n, number);
  ByteReader s(copy, size);
  Bencode::IsString(s, "q", 1);
  free(copy);
  return 0;
}
