// Whether the first line of one side of a TCP stream is HTTP/1.x: a request
// line ("GET /x HTTP/1.1") or a status line ("HTTP/1.1 200 OK"), judged
// from the reassembled bytes alone, on any port.
//
// The judgement waits for the whole line, so that it never names a
// connection HTTP that the message inspector then cannot read, and it gives
// up on a line longer than kMaxFirstLine: the bytes a side keeps while it is
// undecided stay bounded.
#ifndef KEST_DECODERS_HTTP_HTTPSNIFF_H
#define KEST_DECODERS_HTTP_HTTPSNIFF_H

#include <kest/FlowBuffer.h>
#include <stddef.h>
#include <stdint.h>

namespace kest_http {

enum class FirstLine {
  kNeedMore, // a valid beginning so far
  kRequest,
  kResponse,
  kNotHttp,
};

// Longest first line waited for, blank lines before it included.
constexpr uint32_t kMaxFirstLine = 8192;

struct MethodName {
  const char *name;
  uint8_t length;
};

// The request methods recognised: RFC 9110, PATCH and the WebDAV family. No
// name is a prefix of another, so a growing token never matches two.
extern const MethodName kMethods[];
extern const size_t kMethodCount;

// Judges the line that starts at stream position `from` of `flow`, reading
// only up to End(). Blank lines (CR, LF) before it are skipped.
FirstLine SniffFirstLine(const oru::FlowBuffer &flow, uint64_t from);

} // namespace kest_http

#endif
