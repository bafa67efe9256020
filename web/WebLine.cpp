#include <kest.h>
#include <kest/WebLine.h>
#include <kest/kit/FlowView.h>

namespace oru {

namespace {

bool Space(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// The delimiters that end the three tokens.
const char seek_char[3] = {' ', ' ', '\r'};

FlowString Span(const FlowBuffer &flow, unsigned long long from, unsigned long long to) {
  return FlowString(&flow, from, static_cast<uint32_t>(to - from));
}

// WebLine::Parse from `p`, the line's first byte, reading `bytes` (the flow
// itself or a FlowTail over it); `e` is the data's end in 32 bits.
template <class Bytes>
bool ParseFrom(WebLine &line, const FlowBuffer &flow, const Bytes &bytes, uint32_t p, uint32_t e,
               unsigned long long &pos, bool check_protocol) {
  using enum WebLine::Type;
  const unsigned long long end = bytes.End();
  const unsigned long long nl = bytes.Find(p, '\n', e);
  const bool finished = nl != end;
  unsigned long long mark = nl;

  const unsigned long long s1 = bytes.Find(p, seek_char[0], nl);
  if (s1 == end) {
    line.m_first = Span(flow, p, nl);
    if (finished) {
      line.m_type = LINE_UNKNOWN;
      return true;
    }
  } else {
    line.m_first = Span(flow, p, s1);
    const unsigned long long p2 = s1 + 1;
    const unsigned long long s2 = bytes.Find(p2, seek_char[1], nl);
    if (s2 == end) {
      line.m_second = Span(flow, p2, nl);
      if (finished) {
        line.m_type = LINE_UNKNOWN;
        return true;
      }
    } else {
      line.m_second = Span(flow, p2, s2);
      const unsigned long long p3 = s2 + 1;
      const unsigned long long s3 = bytes.Find(p3, seek_char[2], nl);
      if (s3 == end) {
        line.m_third = Span(flow, p3, nl);
      } else {
        line.m_third = Span(flow, p3, s3);
        mark = s3 + 1;
      }
    }
  }

  // Request: the first token names a method, the third begins with the
  // protocol word and "/".
  if (line.m_first.length == 0) {
    line.m_type = LINE_UNKNOWN;
    return true;
  }
  const uint32_t word =
      line.m_protocol != nullptr ? static_cast<uint32_t>(kest_strlen(line.m_protocol)) : 0;
  bool decided = false;
  if (line.m_methods != nullptr) {
    // Most methods differ from the first word in its first byte: that one
    // byte settles them without a comparison in the flow.
    const char lead = line.m_first.length != 0 ? bytes.At(line.m_first.pos) : '\0';
    for (size_t i = 0; i < line.m_methods->size(); ++i) {
      const WebMethod &method = (*line.m_methods)[i];
      const uint16_t first_length = static_cast<uint16_t>(line.m_first.length);
      const uint16_t n = method.length < first_length ? method.length : first_length;
      if (n != 0 && method.name[0] != lead) {
        continue;
      }
      if (bytes.Compare(line.m_first.pos, method.name, n) != 0) {
        continue;
      }
      if (method.length == line.m_first.length) {
        if (line.m_third.length == 0) {
          line.m_type = LINE_UNDECIDED;
          decided = true;
        } else if (!(line.m_third.length > word && bytes.At(line.m_third.pos + word) != '/')) {
          const uint32_t m = line.m_third.length < word ? line.m_third.length : word;
          if (bytes.Compare(line.m_third.pos, line.m_protocol, m) == 0) {
            line.m_type = line.m_third.length > word ? LINE_REQUEST : LINE_UNDECIDED;
            decided = true;
          }
        }
      } else if (line.m_second.length == 0 && method.length >= line.m_first.length) {
        // The token may still grow into the method.
        line.m_type = LINE_UNDECIDED;
        decided = true;
      }
      break;
    }
  }

  if (!decided) {
    if (check_protocol) {
      const uint32_t m = word < line.m_first.length ? word : line.m_first.length;
      if (bytes.Compare(line.m_first.pos, line.m_protocol, m) != 0) {
        line.m_type = LINE_UNKNOWN;
        return true;
      }
      if (line.m_first.length <= word) {
        line.m_type = LINE_UNDECIDED;
        decided = true;
      } else if (bytes.At(line.m_first.pos + word) != '/') {
        line.m_type = LINE_UNKNOWN;
        return true;
      }
    }
  }
  if (!decided) {
    // Response: a code of exactly three digits.
    if (line.m_second.length == 0) {
      line.m_type = LINE_UNDECIDED;
    } else if (line.m_second.length > 3) {
      line.m_type = LINE_UNKNOWN;
      return true;
    } else {
      for (uint32_t i = 0; i < line.m_second.length; ++i) {
        const char c = bytes.At(line.m_second.pos + i);
        if (c < '0' || c > '9') {
          line.m_type = LINE_UNKNOWN;
          return true;
        }
      }
      line.m_type = line.m_second.length == 3 ? LINE_RESPONSE : LINE_UNDECIDED;
    }
  }

  if (nl == e) {
    return false;
  }
  if (mark == nl && line.m_type != LINE_UNDECIDED) {
    pos = static_cast<uint32_t>(nl + 1);
    return true;
  }
  line.m_type = LINE_UNKNOWN;
  return true;
}

} // namespace

bool WebLine::Parse(const FlowBuffer &flow, unsigned long long &pos, bool check_protocol) {
  uint32_t p = static_cast<uint32_t>(pos);
  const uint32_t e = static_cast<uint32_t>(flow.End());
  if (p >= e) {
    m_type = LINE_UNDECIDED;
    return false;
  }
  while (p < e && Space(flow.At(p))) {
    ++p;
  }
  if (p == e) {
    pos = e;
    m_type = LINE_UNDECIDED;
    return false;
  }
  // A first line mostly lies in one block: read in place, without a block
  // look-up a search.
  const kit::FlowTail tail(flow, p);
  if (tail.Whole() && tail.End() == e) {
    return ParseFrom(*this, flow, tail, p, e, pos, check_protocol);
  }
  return ParseFrom(*this, flow, flow, p, e, pos, check_protocol);
}

} // namespace oru
