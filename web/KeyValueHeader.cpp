#include <kest/KeyValueHeader.h>

namespace oru {

namespace {

bool Blank(char c) {
  return c == ' ' || c == '\t';
}

} // namespace

bool KeyValueHeader::Parse(const FlowBuffer &flow, unsigned long long &pos) {
  if (m_state != HEADER_PARSING) {
    return true;
  }
  m_flow = &flow;
  const unsigned long long end = flow.End();
  while (true) {
    const unsigned long long p = pos;
    if (p == end) {
      return false;
    }
    const unsigned long long nl = flow.Find(p, '\n', end);
    if (nl == end) {
      return false;
    }
    if (nl == p || (nl == p + 1 && flow.At(p) == '\r')) {
      pos = nl + 1;
      m_state = HEADER_COMPLETE;
      return true;
    }
    const unsigned long long sep = flow.Find(p, m_separator, nl);
    if (sep == end) {
      m_state = HEADER_COMPLETE;
      return true;
    }
    // Lines that begin with a blank and hold no separator continue this one,
    // as far as the buffer holds them.
    unsigned long long line_end = nl;
    for (unsigned long long q = nl + 1; q != end && Blank(flow.At(q));) {
      const unsigned long long nl2 = flow.Find(q, '\n', end);
      if (nl2 == end) {
        return false;
      }
      if (flow.Find(q, m_separator, nl2) != end) {
        break;
      }
      line_end = nl2;
      q = nl2 + 1;
    }
    unsigned long long v = sep + 1;
    while (v < line_end) {
      const char c = flow.At(v);
      if (!Blank(c) && c != '\r' && c != '\n') {
        break;
      }
      ++v;
    }
    pos = line_end + 1;
    unsigned long long value_end = line_end;
    if (v < line_end && flow.At(line_end - 1) == '\r') {
      value_end = line_end - 1;
    }
    m_records.push_back(KeyValueRecord{p, sep, v, v < line_end ? value_end : line_end});
  }
}

bool KeyValueHeader::Parse(const FlowBuffer &flow) {
  unsigned long long pos = flow.m_read_pos;
  const bool done = Parse(flow, pos);
  // The read position is the reader's to move, though the buffer is handed
  // over as constant.
  const_cast<FlowBuffer &>(flow).m_read_pos = pos;
  return done;
}

void KeyValueHeader::Reset() {
  m_records.clear();
  m_state = HEADER_PARSING;
  m_flow = nullptr;
}

} // namespace oru
