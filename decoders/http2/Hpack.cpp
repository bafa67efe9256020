#include "http2/Hpack.h"

#include <string.h>

namespace kest_http2 {

namespace {

struct StaticEntry {
  const char *name;
  const char *value;
};

// The static table, entries 1 to 61.
constexpr StaticEntry kStatic[] = {
    {":authority", ""},
    {":method", "GET"},
    {":method", "POST"},
    {":path", "/"},
    {":path", "/index.html"},
    {":scheme", "http"},
    {":scheme", "https"},
    {":status", "200"},
    {":status", "204"},
    {":status", "206"},
    {":status", "304"},
    {":status", "400"},
    {":status", "404"},
    {":status", "500"},
    {"accept-charset", ""},
    {"accept-encoding", "gzip, deflate"},
    {"accept-language", ""},
    {"accept-ranges", ""},
    {"accept", ""},
    {"access-control-allow-origin", ""},
    {"age", ""},
    {"allow", ""},
    {"authorization", ""},
    {"cache-control", ""},
    {"content-disposition", ""},
    {"content-encoding", ""},
    {"content-language", ""},
    {"content-length", ""},
    {"content-location", ""},
    {"content-range", ""},
    {"content-type", ""},
    {"cookie", ""},
    {"date", ""},
    {"etag", ""},
    {"expect", ""},
    {"expires", ""},
    {"from", ""},
    {"host", ""},
    {"if-match", ""},
    {"if-modified-since", ""},
    {"if-none-match", ""},
    {"if-range", ""},
    {"if-unmodified-since", ""},
    {"last-modified", ""},
    {"link", ""},
    {"location", ""},
    {"max-forwards", ""},
    {"proxy-authenticate", ""},
    {"proxy-authorization", ""},
    {"range", ""},
    {"referer", ""},
    {"refresh", ""},
    {"retry-after", ""},
    {"server", ""},
    {"set-cookie", ""},
    {"strict-transport-security", ""},
    {"transfer-encoding", ""},
    {"user-agent", ""},
    {"vary", ""},
    {"via", ""},
    {"www-authenticate", ""},
};
constexpr uint32_t kStaticCount = sizeof kStatic / sizeof kStatic[0];
static_assert(kStaticCount == 61);

// The Huffman code's length in bits for each symbol, 0 to 255, then EOS.
// The code is canonical: within a length, codes rise with the symbol, and
// each length's first code follows the last of the length before.
constexpr uint8_t kCodeLength[257] = {
    13, 23, 28, 28, 28, 28, 28, 28, 28, 24, 30, 28, 28, 30, 28, 28, // 0x00
    28, 28, 28, 28, 28, 28, 30, 28, 28, 28, 28, 28, 28, 28, 28, 28, // 0x10
    6,  10, 10, 12, 13, 6,  8,  11, 10, 10, 8,  11, 8,  6,  6,  6,  // 0x20
    5,  5,  5,  6,  6,  6,  6,  6,  6,  6,  7,  8,  15, 6,  12, 10, // 0x30
    13, 6,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  // 0x40
    7,  7,  7,  7,  7,  7,  7,  7,  8,  7,  8,  13, 19, 13, 14, 6,  // 0x50
    15, 5,  6,  5,  6,  5,  6,  6,  6,  5,  7,  7,  6,  6,  6,  5,  // 0x60
    6,  7,  6,  5,  5,  6,  7,  7,  7,  7,  7,  15, 11, 14, 13, 28, // 0x70
    20, 22, 20, 20, 22, 22, 22, 23, 22, 23, 23, 23, 23, 23, 24, 23, // 0x80
    24, 24, 22, 23, 24, 23, 23, 23, 23, 21, 22, 23, 22, 23, 23, 24, // 0x90
    22, 21, 20, 22, 22, 23, 23, 21, 23, 22, 22, 24, 21, 22, 23, 23, // 0xa0
    21, 21, 22, 21, 23, 22, 23, 23, 20, 22, 22, 22, 23, 22, 22, 23, // 0xb0
    26, 26, 20, 19, 22, 23, 22, 25, 26, 26, 26, 27, 27, 26, 24, 25, // 0xc0
    19, 21, 26, 27, 27, 26, 27, 24, 21, 21, 26, 26, 28, 27, 27, 27, // 0xd0
    20, 24, 20, 21, 22, 21, 21, 23, 22, 22, 25, 25, 24, 24, 26, 23, // 0xe0
    26, 27, 26, 26, 27, 27, 27, 27, 27, 28, 27, 27, 27, 27, 27, 26, // 0xf0
    30,                                                             // EOS
};
constexpr unsigned kMinLength = 5;
constexpr unsigned kMaxLength = 30;
constexpr uint32_t kEos = 256;

// The canonical code's tables: per length, the first code, how many codes
// and where its symbols start in `symbols` (ordered by length, then value).
struct Canonical {
  uint32_t first[kMaxLength + 1] = {};
  uint32_t count[kMaxLength + 1] = {};
  uint32_t start[kMaxLength + 1] = {};
  uint16_t symbols[257] = {};

  constexpr Canonical() {
    for (uint32_t s = 0; s < 257; ++s) {
      ++count[kCodeLength[s]];
    }
    uint32_t code = 0, at = 0;
    for (unsigned n = 1; n <= kMaxLength; ++n) {
      code = (code + count[n - 1]) << 1;
      first[n] = code;
      start[n] = at;
      for (uint32_t s = 0; s < 257; ++s) {
        if (kCodeLength[s] == n) {
          symbols[at++] = static_cast<uint16_t>(s);
        }
      }
    }
  }
};
constexpr Canonical kCode{};
static_assert(kCode.symbols[kCode.start[kMaxLength] + kCode.count[kMaxLength] - 1] == kEos &&
              kCode.first[kMaxLength] + kCode.count[kMaxLength] == (1u << kMaxLength));

uint32_t TextLength(const char *text) {
  return static_cast<uint32_t>(strlen(text));
}

} // namespace

bool HpackInteger(const uint8_t *&p, const uint8_t *end, unsigned prefix, uint32_t &value) {
  if (p >= end) {
    return false;
  }
  const uint32_t mask = (1u << prefix) - 1;
  uint64_t v = *p++ & mask;
  if (v == mask) {
    for (unsigned shift = 0;; shift += 7) {
      if (p >= end || shift > 21) {
        return false;
      }
      const uint8_t b = *p++;
      v += static_cast<uint64_t>(b & 0x7f) << shift;
      if ((b & 0x80) == 0) {
        break;
      }
    }
  }
  if (v > (1u << 28)) {
    return false;
  }
  value = static_cast<uint32_t>(v);
  return true;
}

long HpackDecoder::Huffman(const uint8_t *data, size_t length, uint8_t *out, size_t room) {
  uint64_t bits = 0; // the unread bits, lowest `have` of them
  unsigned have = 0;
  size_t n = 0;
  for (size_t i = 0; i < length; ++i) {
    bits = (bits << 8 | data[i]) & ((uint64_t{1} << 40) - 1);
    have += 8;
    while (have >= kMinLength) {
      uint32_t symbol = kEos + 1;
      unsigned used = 0;
      for (unsigned len = kMinLength; len <= kMaxLength && len <= have; ++len) {
        const uint32_t code = static_cast<uint32_t>(bits >> (have - len)) & ((1u << len) - 1);
        if (code - kCode.first[len] < kCode.count[len]) {
          symbol = kCode.symbols[kCode.start[len] + code - kCode.first[len]];
          used = len;
          break;
        }
      }
      if (used == 0) {
        break; // a longer code: more bits
      }
      if (symbol == kEos || n == room) {
        return -1;
      }
      out[n++] = static_cast<uint8_t>(symbol);
      have -= used;
    }
  }
  // What is left is padding: fewer than 8 bits, all ones (EOS's start).
  const uint64_t ones = (uint64_t{1} << have) - 1;
  return have < 8 && (bits & ones) == ones ? static_cast<long>(n) : -1;
}

bool HpackDecoder::String(const uint8_t *&p, const uint8_t *end, uint8_t *out, uint32_t &length) {
  if (p >= end) {
    return false;
  }
  const bool huffman = (*p & 0x80) != 0;
  uint32_t n = 0;
  if (!HpackInteger(p, end, 7, n) || n > static_cast<size_t>(end - p)) {
    return false;
  }
  if (huffman) {
    const long decoded = Huffman(p, n, out, kMaxString);
    if (decoded < 0) {
      return false;
    }
    length = static_cast<uint32_t>(decoded);
  } else {
    if (n > kMaxString) {
      return false;
    }
    memcpy(out, p, n);
    length = n;
  }
  p += n;
  return true;
}

void HpackDecoder::Copy(uint32_t at, uint32_t n, uint8_t *out) const {
  const uint32_t first = n < kTableBytes - at ? n : kTableBytes - at;
  memcpy(out, m_bytes + at, first);
  memcpy(out + first, m_bytes, n - first);
}

bool HpackDecoder::Lookup(uint32_t index, Scratch &scratch, HpackField &field,
                          bool name_only) const {
  field.name = scratch.name;
  field.value = scratch.value;
  field.value_length = 0;
  if (index == 0) {
    return false;
  }
  if (index <= kStaticCount) {
    const StaticEntry &e = kStatic[index - 1];
    field.name_length = TextLength(e.name);
    memcpy(scratch.name, e.name, field.name_length);
    if (!name_only) {
      field.value_length = TextLength(e.value);
      memcpy(scratch.value, e.value, field.value_length);
    }
    return true;
  }
  const uint32_t age = index - kStaticCount - 1; // 0: the newest
  if (age >= m_count) {
    return false;
  }
  const Entry &e = m_entries[(m_first + m_count - 1 - age) % kMaxEntries];
  field.name_length = e.name;
  Copy(e.at, e.name, scratch.name);
  if (!name_only) {
    field.value_length = e.value;
    Copy((e.at + e.name) % kTableBytes, e.value, scratch.value);
  }
  return true;
}

void HpackDecoder::Evict() {
  const Entry &e = m_entries[m_first];
  m_size -= e.name + e.value + 32u;
  m_first = (m_first + 1) % kMaxEntries;
  --m_count;
}

void HpackDecoder::Insert(const HpackField &field) {
  const uint32_t size = field.name_length + field.value_length + 32u;
  while (m_count != 0 && m_size + size > m_max) {
    Evict();
  }
  if (size > m_max) {
    return; // too large for any table: the table is left empty
  }
  Entry &e = m_entries[(m_first + m_count) % kMaxEntries];
  e.at = static_cast<uint16_t>(m_head);
  e.name = static_cast<uint16_t>(field.name_length);
  e.value = static_cast<uint16_t>(field.value_length);
  // The bytes held stay below kTableBytes, so the new ones overlap none.
  const uint8_t *parts[2] = {field.name, field.value};
  const uint32_t lengths[2] = {field.name_length, field.value_length};
  for (int i = 0; i < 2; ++i) {
    const uint32_t first = lengths[i] < kTableBytes - m_head ? lengths[i] : kTableBytes - m_head;
    memcpy(m_bytes + m_head, parts[i], first);
    memcpy(m_bytes, parts[i] + first, lengths[i] - first);
    m_head = (m_head + lengths[i]) % kTableBytes;
  }
  ++m_count;
  m_size += size;
}

bool HpackDecoder::Field(const uint8_t *&p, const uint8_t *end, Scratch &scratch, Visit visit,
                         void *context) {
  const uint8_t first = *p;
  HpackField field{};
  uint32_t index = 0;
  if ((first & 0x80) != 0) { // indexed
    if (!HpackInteger(p, end, 7, index) || !Lookup(index, scratch, field, false)) {
      return false;
    }
    visit(context, field);
    return true;
  }
  // Literals: with indexing (01), never indexed (0001), without (0000).
  const bool indexing = (first & 0x40) != 0;
  if (!HpackInteger(p, end, indexing ? 6 : 4, index)) {
    return false;
  }
  if (index != 0) {
    if (!Lookup(index, scratch, field, true)) {
      return false;
    }
  } else if (!String(p, end, scratch.name, field.name_length)) {
    return false;
  }
  field.name = scratch.name;
  field.value = scratch.value;
  if (!String(p, end, scratch.value, field.value_length)) {
    return false;
  }
  visit(context, field);
  if (indexing) {
    Insert(field);
  }
  return true;
}

bool HpackDecoder::Block(const uint8_t *data, size_t length, Scratch &scratch, Visit visit,
                         void *context) {
  const uint8_t *p = data;
  const uint8_t *end = data + length;
  bool opening = true; // size updates only before the first field
  while (!m_broken && p < end) {
    if ((*p & 0xe0) == 0x20) {
      uint32_t size = 0;
      if (!opening || !HpackInteger(p, end, 5, size)) {
        m_broken = true;
        break;
      }
      m_max = size < kTableBytes ? size : kTableBytes;
      while (m_size > m_max) {
        Evict();
      }
      continue;
    }
    opening = false;
    m_broken = !Field(p, end, scratch, visit, context);
  }
  return !m_broken;
}

} // namespace kest_http2
