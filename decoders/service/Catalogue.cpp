#include "service/Catalogue.h"

#include <kest.h>

namespace kest_service {

namespace {

constexpr uint64_t kFnvBasis = 0xcbf29ce484222325ull;
constexpr uint64_t kFnvPrime = 0x100000001b3ull;

inline char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline uint64_t Step(uint64_t h, char c) {
  return (h ^ static_cast<uint8_t>(Lower(c))) * kFnvPrime;
}

inline uint64_t Final(uint64_t h) {
  return h != 0 ? h : 1;
}

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

// Trims blanks at both ends of [*text, *text + *length).
void Trim(const char *&text, size_t &length) {
  while (length != 0 && IsSpace(*text)) {
    ++text;
    --length;
  }
  while (length != 0 && IsSpace(text[length - 1])) {
    --length;
  }
}

// The next field of a line up to `separator` (or the end); false once the
// last field was read (`at` is then null).
bool NextField(const char *&at, const char *end, char separator, const char *&field,
               size_t &length) {
  if (at == nullptr) {
    return false;
  }
  const char *start = at;
  while (at < end && *at != separator) {
    ++at;
  }
  field = start;
  length = static_cast<size_t>(at - start);
  at = at < end ? at + 1 : nullptr;
  Trim(field, length);
  return true;
}

// The next blank-separated word of [at, end); false when none is left.
bool NextWord(const char *&at, const char *end, const char *&word, size_t &length) {
  while (at < end && IsSpace(*at)) {
    ++at;
  }
  if (at == end) {
    return false;
  }
  word = at;
  while (at < end && !IsSpace(*at)) {
    ++at;
  }
  length = static_cast<size_t>(at - word);
  return true;
}

// A server-name suffix: labels of letters, digits, '-' and '_', joined by
// single dots, no dot at either end.
bool PlainSuffix(const char *text, size_t length) {
  if (length == 0 || length > kMaxNameText || text[0] == '.' || text[length - 1] == '.') {
    return false;
  }
  for (size_t i = 0; i < length; ++i) {
    const char c = Lower(text[i]);
    const bool ok = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
                    (c == '.' && text[i + 1] != '.');
    if (!ok) {
      return false;
    }
  }
  return true;
}

bool PlainText(const char *text, size_t length) {
  if (length == 0 || length > kMaxServiceText) {
    return false;
  }
  for (size_t i = 0; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == 0x7F || c == '"' || c == '\\' || c == '|') {
      return false;
    }
  }
  return true;
}

bool Decimal(const char *text, size_t length, uint32_t max, uint32_t &value) {
  if (length == 0 || length > 3) {
    return false;
  }
  value = 0;
  for (size_t i = 0; i < length; ++i) {
    if (text[i] < '0' || text[i] > '9') {
      return false;
    }
    value = value * 10 + static_cast<uint32_t>(text[i] - '0');
  }
  return value <= max;
}

bool ParseV4(const char *text, size_t length, uint32_t &out) {
  out = 0;
  unsigned parts = 0;
  size_t start = 0;
  for (size_t i = 0; i <= length; ++i) {
    if (i == length || text[i] == '.') {
      uint32_t part = 0;
      if (!Decimal(text + start, i - start, 255, part) || ++parts > 4) {
        return false;
      }
      out = out << 8 | part;
      start = i + 1;
    }
  }
  return parts == 4;
}

int HexDigit(char c) {
  c = Lower(c);
  return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

bool ParseV6(const char *text, size_t length, uint8_t *bytes) {
  uint16_t head[8] = {};
  uint16_t tail[8] = {};
  unsigned head_count = 0;
  unsigned tail_count = 0;
  bool gap = false;
  size_t i = 0;
  if (length >= 2 && text[0] == ':' && text[1] == ':') {
    gap = true;
    i = 2;
  }
  while (i < length) {
    uint32_t group = 0;
    size_t digits = 0;
    while (i < length && HexDigit(text[i]) >= 0 && digits < 5) {
      group = group << 4 | static_cast<uint32_t>(HexDigit(text[i]));
      ++i;
      ++digits;
    }
    if (digits == 0 || digits > 4 || head_count + tail_count >= 8) {
      return false;
    }
    (gap ? tail[tail_count++] : head[head_count++]) = static_cast<uint16_t>(group);
    if (i == length) {
      break;
    }
    if (text[i] != ':') {
      return false;
    }
    ++i;
    if (i < length && text[i] == ':') {
      if (gap) {
        return false;
      }
      gap = true;
      ++i;
    } else if (i == length) {
      return false;
    }
  }
  if ((!gap && head_count != 8) || (gap && head_count + tail_count > 7)) {
    return false;
  }
  uint16_t groups[8] = {};
  for (unsigned k = 0; k < head_count; ++k) {
    groups[k] = head[k];
  }
  for (unsigned k = 0; k < tail_count; ++k) {
    groups[8 - tail_count + k] = tail[k];
  }
  for (unsigned k = 0; k < 8; ++k) {
    bytes[2 * k] = static_cast<uint8_t>(groups[k] >> 8);
    bytes[2 * k + 1] = static_cast<uint8_t>(groups[k]);
  }
  return true;
}

// `address` with all but its first `bits` (of 128) bits cleared.
oru::IpAddr Masked(const oru::IpAddr &address, unsigned bits) {
  if (bits >= 128) {
    return address;
  }
  if (bits >= 64) {
    const unsigned low = bits - 64;
    return oru::IpAddr(address.m_high, low == 0 ? 0 : address.m_low & (~0ull << (64 - low)));
  }
  return oru::IpAddr(bits == 0 ? 0 : address.m_high & (~0ull << (64 - bits)), 0);
}

const char *const kCategories[] = {
    "web",           "streaming",    "social",    "chat",      "voip",
    "collaboration", "mail",         "cloud",     "cdn",       "software-update",
    "advertising",   "gaming",       "vpn-proxy", "p2p",       "network-service",
    "database",      "iot",          "shopping",  "search",    "news",
    "music",         "security",     "finance",   "education", "developer",
    "maps",          "file-sharing", "analytics", "adult",     "tracking"};

} // namespace

bool KnownCategory(const char *text, size_t length) {
  for (const char *category : kCategories) {
    if (kest_strlen(category) == length && kest_memcmp(category, text, length) == 0) {
      return true;
    }
  }
  return false;
}

uint64_t SuffixKey(const char *name, size_t length) {
  uint64_t h = kFnvBasis;
  for (size_t i = length; i > 0; --i) {
    h = Step(h, name[i - 1]);
  }
  return Final(h);
}

bool ParseRange(const char *text, size_t length, oru::IpAddr &base, uint8_t &bits) {
  size_t slash = 0;
  while (slash < length && text[slash] != '/') {
    ++slash;
  }
  bool v4 = false;
  for (size_t i = 0; i < slash; ++i) {
    if (text[i] == '.') {
      v4 = true;
    }
  }
  uint32_t prefix = v4 ? 32 : 128;
  if (slash < length && !Decimal(text + slash + 1, length - slash - 1, prefix, prefix)) {
    return false;
  }
  oru::IpAddr address;
  if (v4) {
    uint32_t value = 0;
    if (!ParseV4(text, slash, value) || value == 0) {
      return false;
    }
    address = oru::IpAddr::FromV4(value);
    prefix += 96;
  } else {
    uint8_t bytes[16];
    if (!ParseV6(text, slash, bytes)) {
      return false;
    }
    address = oru::IpAddr::FromV6(bytes);
  }
  base = Masked(address, prefix);
  bits = static_cast<uint8_t>(prefix);
  return true;
}

Catalogue::~Catalogue() {
  Clear();
}

void Catalogue::Clear() {
  while (m_suffixes.begin() != m_suffixes.end()) {
    m_suffixes.erase(m_suffixes.begin());
  }
  while (m_names.begin() != m_names.end()) {
    m_names.erase(m_names.begin());
  }
  kest_free_local(m_services);
  kest_free_local(m_suffix_list);
  kest_free_local(m_ranges);
  m_services = nullptr;
  m_suffix_list = nullptr;
  m_ranges = nullptr;
  m_service_count = m_service_capacity = 0;
  m_suffix_count = m_suffix_capacity = 0;
  m_range_count = m_range_capacity = 0;
  m_max_labels = 0;
  while (m_blocks != nullptr) {
    Block *next = m_blocks->next;
    kest_free_local(m_blocks);
    m_blocks = next;
  }
}

template <class T> bool Catalogue::Grow(T *&array, uint32_t count, uint32_t &capacity) {
  if (count < capacity) {
    return true;
  }
  const uint32_t wanted = capacity == 0 ? 64 : capacity * 2;
  T *bigger = static_cast<T *>(kest_malloc_local(sizeof(T) * wanted));
  if (bigger == nullptr) {
    return false;
  }
  if (count != 0) {
    kest_memcpy(bigger, array, sizeof(T) * count);
  }
  kest_free_local(array);
  array = bigger;
  capacity = wanted;
  return true;
}

char *Catalogue::Keep(const char *text, size_t length, bool lower) {
  if (m_blocks == nullptr || m_blocks->size - m_blocks->used < length + 1) {
    const size_t size = length + 1 > 8192 ? length + 1 : 8192;
    Block *block = static_cast<Block *>(kest_malloc_local(sizeof(Block) + size));
    if (block == nullptr) {
      return nullptr;
    }
    block->next = m_blocks;
    block->used = 0;
    block->size = size;
    m_blocks = block;
  }
  char *out = reinterpret_cast<char *>(m_blocks + 1) + m_blocks->used;
  for (size_t i = 0; i < length; ++i) {
    out[i] = lower ? Lower(text[i]) : text[i];
  }
  out[length] = 0;
  m_blocks->used += length + 1;
  return out;
}

int Catalogue::AddService(const char *name, size_t name_length, const char *category,
                          size_t category_length) {
  // A service named again (a user's line for a built-in one) is the same
  // service: its suffixes join the earlier ones, its category wins.
  const uint64_t name_key = SuffixKey(name, name_length);
  auto same = m_names.find(static_cast<uintptr_t>(name_key));
  if (same != m_names.end()) {
    Service &known = m_services[same->second];
    if (kest_strlen(known.category) != category_length ||
        kest_memcmp(known.category, category, category_length) != 0) {
      const char *kept = Keep(category, category_length, false);
      if (kept == nullptr) {
        return -1;
      }
      known.category = kept;
    }
    return static_cast<int>(same->second);
  }
  if (m_service_count >= kMaxServices || !Grow(m_services, m_service_count, m_service_capacity)) {
    return -1;
  }
  const char *kept_name = Keep(name, name_length, false);
  const char *kept_category =
      kept_name != nullptr ? Keep(category, category_length, false) : nullptr;
  if (kept_category == nullptr) {
    return -1;
  }
  if (m_names.insert(static_cast<uintptr_t>(name_key), m_service_count) == m_names.end()) {
    return -1;
  }
  m_names.touch(static_cast<uintptr_t>(name_key));
  m_services[m_service_count] = Service{kept_name, kept_category};
  return static_cast<int>(m_service_count++);
}

bool Catalogue::AddSuffix(const char *text, size_t length, uint32_t service) {
  const uint64_t key = SuffixKey(text, length);
  auto found = m_suffixes.find(static_cast<uintptr_t>(key));
  if (found != m_suffixes.end()) {
    // Later text wins.
    m_suffix_list[found->second].service = service;
    return true;
  }
  if (!Grow(m_suffix_list, m_suffix_count, m_suffix_capacity)) {
    return false;
  }
  const char *kept = Keep(text, length, true);
  if (kept == nullptr) {
    return false;
  }
  m_suffix_list[m_suffix_count] = Suffix{kept, static_cast<uint16_t>(length), service};
  unsigned labels = 1;
  for (size_t i = 0; i < length; ++i) {
    labels += text[i] == '.' ? 1 : 0;
  }
  if (labels > m_max_labels) {
    m_max_labels = labels;
  }
  if (m_suffixes.insert(static_cast<uintptr_t>(key), m_suffix_count) == m_suffixes.end()) {
    return false;
  }
  // A growing table moves its elements to the larger buckets a step per
  // touch: look-ups never touch, so loading does, or chains stay long.
  m_suffixes.touch(static_cast<uintptr_t>(key));
  ++m_suffix_count;
  return true;
}

bool Catalogue::AddRange(const oru::IpAddr &base, uint8_t bits, uint32_t service) {
  for (uint32_t i = 0; i < m_range_count; ++i) {
    if (m_ranges[i].base == base && m_ranges[i].bits == bits) {
      m_ranges[i].service = service;
      return true;
    }
  }
  if (!Grow(m_ranges, m_range_count, m_range_capacity)) {
    return false;
  }
  const oru::IpAddr all(~0ull, ~0ull);
  const bool v4 = bits >= 96 && base.m_high == 0 && (base.m_low >> 32) == 0;
  m_ranges[m_range_count++] = Range{base, Masked(all, bits), bits, v4, -1, service};
  return true;
}

bool Catalogue::LoadLine(const char *line, size_t length, bool &malformed) {
  malformed = false;
  Trim(line, length);
  if (length == 0 || line[0] == '#') {
    return true;
  }
  const char *end = line + length;
  const char *at = line;
  const char *name = nullptr;
  const char *category = nullptr;
  const char *suffixes = nullptr;
  const char *ranges = nullptr;
  size_t name_length = 0;
  size_t category_length = 0;
  size_t suffixes_length = 0;
  size_t ranges_length = 0;
  if (length > kMaxLineText || !NextField(at, end, '|', name, name_length) ||
      !NextField(at, end, '|', category, category_length) ||
      !NextField(at, end, '|', suffixes, suffixes_length)) {
    malformed = true;
    return true;
  }
  if (!NextField(at, end, '|', ranges, ranges_length)) {
    ranges_length = 0;
  }
  if (at != nullptr || !PlainText(name, name_length) || !KnownCategory(category, category_length)) {
    malformed = true;
    return true;
  }
  // The whole line is checked before any of it is taken.
  const char *word = nullptr;
  size_t word_length = 0;
  unsigned words = 0;
  for (const char *w = suffixes; NextWord(w, suffixes + suffixes_length, word, word_length);) {
    if (!PlainSuffix(word, word_length)) {
      malformed = true;
      return true;
    }
    ++words;
  }
  oru::IpAddr base;
  uint8_t bits = 0;
  for (const char *w = ranges;
       ranges_length != 0 && NextWord(w, ranges + ranges_length, word, word_length);) {
    if (!ParseRange(word, word_length, base, bits)) {
      malformed = true;
      return true;
    }
    ++words;
  }
  if (words == 0) {
    malformed = true;
    return true;
  }
  const int service = AddService(name, name_length, category, category_length);
  if (service < 0) {
    return false;
  }
  for (const char *w = suffixes; NextWord(w, suffixes + suffixes_length, word, word_length);) {
    if (!AddSuffix(word, word_length, static_cast<uint32_t>(service))) {
      return false;
    }
  }
  for (const char *w = ranges;
       ranges_length != 0 && NextWord(w, ranges + ranges_length, word, word_length);) {
    if (ParseRange(word, word_length, base, bits) &&
        !AddRange(base, bits, static_cast<uint32_t>(service))) {
      return false;
    }
  }
  return true;
}

bool Catalogue::Load(const char *text, size_t length, unsigned *skipped,
                     void (*on_skip)(unsigned line)) {
  unsigned line_number = 0;
  size_t start = 0;
  while (start < length) {
    size_t stop = start;
    while (stop < length && text[stop] != '\n') {
      ++stop;
    }
    ++line_number;
    bool malformed = false;
    if (!LoadLine(text + start, stop - start, malformed)) {
      SortRanges();
      return false;
    }
    if (malformed) {
      if (skipped != nullptr) {
        ++*skipped;
      }
      if (on_skip != nullptr) {
        on_skip(line_number);
      }
    }
    start = stop + 1;
  }
  SortRanges();
  return true;
}

int Catalogue::Match(const char *name, size_t length, uint64_t *key) const {
  if (name == nullptr || m_suffix_count == 0) {
    return -1;
  }
  if (length != 0 && name[length - 1] == '.') {
    --length;
  }
  if (length == 0 || length > kMaxNameText) {
    return -1;
  }
  // One walk from the right: the hash so far is the key of the suffix that
  // starts here, looked up at every label boundary; the leftmost hit is the
  // longest suffix.
  int found = -1;
  uint64_t h = kFnvBasis;
  unsigned labels = 0;
  for (size_t i = length; i > 0; --i) {
    h = Step(h, name[i - 1]);
    if (i - 1 != 0 && name[i - 2] != '.') {
      continue;
    }
    // No suffix has more labels than the longest one.
    if (++labels > m_max_labels) {
      break;
    }
    const uint64_t k = Final(h);
    auto it = m_suffixes.find(static_cast<uintptr_t>(k));
    if (it == m_suffixes.end()) {
      continue;
    }
    const Suffix &s = m_suffix_list[it->second];
    const size_t n = length - (i - 1);
    if (s.length != n) {
      continue;
    }
    bool same = true;
    for (size_t j = 0; j < n && same; ++j) {
      same = Lower(name[i - 1 + j]) == s.text[j];
    }
    if (same) {
      found = static_cast<int>(s.service);
      if (key != nullptr) {
        *key = k;
      }
    }
  }
  return found;
}

int Catalogue::ByKey(uint64_t key) const {
  auto it = m_suffixes.find(static_cast<uintptr_t>(key));
  return it == m_suffixes.end() ? -1 : static_cast<int>(m_suffix_list[it->second].service);
}

bool Catalogue::Holds(const Range &r, const oru::IpAddr &address, bool v4) {
  return r.v4 == v4 && (address.m_high & r.mask.m_high) == r.base.m_high &&
         (address.m_low & r.mask.m_low) == r.base.m_low;
}

bool Catalogue::Before(const Range &a, const Range &b) {
  return a.base < b.base || (a.base == b.base && a.bits < b.bits);
}

void Catalogue::SortRanges() {
  // Heap sort by base, then length: no memory, no worst case.
  Range *r = m_ranges;
  const uint32_t n = m_range_count;
  auto sift = [r](uint32_t at, uint32_t end) {
    for (uint32_t child = 2 * at + 1; child < end; at = child, child = 2 * at + 1) {
      if (child + 1 < end && Before(r[child], r[child + 1])) {
        ++child;
      }
      if (!Before(r[at], r[child])) {
        return;
      }
      const Range t = r[at];
      r[at] = r[child];
      r[child] = t;
    }
  };
  for (uint32_t i = n / 2; i > 0; --i) {
    sift(i - 1, n);
  }
  for (uint32_t end = n; end > 1; --end) {
    const Range t = r[0];
    r[0] = r[end - 1];
    r[end - 1] = t;
    sift(0, end - 1);
  }
  // Address ranges nest or stay apart: each one's parent is the nearest
  // earlier range that holds its base.
  for (uint32_t i = 0; i < n; ++i) {
    int32_t p = static_cast<int32_t>(i) - 1;
    while (p >= 0 && !(Holds(r[p], r[i].base, r[i].v4) && r[p].bits < r[i].bits)) {
      p = r[p].parent;
    }
    r[i].parent = p;
  }
}

int Catalogue::MatchAddress(const oru::IpAddr &address) const {
  const bool v4 = address.m_high == 0 && (address.m_low >> 32) == 0;
  // The last range that starts at or before the address; the longest range
  // that holds it is that one or one of its parents.
  uint32_t low = 0;
  uint32_t high = m_range_count;
  while (low < high) {
    const uint32_t mid = low + (high - low) / 2;
    if (address < m_ranges[mid].base) {
      high = mid;
    } else {
      low = mid + 1;
    }
  }
  for (int32_t at = static_cast<int32_t>(low) - 1; at >= 0; at = m_ranges[at].parent) {
    if (Holds(m_ranges[at], address, v4)) {
      return static_cast<int>(m_ranges[at].service);
    }
  }
  return -1;
}

} // namespace kest_service
