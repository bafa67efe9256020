#include <kest.h>
#include <kest/WebLine.h>

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
  const unsigned long long end = flow.End();
  const unsigned long long nl = flow.Find(p, '\n', e);
  const bool finished = nl != end;
  unsigned long long mark = nl;

  const unsigned long long s1 = flow.Find(p, seek_char[0], nl);
  if (s1 == end) {
    m_first = Span(flow, p, nl);
    if (finished) {
      m_type = LINE_UNKNOWN;
      return true;
    }
  } else {
    m_first = Span(flow, p, s1);
    const unsigned long long p2 = s1 + 1;
    const unsigned long long s2 = flow.Find(p2, seek_char[1], nl);
    if (s2 == end) {
      m_second = Span(flow, p2, nl);
      if (finished) {
        m_type = LINE_UNKNOWN;
        return true;
      }
    } else {
      m_second = Span(flow, p2, s2);
      const unsigned long long p3 = s2 + 1;
      const unsigned long long s3 = flow.Find(p3, seek_char[2], nl);
      if (s3 == end) {
        m_third = Span(flow, p3, nl);
      } else {
        m_third = Span(flow, p3, s3);
        mark = s3 + 1;
      }
    }
  }

  // Request: the first token names a method, the third begins with the
  // protocol word and "/".
  if (m_first.length == 0) {
    m_type = LINE_UNKNOWN;
    return true;
  }
  const uint32_t word = m_protocol != nullptr ? static_cast<uint32_t>(kest_strlen(m_protocol)) : 0;
  bool decided = false;
  if (m_methods != nullptr) {
    // Most methods differ from the first word in its first byte: that one
    // byte settles them without a comparison in the flow.
    const char lead = m_first.length != 0 ? flow.At(m_first.pos) : '\0';
    for (size_t i = 0; i < m_methods->size(); ++i) {
      const WebMethod &method = (*m_methods)[i];
      const uint16_t first_length = static_cast<uint16_t>(m_first.length);
      const uint16_t n = method.length < first_length ? method.length : first_length;
      if (n != 0 && method.name[0] != lead) {
        continue;
      }
      if (flow.Compare(m_first.pos, method.name, n) != 0) {
        continue;
      }
      if (method.length == m_first.length) {
        if (m_third.length == 0) {
          m_type = LINE_UNDECIDED;
          decided = true;
        } else if (!(m_third.length > word && flow.At(m_third.pos + word) != '/')) {
          const uint32_t m = m_third.length < word ? m_third.length : word;
          if (flow.Compare(m_third.pos, m_protocol, m) == 0) {
            m_type = m_third.length > word ? LINE_REQUEST : LINE_UNDECIDED;
            decided = true;
          }
        }
      } else if (m_second.length == 0 && method.length >= m_first.length) {
        // The token may still grow into the method.
        m_type = LINE_UNDECIDED;
        decided = true;
      }
      break;
    }
  }

  if (!decided) {
    if (check_protocol) {
      const uint32_t m = word < m_first.length ? word : m_first.length;
      if (flow.Compare(m_first.pos, m_protocol, m) != 0) {
        m_type = LINE_UNKNOWN;
        return true;
      }
      if (m_first.length <= word) {
        m_type = LINE_UNDECIDED;
        decided = true;
      } else if (flow.At(m_first.pos + word) != '/') {
        m_type = LINE_UNKNOWN;
        return true;
      }
    }
  }
  if (!decided) {
    // Response: a code of exactly three digits.
    if (m_second.length == 0) {
      m_type = LINE_UNDECIDED;
    } else if (m_second.length > 3) {
      m_type = LINE_UNKNOWN;
      return true;
    } else {
      for (uint32_t i = 0; i < m_second.length; ++i) {
        const char c = flow.At(m_second.pos + i);
        if (c < '0' || c > '9') {
          m_type = LINE_UNKNOWN;
          return true;
        }
      }
      m_type = m_second.length == 3 ? LINE_RESPONSE : LINE_UNDECIDED;
    }
  }

  if (nl == e) {
    return false;
  }
  if (mark == nl && m_type != LINE_UNDECIDED) {
    pos = static_cast<uint32_t>(nl + 1);
    return true;
  }
  m_type = LINE_UNKNOWN;
  return true;
}

} // namespace oru
