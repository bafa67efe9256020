// A run of bytes in a FlowBuffer, named without copying: tokens of first
// lines, body pieces and attribute values travel as FlowStrings. A plain
// value (three fields; copying copies no bytes) that is valid as long as the
// buffer holds the bytes. Compare and search it with the buffer's reads
// (Compare, CaseCompare, Find) at `pos` for `length` bytes.
#ifndef KEST_FLOWSTRING_H
#define KEST_FLOWSTRING_H

#include <kest/Export.h>
#include <kest/FlowBuffer.h>
#include <kest/fdt/basic_string.h>
#include <stdint.h>

namespace oru {

// Layout fixed: flow, pos, length.
class KEST_API FlowString {
public:
  FlowString() : flow(nullptr), pos(0), length(0) {}
  FlowString(const FlowBuffer *f, uint64_t p, uint32_t n) : flow(f), pos(p), length(n) {}

  // The bytes as URL-encoded text in a new string: letters, digits and
  // "-_.~" as they are, a blank as "+", anything else as "%" and two
  // lower-case hexadecimal digits. A byte no block covers encodes as "%00";
  // an unset string, or no memory, gives an empty string.
  fdt::basic_string<local_container_alloc<char>> UrlEncode() const;

  // Null for an empty, unset string; not owned.
  const FlowBuffer *flow;
  // Stream position of the first byte.
  uint64_t pos;
  // Number of bytes.
  uint32_t length;
};

} // namespace oru

#endif
