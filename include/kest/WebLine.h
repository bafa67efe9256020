// The first line of a message of a web-like protocol: a request ("GET /
// HTTP/1.1") or a response ("HTTP/1.1 200 OK"), told apart from partial data
// on. The protocol is not built in: the inspector supplies its methods and
// its protocol word (what a version begins with, before the "/"). Tokens are
// FlowStrings into the buffer; nothing is copied.
//
// Positions are 32-bit: lines are recognised within the first 4 GiB of a
// stream only.
#ifndef KEST_WEBLINE_H
#define KEST_WEBLINE_H

#include <kest/Export.h>
#include <kest/FlowBuffer.h>
#include <kest/FlowString.h>
#include <kest/KeyValueHeader.h>
#include <kest/fdt/vector.h>
#include <stdint.h>

namespace oru {

// A method of the protocol. Layout fixed: name, length.
struct WebMethod {
  const char *name;
  uint16_t length;
};

using WebMethodTable = fdt::vector<WebMethod>;

// Layout fixed: m_type, m_methods, m_protocol, m_first, m_second, m_third.
class KEST_API WebLine {
public:
  enum Type : int32_t {
    LINE_UNKNOWN = -1,
    LINE_UNDECIDED = 0,
    LINE_REQUEST = 1,
    LINE_RESPONSE = 2,
  };

  WebLine() : m_type(LINE_UNKNOWN), m_methods(nullptr), m_protocol(nullptr) {}
  WebLine(const WebMethodTable *methods, const char *protocol)
      : m_type(LINE_UNKNOWN), m_methods(methods), m_protocol(protocol) {}

  // Reads the line at `pos` (blank lines before it are skipped). True when
  // it is decided: LINE_REQUEST or LINE_RESPONSE with `pos` behind its
  // newline, or LINE_UNKNOWN for a line of another protocol (a line with
  // fewer than three tokens included). False when more data is needed:
  // LINE_UNDECIDED, with `pos` at the end of the data when only blank lines
  // were there, unchanged otherwise. With `check_protocol` false a response
  // is known by its three-digit code alone.
  bool Parse(const FlowBuffer &flow, unsigned long long &pos, bool check_protocol);

  int32_t m_type;
  // Borrowed from the inspector.
  const WebMethodTable *m_methods;
  const char *m_protocol;
  // Request: method, target, version. Response: version, code, reason.
  FlowString m_first;
  FlowString m_second;
  FlowString m_third;
};

// A message head: the header lines (separator ":") behind the first line.
// No fields of its own.
class KEST_API WebHeader : public KeyValueHeader, public WebLine {
public:
  WebHeader() : KeyValueHeader(':') {}
};

} // namespace oru

#endif
