#include "http/HttpSniff.h"

#include <kest/kit/FlowView.h>

namespace kest_http {

#define KEST_HTTP_METHOD(text)                                                                     \
  { text, sizeof(text) - 1 }
const MethodName kMethods[] = {
    KEST_HTTP_METHOD("GET"),
    KEST_HTTP_METHOD("HEAD"),
    KEST_HTTP_METHOD("POST"),
    KEST_HTTP_METHOD("PUT"),
    KEST_HTTP_METHOD("DELETE"),
    KEST_HTTP_METHOD("CONNECT"),
    KEST_HTTP_METHOD("OPTIONS"),
    KEST_HTTP_METHOD("TRACE"),
    KEST_HTTP_METHOD("PATCH"),
    KEST_HTTP_METHOD("PROPFIND"),
    KEST_HTTP_METHOD("PROPPATCH"),
    KEST_HTTP_METHOD("MKCOL"),
    KEST_HTTP_METHOD("COPY"),
    KEST_HTTP_METHOD("MOVE"),
    KEST_HTTP_METHOD("LOCK"),
    KEST_HTTP_METHOD("UNLOCK"),
    KEST_HTTP_METHOD("SEARCH"),
    KEST_HTTP_METHOD("REPORT"),
    KEST_HTTP_METHOD("MKACTIVITY"),
    KEST_HTTP_METHOD("CHECKOUT"),
    KEST_HTTP_METHOD("CHECKIN"),
    KEST_HTTP_METHOD("UNCHECKOUT"),
    KEST_HTTP_METHOD("MERGE"),
    KEST_HTTP_METHOD("NOTIFY"),
    KEST_HTTP_METHOD("SUBSCRIBE"),
    KEST_HTTP_METHOD("UNSUBSCRIBE"),
    KEST_HTTP_METHOD("PURGE"),
    KEST_HTTP_METHOD("ACL"),
    KEST_HTTP_METHOD("MKCALENDAR"),
    KEST_HTTP_METHOD("LINK"),
    KEST_HTTP_METHOD("UNLINK"),
    KEST_HTTP_METHOD("BIND"),
    KEST_HTTP_METHOD("UNBIND"),
    KEST_HTTP_METHOD("REBIND"),
    KEST_HTTP_METHOD("LABEL"),
    KEST_HTTP_METHOD("UPDATE"),
    KEST_HTTP_METHOD("MKWORKSPACE"),
    KEST_HTTP_METHOD("ORDERPATCH"),
    KEST_HTTP_METHOD("VERSION-CONTROL"),
    KEST_HTTP_METHOD("BASELINE-CONTROL"),
};
#undef KEST_HTTP_METHOD
const size_t kMethodCount = sizeof kMethods / sizeof kMethods[0];

namespace {

using oru::kit::Match;
using Cursor = oru::kit::LineCursor;

// "HTTP/1." and one digit.
Match Version(Cursor &c) {
  const Match m = c.Literal("HTTP/1.", 7);
  return m != Match::kYes ? m : c.Digits(1);
}

// "HTTP/1.x NNN reason": the reason may be empty, but the blank before it
// is required; only horizontal tabs among the control bytes.
Match StatusLine(Cursor c) {
  Match m = Version(c);
  if (m == Match::kYes) {
    m = c.Literal(" ", 1);
  }
  if (m == Match::kYes) {
    m = c.Digits(3);
  }
  if (m == Match::kYes) {
    m = c.Literal(" ", 1);
  }
  return m != Match::kYes ? m : c.Rest();
}

// Whether `token` (n bytes) is a known method (kYes) or the beginning of
// one (kMore).
Match Method(const char *token, size_t n) {
  Match best = Match::kNo;
  for (size_t i = 0; i < kMethodCount; ++i) {
    const MethodName &m = kMethods[i];
    // Most names differ from the token in their first letter.
    if (n > m.length || (n != 0 && token[0] != m.name[0])) {
      continue;
    }
    size_t k = 0;
    while (k < n && token[k] == m.name[k]) {
      ++k;
    }
    if (k == n) {
      if (n == m.length) {
        return Match::kYes;
      }
      best = Match::kMore;
    }
  }
  return best;
}

// "METHOD target HTTP/1.x": one blank each side of a target of visible
// bytes (above 0x7f allowed: some clients send raw UTF-8).
Match RequestLine(Cursor c) {
  char token[20] = {};
  size_t n = 0;
  while (true) {
    if (c.AtEnd()) {
      // A token that can still grow into a method waits for more.
      return Method(token, n) == Match::kNo ? Match::kNo : c.OutOfBytes();
    }
    const unsigned char b = c.Peek();
    if (b == ' ') {
      break;
    }
    if (n == sizeof token) {
      return Match::kNo;
    }
    token[n++] = static_cast<char>(b);
    if (Method(token, n) == Match::kNo) {
      return Match::kNo;
    }
    c.Skip();
  }
  if (Method(token, n) != Match::kYes) {
    return Match::kNo;
  }
  c.Skip();
  size_t target = 0;
  while (true) {
    if (c.AtEnd()) {
      return c.OutOfBytes();
    }
    const unsigned char b = c.Peek();
    if (b == ' ') {
      break;
    }
    if (b <= 0x20 || b == 0x7f) {
      return Match::kNo;
    }
    ++target;
    c.Skip();
  }
  if (target == 0) {
    return Match::kNo;
  }
  c.Skip();
  const Match m = Version(c);
  return m != Match::kYes ? m : c.LineEnd();
}

} // namespace

FirstLine SniffFirstLine(const oru::FlowBuffer &flow, uint64_t from) {
  const uint64_t end = flow.End();
  const uint64_t limit = from + kMaxFirstLine;
  uint64_t p = from;
  while (p < end && p < limit && (flow.At(p) == '\r' || flow.At(p) == '\n')) {
    ++p;
  }
  if (p >= limit) {
    return FirstLine::kNotHttp;
  }
  if (p >= end) {
    return FirstLine::kNeedMore;
  }
  const Match response = StatusLine(Cursor(flow, p, end, limit));
  if (response == Match::kYes) {
    return FirstLine::kResponse;
  }
  const Match request = RequestLine(Cursor(flow, p, end, limit));
  if (request == Match::kYes) {
    return FirstLine::kRequest;
  }
  return response == Match::kMore || request == Match::kMore ? FirstLine::kNeedMore
                                                             : FirstLine::kNotHttp;
}

} // namespace kest_http
