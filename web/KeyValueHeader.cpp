#include <kest/KeyValueHeader.h>
#include <kest/kit/FlowView.h>

namespace oru {

namespace {

bool Blank(char c) {
  return c == ' ' || c == '\t';
}

// KeyValueHeader::Parse over `flow`'s bytes (a FlowBuffer or a FlowTail) up
// to `end`.
template <class Bytes>
bool ParseLines(KeyValueHeader &header, const Bytes &flow, unsigned long long &pos,
                unsigned long long end) {
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
      header.m_state = KeyValueHeader::HEADER_COMPLETE;
      return true;
    }
    const unsigned long long sep = flow.Find(p, header.m_separator, nl);
    if (sep == end) {
      header.m_state = KeyValueHeader::HEADER_COMPLETE;
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
      if (flow.Find(q, header.m_separator, nl2) != end) {
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
    header.m_records.push_back(KeyValueRecord{p, sep, v, v < line_end ? value_end : line_end});
  }
}

} // namespace

bool KeyValueHeader::Parse(const FlowBuffer &flow, unsigned long long &pos) {
  if (m_state != HEADER_PARSING) {
    return true;
  }
  m_flow = &flow;
  // A head mostly lies in one block: read in place, without a block look-up
  // per byte.
  const kit::FlowTail tail(flow, pos);
  if (tail.Whole()) {
    return ParseLines(*this, tail, pos, tail.End());
  }
  return ParseLines(*this, flow, pos, flow.End());
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
