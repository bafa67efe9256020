// The service catalogue: which service a server name or address belongs to.
//
// A catalogue is read from text, one service a line (docs/services.md):
//
//   name | category | domain suffixes | address ranges
//   YouTube | streaming | youtube.com youtu.be ytimg.com | 208.65.152.0/22
//
// A name matches the longest suffix that ends it on a label boundary, in any
// case and with one trailing dot ignored: "www.YouTube.com." matches
// "youtube.com", "notyoutube.com" does not. An address matches the longest
// range that holds it. Text loaded later wins over text loaded before: a
// suffix or range given again belongs to the later line's service.
//
// Memory comes from the host's hooks, and every step can fail: a catalogue
// that runs out of memory keeps what it had loaded before. A malformed line
// is skipped (and counted), never taken in part.
#ifndef KEST_DECODERS_SERVICE_CATALOGUE_H
#define KEST_DECODERS_SERVICE_CATALOGUE_H

#include <kest/IpAddr.h>
#include <kest/fdt/hash_table.h>

#include <stddef.h>
#include <stdint.h>

namespace kest_service {

// Bounds of what a line may hold; a longer field makes the line malformed.
constexpr size_t kMaxNameText = 253;     // a server name, without the trailing dot
constexpr size_t kMaxServiceText = 48;   // a service's or a category's name
constexpr size_t kMaxLineText = 4096;    // one catalogue line
constexpr uint32_t kMaxServices = 65535; // services of one catalogue

struct Service {
  const char *name;
  const char *category;
};

// The categories a catalogue line may name; anything else is malformed.
bool KnownCategory(const char *text, size_t length);

// The key of a suffix, the same whatever its case; 0 never names one.
uint64_t SuffixKey(const char *name, size_t length);

class Catalogue {
public:
  Catalogue() = default;
  ~Catalogue();
  Catalogue(const Catalogue &) = delete;
  Catalogue &operator=(const Catalogue &) = delete;

  // Reads the lines of `text`; `skipped` counts the malformed ones (each
  // reported through `on_skip` with its line number, when given). False
  // when memory ran out: the lines before the failing one stay loaded.
  bool Load(const char *text, size_t length, unsigned *skipped = nullptr,
            void (*on_skip)(unsigned line) = nullptr);
  // Forgets everything.
  void Clear();

  // The service of a server name, or -1. `key`, when given, receives the
  // matched suffix's key (for the learned-names store).
  int Match(const char *name, size_t length, uint64_t *key = nullptr) const;
  // The service of a suffix key from Match, or -1.
  int ByKey(uint64_t key) const;
  // The service whose range holds `address`, or -1.
  int MatchAddress(const oru::IpAddr &address) const;

  const Service &At(int index) const { return m_services[index]; }
  uint32_t services() const { return m_service_count; }
  uint32_t suffixes() const { return m_suffixes.size(); }
  uint32_t ranges() const { return m_range_count; }

private:
  struct Suffix {
    const char *text; // lower case
    uint16_t length;
    uint32_t service;
  };
  struct Range {
    oru::IpAddr base; // masked
    oru::IpAddr mask;
    uint8_t bits;   // of 128: an IPv4 range counts 96 more
    bool v4;        // an IPv4 range holds only IPv4 addresses
    int32_t parent; // once sorted: the nearest range that holds this one, or -1
    uint32_t service;
  };

  bool LoadLine(const char *line, size_t length, bool &malformed);
  int AddService(const char *name, size_t name_length, const char *category,
                 size_t category_length);
  bool AddSuffix(const char *text, size_t length, uint32_t service);
  bool AddRange(const oru::IpAddr &base, uint8_t bits, uint32_t service);
  void SortRanges();
  static bool Holds(const Range &r, const oru::IpAddr &address, bool v4);
  static bool Before(const Range &a, const Range &b);
  char *Keep(const char *text, size_t length, bool lower);
  template <class T> bool Grow(T *&array, uint32_t count, uint32_t &capacity);

  Service *m_services = nullptr;
  uint32_t m_service_count = 0;
  uint32_t m_service_capacity = 0;
  Suffix *m_suffix_list = nullptr;
  uint32_t m_suffix_count = 0;
  uint32_t m_suffix_capacity = 0;
  // The most labels of any suffix: a name's longer suffixes are not looked up.
  unsigned m_max_labels = 0;
  Range *m_ranges = nullptr;
  uint32_t m_range_count = 0;
  uint32_t m_range_capacity = 0;
  // Suffix key to its place in m_suffix_list.
  oru::fdt::hash_table<uintptr_t, uint32_t> m_suffixes;
  // Service name key (any case counts as the same) to its place.
  oru::fdt::hash_table<uintptr_t, uint32_t> m_names;
  // The text of names, categories and suffixes, in blocks.
  struct Block {
    Block *next;
    size_t used;
    size_t size;
  };
  Block *m_blocks = nullptr;
};

// Reads an address range "a.b.c.d/n" or "x:y::/n" (a lone address is a
// whole-length range). False when the text is not one.
bool ParseRange(const char *text, size_t length, oru::IpAddr &base, uint8_t &bits);

} // namespace kest_service

#endif
