// HPACK, the header compression of HTTP/2: one direction's decoding context
// (its dynamic table) and the decoding of whole header blocks into fields.
//
// Everything a block can say is read: indexed fields, literals with and
// without indexing and never indexed, names by index or literal, dynamic
// table size updates at the block's start, strings raw or Huffman-coded.
// The dynamic table holds at most kTableBytes of the table's own measure
// (name, value and 32 per entry): an encoder whose peer allowed it more may
// refer to an entry this table no longer holds, and the block then fails
// like any other fault. After a fault the context is spent (Broken): the
// tables of both ends no longer agree, and no later block can be read
// right, so none is read.
//
// No memory beyond the object and the caller's scratch; no state between
// calls but the table.
#ifndef KEST_DECODERS_HTTP2_HPACK_H
#define KEST_DECODERS_HTTP2_HPACK_H

#include <stddef.h>
#include <stdint.h>

namespace kest_http2 {

struct HpackField {
  const uint8_t *name;
  uint32_t name_length;
  const uint8_t *value;
  uint32_t value_length;
};

class HpackDecoder {
public:
  // The most of the table's measure kept (the protocol's default size).
  static constexpr uint32_t kTableBytes = 4096;
  // Every entry counts 32 beyond its bytes.
  static constexpr uint32_t kMaxEntries = kTableBytes / 32;
  // The longest name or value decoded: a Huffman string of a whole
  // kTableBytes block, at the code's best ratio of 8 bits for 5.
  static constexpr uint32_t kMaxString = 8192;

  // Room for one field's name and value while it is read.
  struct Scratch {
    uint8_t name[kMaxString];
    uint8_t value[kMaxString];
  };
  // Called for each field of a block, in order; the field's bytes live in
  // the scratch until the next call.
  using Visit = void (*)(void *context, const HpackField &field);

  // Decodes one whole header block. False on a fault, and from then on.
  bool Block(const uint8_t *data, size_t length, Scratch &scratch, Visit visit, void *context);
  bool Broken() const { return m_broken; }
  // Entries and the table's measure now (for tests).
  uint32_t Entries() const { return m_count; }
  uint32_t Size() const { return m_size; }

  // Decodes Huffman-coded `length` bytes into `out` (room for `room`);
  // the decoded length, or -1 for a code of EOS, padding that is longer
  // than 7 bits or not all ones, or too little room.
  static long Huffman(const uint8_t *data, size_t length, uint8_t *out, size_t room);

private:
  struct Entry {
    uint16_t at; // where the name starts in m_bytes; the value follows
    uint16_t name;
    uint16_t value;
  };

  bool Field(const uint8_t *&p, const uint8_t *end, Scratch &scratch, Visit visit, void *context);
  // A string literal into `out`; its length in `length`.
  static bool String(const uint8_t *&p, const uint8_t *end, uint8_t *out, uint32_t &length);
  // The name (and value, unless `name_only`) of entry `index` (1-based,
  // static first) into the scratch.
  bool Lookup(uint32_t index, Scratch &scratch, HpackField &field, bool name_only) const;
  void Copy(uint32_t at, uint32_t n, uint8_t *out) const;
  void Insert(const HpackField &field);
  void Evict();

  uint8_t m_bytes[kTableBytes];
  Entry m_entries[kMaxEntries];
  uint32_t m_first = 0; // the oldest entry's place in m_entries
  uint32_t m_count = 0;
  uint32_t m_size = 0;
  uint32_t m_max = kTableBytes;
  uint32_t m_head = 0; // where the next entry's bytes go in m_bytes
  bool m_broken = false;
};

// An integer of the representation whose first byte is at p, in its low
// `prefix` bits and continuation bytes; false when cut short or beyond
// 2^28 (no length or index of a bounded block comes near).
bool HpackInteger(const uint8_t *&p, const uint8_t *end, unsigned prefix, uint32_t &value);

} // namespace kest_http2

#endif
