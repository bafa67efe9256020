// A block of "key <separator> value" lines in a FlowBuffer, parsed a line at
// a time without copying a byte: each record holds stream positions only,
// valid as long as the buffer holds the bytes (keep them with Sync).
//
// Parse may be called again and again as data arrives: it stops at the end
// of the data and resumes at the first unfinished line. A header ends at a
// blank line (consumed) or at a line without the separator (left for the
// caller). A line that starts with a blank or tab and holds no separator
// continues the line before it (folding), when it is already in the buffer;
// a continuation that arrives in a later packet is not joined.
#ifndef KEST_KEYVALUEHEADER_H
#define KEST_KEYVALUEHEADER_H

#include <kest/Export.h>
#include <kest/FlowBuffer.h>
#include <kest/fdt/List.h>
#include <stdint.h>

namespace oru {

// The positions of one line; ends are exclusive. key_end is the separator's
// position, so blanks before it stay in the key; the value starts behind the
// blanks after the separator and ends before the line's "\r\n" or "\n". An
// empty value has value_start == value_end. In its list node it follows the
// two links.
struct KeyValueRecord {
  uint64_t key_start;
  uint64_t key_end;
  uint64_t value_start;
  uint64_t value_end;
};

// Layout fixed: the record list (its sentinel is the head of the object),
// m_state, m_flow, m_separator.
class KEST_API KeyValueHeader {
public:
  enum State : int32_t {
    // Never set by Parse; a message inspector gives up on it.
    HEADER_FAILED = 0,
    HEADER_PARSING = 1,
    HEADER_COMPLETE = 2,
  };
  using RecordList = List<KeyValueRecord>;

  explicit KeyValueHeader(char separator)
      : m_state(HEADER_PARSING), m_flow(nullptr), m_separator(separator) {}
  // A copy holds records of its own (fewer, if memory runs out).
  KeyValueHeader(const KeyValueHeader &) = default;
  KeyValueHeader &operator=(const KeyValueHeader &) = default;

  // Parses from `pos` and moves it past every whole line consumed. True when
  // the header is complete (also when it already was, or has failed); false
  // when more data is needed. A record that cannot be allocated is dropped.
  bool Parse(const FlowBuffer &flow, unsigned long long &pos);
  // The same from the buffer's m_read_pos, which it moves.
  bool Parse(const FlowBuffer &flow);
  // Empty again and parsing, with no buffer.
  void Reset();

  RecordList m_records;
  int32_t m_state;
  // The buffer of the positions, set by each Parse; null before.
  const FlowBuffer *m_flow;
  char m_separator;
};

} // namespace oru

#endif
