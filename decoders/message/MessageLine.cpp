#include "message/MessageLine.h"

#include <kest/kit/FlowView.h>

#include <string.h>

namespace kest_message {

namespace {

// HTTP/1.x: "HTTP/1." and one digit. The methods of RFC 9110, PATCH, the
// WebDAV family, and those of a widespread management agent (CCM_POST,
// CCM_SYSTEM_POST); no name is a prefix of another, so a growing token
// never matches two.
const Word kHttpVersions[] = {KEST_MESSAGE_WORD("HTTP/1.")};
const Word kHttpMethods[] = {
    KEST_MESSAGE_WORD("GET"),
    KEST_MESSAGE_WORD("HEAD"),
    KEST_MESSAGE_WORD("POST"),
    KEST_MESSAGE_WORD("PUT"),
    KEST_MESSAGE_WORD("DELETE"),
    KEST_MESSAGE_WORD("CONNECT"),
    KEST_MESSAGE_WORD("OPTIONS"),
    KEST_MESSAGE_WORD("TRACE"),
    KEST_MESSAGE_WORD("PATCH"),
    KEST_MESSAGE_WORD("PROPFIND"),
    KEST_MESSAGE_WORD("PROPPATCH"),
    KEST_MESSAGE_WORD("MKCOL"),
    KEST_MESSAGE_WORD("COPY"),
    KEST_MESSAGE_WORD("MOVE"),
    KEST_MESSAGE_WORD("LOCK"),
    KEST_MESSAGE_WORD("UNLOCK"),
    KEST_MESSAGE_WORD("SEARCH"),
    KEST_MESSAGE_WORD("REPORT"),
    KEST_MESSAGE_WORD("MKACTIVITY"),
    KEST_MESSAGE_WORD("CHECKOUT"),
    KEST_MESSAGE_WORD("CHECKIN"),
    KEST_MESSAGE_WORD("UNCHECKOUT"),
    KEST_MESSAGE_WORD("MERGE"),
    KEST_MESSAGE_WORD("NOTIFY"),
    KEST_MESSAGE_WORD("SUBSCRIBE"),
    KEST_MESSAGE_WORD("UNSUBSCRIBE"),
    KEST_MESSAGE_WORD("PURGE"),
    KEST_MESSAGE_WORD("ACL"),
    KEST_MESSAGE_WORD("MKCALENDAR"),
    KEST_MESSAGE_WORD("LINK"),
    KEST_MESSAGE_WORD("UNLINK"),
    KEST_MESSAGE_WORD("BIND"),
    KEST_MESSAGE_WORD("UNBIND"),
    KEST_MESSAGE_WORD("REBIND"),
    KEST_MESSAGE_WORD("LABEL"),
    KEST_MESSAGE_WORD("UPDATE"),
    KEST_MESSAGE_WORD("MKWORKSPACE"),
    KEST_MESSAGE_WORD("ORDERPATCH"),
    KEST_MESSAGE_WORD("VERSION-CONTROL"),
    KEST_MESSAGE_WORD("BASELINE-CONTROL"),
    KEST_MESSAGE_WORD("CCM_POST"),
    KEST_MESSAGE_WORD("CCM_SYSTEM_POST"),
};

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

// One of the dialect's versions, whole: its word and its digits.
Match Version(Cursor &c, const Dialect &d) {
  Match best = Match::kNo;
  for (size_t i = 0; i < d.version_count; ++i) {
    Cursor tried = c;
    Match m = tried.Literal(d.versions[i].text, d.versions[i].length);
    if (m == Match::kYes) {
      m = tried.Digits(d.version_digits);
    }
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

// "VERSION NNN reason": the reason may be empty, but the blank before it is
// required; only horizontal tabs among the control bytes.
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

// The rest of a request line behind its method's blank, for a dialect whose
// targets may hold blanks and tabs: words of visible bytes and tabs between
// blanks, at least one before the last, which is a version that ends the
// line.
Match SpacedTarget(Cursor c, const Dialect &d) {
  Cursor last = c;
  bool target = false;
  size_t word = 0;
  while (true) {
    word += c.SkipVisible();
    if (c.AtEnd()) {
      return c.OutOfBytes();
    }
    const unsigned char b = c.Peek();
    if (b == '\r' || b == '\n') {
      break;
    }
    if (b == '\t') {
      ++word;
      c.Skip();
      continue;
    }
    if (b != ' ') {
      return Match::kNo;
    }
    target = target || word != 0;
    word = 0;
    c.Skip();
    last = c;
  }
  if (!target || Version(last, d) != Match::kYes) {
    return Match::kNo;
  }
  return last.LineEnd();
}

// Whether the word at `c` is a version of a protocol other than the
// dialect's: capitals, "/", a digit, "." and a digit ("RTSP/1.0").
bool ForeignVersion(Cursor c, const Dialect &d) {
  char name[16];
  size_t n = 0;
  while (!c.AtEnd() && c.Peek() >= 'A' && c.Peek() <= 'Z') {
    if (n == sizeof name) {
      return false;
    }
    name[n++] = static_cast<char>(c.Peek());
    c.Skip();
  }
  if (n == 0 || c.Literal("/", 1) != Match::kYes || c.Digits(1) != Match::kYes ||
      c.Literal(".", 1) != Match::kYes || c.Digits(1) != Match::kYes) {
    return false;
  }
  return strlen(d.protocol) != n || memcmp(name, d.protocol, n) != 0;
}

// The rest of a request line behind its method, for a dialect with loose
// requests: a spaced target and a whole version, or else the line whole, of
// visible bytes, blanks and tabs, its last word no other protocol's
// version, and a header line's name and colon behind it, which a line of
// some other protocol that begins with a method's word seldom has.
Match LooseRest(Cursor c, const Dialect &d) {
  if (!c.AtEnd() && c.Peek() == ' ') {
    Cursor spaced = c;
    spaced.Skip();
    const Match m = SpacedTarget(spaced, d);
    if (m != Match::kNo) {
      return m;
    }
  }
  Cursor last = c;
  while (true) {
    if (c.AtEnd()) {
      return c.OutOfBytes();
    }
    const unsigned char b = c.Peek();
    if (b == '\r' || b == '\n') {
      break;
    }
    if ((b < 0x20 && b != '\t') || b == 0x7f) {
      return Match::kNo;
    }
    c.Skip();
    if (b == ' ' || b == '\t') {
      last = c;
    }
  }
  if (ForeignVersion(last, d)) {
    return Match::kNo;
  }
  const Match end = c.LineEnd();
  if (end != Match::kYes) {
    return end;
  }
  for (size_t name = 0;; ++name) {
    if (c.AtEnd()) {
      return c.OutOfBytes();
    }
    const unsigned char b = c.Peek();
    if (b == ':') {
      return name != 0 ? Match::kYes : Match::kNo;
    }
    if (b <= 0x20 || b == 0x7f) {
      return Match::kNo;
    }
    c.Skip();
  }
}

// "METHOD target VERSION": one blank each side of a target of visible bytes
// (above 0x7f allowed: some clients send raw UTF-8), or LooseRest.
Match RequestLine(Cursor c, const Dialect &d) {
  char token[20] = {};
  size_t n = 0;
  while (true) {
    if (c.AtEnd()) {
      // A token that can still grow into a method waits for more.
      return Method(d, token, n) == Match::kNo ? Match::kNo : c.OutOfBytes();
    }
    const unsigned char b = c.Peek();
    if (b == ' ' || (d.loose_requests && (b == '\r' || b == '\n'))) {
      break;
    }
    if (n == sizeof token) {
      return Match::kNo;
    }
    token[n++] = static_cast<char>(b);
    // The first letter turns most foreign bytes away; the whole token is
    // judged at its end (a token with no method's prefix is no method).
    if (n == 1 && Method(d, token, n) == Match::kNo) {
      return Match::kNo;
    }
    c.Skip();
  }
  if (Method(d, token, n) != Match::kYes) {
    return Match::kNo;
  }
  if (d.loose_requests) {
    return LooseRest(c, d);
  }
  c.Skip();
  const bool star = !c.AtEnd() && c.Peek() == '*';
  const size_t target = c.SkipVisible();
  if (c.AtEnd()) {
    return c.OutOfBytes();
  }
  if (c.Peek() != ' ') {
    return Match::kNo;
  }
  if (target == 0 || (d.star_target && (target != 1 || !star))) {
    return Match::kNo;
  }
  c.Skip();
  const Match m = Version(c, d);
  return m != Match::kYes ? m : c.LineEnd();
}

} // namespace

const Dialect kHttp{
    .protocol = "HTTP",
    .versions = kHttpVersions,
    .version_count = Count(kHttpVersions),
    .version_digits = 1,
    .methods = kHttpMethods,
    .method_count = Count(kHttpMethods),
    .loose_requests = true,
    .max_first_line = 8192,
    .hint = KEST_MESSAGE_WORD("HTTP/1."),
    .hint_needs_text = true,
};
const Dialect kSip{
    .protocol = "SIP",
    .versions = kSipVersions,
    .version_count = Count(kSipVersions),
    .methods = kSipMethods,
    .method_count = Count(kSipMethods),
    .hint = KEST_MESSAGE_WORD("SIP/"),
    .hint_needs_text = true,
};
const Dialect kRtsp{
    .protocol = "RTSP",
    .versions = kRtspVersions,
    .version_count = Count(kRtspVersions),
    .methods = kRtspMethods,
    .method_count = Count(kRtspMethods),
    .hint = KEST_MESSAGE_WORD("RTSP/"),
    .hint_needs_text = true,
};
const Dialect kSsdp{
    .protocol = "HTTP",
    .versions = kSsdpVersions,
    .version_count = Count(kSsdpVersions),
    .methods = kSsdpMethods,
    .method_count = Count(kSsdpMethods),
    .star_target = true,
    .hint = KEST_MESSAGE_WORD("HTTP/"),
    .hint_needs_text = true,
};

FirstLine SniffFirstLine(const oru::FlowBuffer &flow, uint64_t from, uint64_t end,
                         const Dialect &dialect) {
  if (end > flow.End()) {
    end = flow.End();
  }
  const uint64_t limit = from + dialect.max_first_line;
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

FirstLine JudgeOpening(const oru::FlowBuffer &flow, const Dialect &dialect) {
  if (flow.Begin() != 0 || flow.End() == 0) {
    return FirstLine::kNo;
  }
  return SniffFirstLine(flow, 0, flow.End(), dialect);
}

bool DialectOpenings(const Dialect &dialect, uint8_t transport, oru::FirstBytes &first) {
  const bool hinted = transport == 6 && dialect.hint.length != 0;
  if (hinted && !dialect.hint_needs_text) {
    return false;
  }
  for (unsigned side = 0; side < 2; ++side) {
    first.Allow(side, '\r');
    first.Allow(side, '\n');
    for (size_t i = 0; i < dialect.method_count; ++i) {
      first.Allow(side, static_cast<uint8_t>(dialect.methods[i].text[0]));
    }
    for (size_t i = 0; i < dialect.version_count; ++i) {
      first.Allow(side, static_cast<uint8_t>(dialect.versions[i].text[0]));
    }
    if (hinted) {
      first.AllowWhere(side, [](uint8_t b) { return b >= 0x21 && b <= 0x7e; });
    }
  }
  return true;
}

namespace {

// Whether the bytes [from, to) are one of the dialect's versions, whole:
// every request line is asked, so the words are compared in place.
template <class Bytes>
bool WholeVersion(const Bytes &bytes, uint64_t from, uint64_t to, const Dialect &d) {
  for (size_t i = 0; i < d.version_count; ++i) {
    const Word &v = d.versions[i];
    if (to - from != uint64_t{v.length} + d.version_digits ||
        bytes.Compare(from, v.text, v.length) != 0) {
      continue;
    }
    uint64_t p = from + v.length;
    while (p < to && bytes.At(p) >= '0' && bytes.At(p) <= '9') {
      ++p;
    }
    if (p == to) {
      return true;
    }
  }
  return false;
}

// ReadLooseRequest from `p`, the line's first byte, reading `bytes` (the
// flow itself or a FlowTail over it) up to `end`, the flow's end.
template <class Bytes>
Match ReadLoose(const oru::FlowBuffer &flow, const Bytes &bytes, uint64_t p, uint64_t end,
                const Dialect &dialect, const oru::WebMethodTable &methods, oru::WebLine &line,
                uint64_t &next) {
  const uint64_t nl = bytes.Find(p, '\n', end);
  const uint64_t stop = nl != end && nl > p && bytes.At(nl - 1) == '\r' ? nl - 1 : nl;
  uint64_t s1 = bytes.Find(p, ' ', nl);
  if (s1 == end) {
    if (nl == end) {
      // A lone word not yet ended: the line reader waits for it.
      return Match::kNo;
    }
    s1 = stop;
  }
  // Only a known method opens a loose line: a response's line, and most
  // others, are settled here without a further search.
  const uint64_t method = s1 - p;
  bool known = false;
  for (size_t i = 0; i < methods.size() && !known; ++i) {
    known =
        methods[i].length == method && bytes.Compare(p, methods[i].name, methods[i].length) == 0;
  }
  if (!known) {
    return Match::kNo;
  }
  if (nl != end && s1 < stop) {
    // The line reader's own, the common line: three words, the last a whole
    // version.
    const uint64_t s2 = bytes.Find(s1 + 1, ' ', stop);
    if (s2 != end && s2 < stop && bytes.Find(s2 + 1, ' ', stop) == end &&
        WholeVersion(bytes, s2 + 1, stop, dialect)) {
      return Match::kNo;
    }
  }
  if (nl == end) {
    return end - p < dialect.max_first_line ? Match::kMore : Match::kNo;
  }
  uint64_t last = stop;
  for (uint64_t i = s1; i < stop; ++i) {
    const unsigned char b = static_cast<unsigned char>(bytes.At(i));
    if ((b < 0x20 && b != '\t') || b == 0x7f) {
      return Match::kNo;
    }
  }
  while (last > s1 && bytes.At(last - 1) != ' ' && bytes.At(last - 1) != '\t') {
    --last;
  }
  // The last word is the version when it begins with the protocol's word
  // and "/", whole or not; another protocol's version turns the line away.
  const uint32_t word = static_cast<uint32_t>(strlen(dialect.protocol));
  const bool versioned = last > s1 && stop - last > word &&
                         bytes.Compare(last, dialect.protocol, word) == 0 &&
                         bytes.At(last + word) == '/';
  if (!versioned && ForeignVersion(Cursor(flow, last, stop, stop + 1), dialect)) {
    return Match::kNo;
  }
  const uint64_t target = s1 < stop ? s1 + 1 : stop;
  const uint64_t target_end = versioned ? last - 1 : stop;
  line.m_type = oru::WebLine::LINE_REQUEST;
  line.m_first = oru::FlowString(&flow, p, static_cast<uint32_t>(method));
  line.m_second = oru::FlowString(
      &flow, target, static_cast<uint32_t>(target_end > target ? target_end - target : 0));
  line.m_third = versioned ? oru::FlowString(&flow, last, static_cast<uint32_t>(stop - last))
                           : oru::FlowString();
  next = nl + 1;
  return Match::kYes;
}

} // namespace

Match ReadLooseRequest(const oru::FlowBuffer &flow, uint64_t from, const Dialect &dialect,
                       const oru::WebMethodTable &methods, oru::WebLine &line, uint64_t &next) {
  const uint64_t end = flow.End();
  uint64_t p = from < flow.Begin() ? flow.Begin() : from;
  while (p < end && Blank(static_cast<unsigned char>(flow.At(p)))) {
    ++p;
  }
  // A first line mostly lies in one block: read in place.
  const oru::kit::FlowTail tail(flow, p);
  if (tail.Whole()) {
    return ReadLoose(flow, tail, p, end, dialect, methods, line, next);
  }
  return ReadLoose(flow, flow, p, end, dialect, methods, line, next);
}

bool HintsAtProtocol(const oru::FlowBuffer &flow, const Dialect &dialect) {
  if (flow.Begin() != 0 || flow.End() == 0) {
    return false;
  }
  if (dialect.hint_needs_text) {
    const unsigned char first = static_cast<unsigned char>(flow.At(0));
    if ((first < 0x21 || first > 0x7e) && first != '\r' && first != '\n') {
      return false;
    }
  }
  const auto hinted = [&](const auto &bytes) {
    const uint64_t nl = bytes.Find(0, '\n', dialect.max_first_line);
    return bytes.Find(0, dialect.hint.text, dialect.hint.length, nl) != bytes.End();
  };
  // The first packet's bytes mostly lie in one block: read in place.
  const oru::kit::FlowTail tail(flow, 0);
  return tail.Whole() ? hinted(tail) : hinted(flow);
}

} // namespace kest_message
