#include "message/MessageLine.h"

#include <kest/kit/FlowView.h>

namespace kest_message {

namespace {

const Word kSipVersions[] = {KEST_MESSAGE_WORD("SIP/2.0")};
const Word kSipMethods[] = {
    KEST_MESSAGE_WORD("INVITE"),  KEST_MESSAGE_WORD("ACK"),       KEST_MESSAGE_WORD("BYE"),
    KEST_MESSAGE_WORD("CANCEL"),  KEST_MESSAGE_WORD("OPTIONS"),   KEST_MESSAGE_WORD("REGISTER"),
    KEST_MESSAGE_WORD("PRACK"),   KEST_MESSAGE_WORD("SUBSCRIBE"), KEST_MESSAGE_WORD("NOTIFY"),
    KEST_MESSAGE_WORD("PUBLISH"), KEST_MESSAGE_WORD("INFO"),      KEST_MESSAGE_WORD("REFER"),
    KEST_MESSAGE_WORD("MESSAGE"), KEST_MESSAGE_WORD("UPDATE"),
};

const Word kRtspVersions[] = {KEST_MESSAGE_WORD("RTSP/1.0"), KEST_MESSAGE_WORD("RTSP/2.0")};
const Word kRtspMethods[] = {
    KEST_MESSAGE_WORD("OPTIONS"),       KEST_MESSAGE_WORD("DESCRIBE"),
    KEST_MESSAGE_WORD("ANNOUNCE"),      KEST_MESSAGE_WORD("SETUP"),
    KEST_MESSAGE_WORD("PLAY"),          KEST_MESSAGE_WORD("PAUSE"),
    KEST_MESSAGE_WORD("TEARDOWN"),      KEST_MESSAGE_WORD("GET_PARAMETER"),
    KEST_MESSAGE_WORD("SET_PARAMETER"), KEST_MESSAGE_WORD("REDIRECT"),
    KEST_MESSAGE_WORD("RECORD"),        KEST_MESSAGE_WORD("PLAY_NOTIFY"),
};

const Word kSsdpVersions[] = {KEST_MESSAGE_WORD("HTTP/1.1"), KEST_MESSAGE_WORD("HTTP/1.0")};
const Word kSsdpMethods[] = {KEST_MESSAGE_WORD("M-SEARCH"), KEST_MESSAGE_WORD("NOTIFY")};

template <size_t N> constexpr size_t Count(const Word (&)[N]) {
  return N;
}

using oru::kit::Match;
using Cursor = oru::kit::LineCursor;

// One of the dialect's versions, whole.
Match Version(Cursor &c, const Dialect &d) {
  Match best = Match::kNo;
  for (size_t i = 0; i < d.version_count; ++i) {
    Cursor tried = c;
    const Match m = tried.Literal(d.versions[i].text, d.versions[i].length);
    if (m == Match::kYes) {
      c = tried;
      return m;
    }
    if (m == Match::kMore) {
      best = m;
    }
  }
  return best;
}

// "VERSION NNN reason", the reason possibly empty.
Match StatusLine(Cursor c, const Dialect &d) {
  Match m = Version(c, d);
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

// Whether the token is a method (kYes) or the beginning of one (kMore).
Match Method(const Dialect &d, const char *token, size_t n) {
  Match best = Match::kNo;
  for (size_t i = 0; i < d.method_count; ++i) {
    const Word &w = d.methods[i];
    // Most names differ from the token in their first letter.
    if (n > w.length || (n != 0 && token[0] != w.text[0])) {
      continue;
    }
    size_t k = 0;
    while (k < n && token[k] == w.text[k]) {
      ++k;
    }
    if (k == n) {
      if (n == w.length) {
        return Match::kYes;
      }
      best = Match::kMore;
    }
  }
  return best;
}

// "METHOD target VERSION": one blank each side of a target of visible bytes.
Match RequestLine(Cursor c, const Dialect &d) {
  char token[20] = {};
  size_t n = 0;
  while (true) {
    if (c.AtEnd()) {
      return Method(d, token, n) == Match::kNo ? Match::kNo : c.OutOfBytes();
    }
    const unsigned char b = c.Peek();
    if (b == ' ') {
      break;
    }
    if (n == sizeof token) {
      return Match::kNo;
    }
    token[n++] = static_cast<char>(b);
    if (Method(d, token, n) == Match::kNo) {
      return Match::kNo;
    }
    c.Skip();
  }
  if (Method(d, token, n) != Match::kYes) {
    return Match::kNo;
  }
  c.Skip();
  size_t target = 0;
  bool star = true;
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
    star = star && b == '*';
    ++target;
    c.Skip();
  }
  if (target == 0 || (d.star_target && (target != 1 || !star))) {
    return Match::kNo;
  }
  c.Skip();
  const Match m = Version(c, d);
  return m != Match::kYes ? m : c.LineEnd();
}

} // namespace

const Dialect kSip{"SIP",       kSipVersions,       Count(kSipVersions),
                   kSipMethods, Count(kSipMethods), false};
const Dialect kRtsp{"RTSP",       kRtspVersions,       Count(kRtspVersions),
                    kRtspMethods, Count(kRtspMethods), false};
const Dialect kSsdp{"HTTP",       kSsdpVersions,       Count(kSsdpVersions),
                    kSsdpMethods, Count(kSsdpMethods), true};

FirstLine SniffFirstLine(const oru::FlowBuffer &flow, uint64_t from, uint64_t end,
                         const Dialect &dialect) {
  if (end > flow.End()) {
    end = flow.End();
  }
  const uint64_t limit = from + kMaxFirstLine;
  uint64_t p = from;
  while (p < end && p < limit && (flow.At(p) == '\r' || flow.At(p) == '\n')) {
    ++p;
  }
  if (p >= limit) {
    return FirstLine::kNo;
  }
  if (p >= end) {
    return FirstLine::kNeedMore;
  }
  const Match response = StatusLine(Cursor(flow, p, end, limit), dialect);
  if (response == Match::kYes) {
    return FirstLine::kResponse;
  }
  const Match request = RequestLine(Cursor(flow, p, end, limit), dialect);
  if (request == Match::kYes) {
    return FirstLine::kRequest;
  }
  return response == Match::kMore || request == Match::kMore ? FirstLine::kNeedMore
                                                             : FirstLine::kNo;
}

} // namespace kest_message
