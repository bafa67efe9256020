// Syslog by its priority on any port: "<PRI>" (0 to 191) and a line of text.
// Behind it, the version "1 " and a timestamp (RFC 5424) or an old-style
// "Mmm dd hh:mm:ss" timestamp (RFC 3164) lead to the host name and the
// application. Over UDP each
// datagram is a message; over TCP the first message is read, with or without
// an octet count in front (RFC 6587). Each message read reports
// "syslog.facility", "syslog.severity" (as names), "syslog.hostname" and
// "syslog.app" (the last two unless absent, "-").
#include <kest/kit/Decoder.h>
#include <kest/kit/TextLine.h>

#include <string.h>

namespace {

using namespace oru::kit;

struct Syslog {
  static constexpr Spec kSpec{
      .plugin = "syslog",
      .module = MODULE_SYSLOG,
      .protocols = {"Syslog"},
      .attributes = {"syslog.facility", "syslog.severity", "syslog.hostname", "syslog.app"},
      .tcp = true,
      .tcp_ports = {514, 601},
      .udp = true,
      .udp_ports = {514}};
  // TCP: the first bytes of the side that speaks, until the header is whole.
  // One side speaks: bytes of the other before a verdict rule syslog out.
  struct State {
    char head[160];
    uint32_t length;
    uint8_t speaker;
  };

  static constexpr const char *kFacilities[] = {
      "kern",   "user",   "mail",     "daemon", "auth",   "syslog", "lpr",    "news",
      "uucp",   "cron",   "authpriv", "ftp",    "ntp",    "audit",  "alert",  "clock",
      "local0", "local1", "local2",   "local3", "local4", "local5", "local6", "local7"};
  static constexpr const char *kSeverities[] = {"emerg",   "alert",  "crit", "err",
                                                "warning", "notice", "info", "debug"};

  static bool Digit(char c) { return c >= '0' && c <= '9'; }
  // "Mmm dd hh:mm:ss " at `p` (the day may have a space for its first digit).
  static bool OldTimestamp(const char *p) {
    static const char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    bool month = false;
    for (int m = 0; m < 12 && !month; ++m) {
      month = memcmp(p, kMonths + 3 * m, 3) == 0;
    }
    const char *shape = " dd dd:dd:dd ";
    for (int i = 0; month && shape[i] != '\0'; ++i) {
      month = shape[i] == 'd' ? Digit(p[3 + i]) || (i == 1 && p[4] == ' ') : p[3 + i] == shape[i];
    }
    return month;
  }
  // The next field, up to a space or the end of the line (and for an old
  // tag, to its "[pid]" or ':'); false when it runs to `end`.
  static bool Field(const char *&p, const char *end, TextSpan &out, bool tag = false) {
    out.text = p;
    while (p < end && *p != ' ' && *p != '\n' && *p != '\r' && !(tag && (*p == '[' || *p == ':'))) {
      ++p;
    }
    out.length = static_cast<uint32_t>(p - out.text);
    return p++ < end;
  }

  // Judges the header at [p, end); `whole`: no more of it will come.
  static Verdict Header(Session<Syslog> &s, const char *p, const char *end, bool whole) {
    const Verdict short_of = whole ? Verdict::kNotMine : Verdict::kNeedMore;
    int pri = 0, digits = 0;
    if (p < end && *p++ != '<') {
      return Verdict::kNotMine;
    }
    for (; p < end && Digit(*p) && digits < 3; ++p, ++digits) {
      pri = pri * 10 + (*p - '0');
    }
    if (p == end) {
      return short_of;
    }
    if (*p++ != '>' || digits == 0 || pri > 191) {
      return Verdict::kNotMine;
    }
    // Devices write formats of their own behind the priority: text of a
    // few bytes is enough to name it. The two standard headers also give
    // the host and the application.
    uint32_t text = 0;
    for (const char *q = p; q < end && *q != '\n'; ++q, ++text) {
      if ((static_cast<uint8_t>(*q) < 0x20 && *q != '\t' && *q != '\r') || *q == 0x7f) {
        return Verdict::kNotMine;
      }
    }
    // Short of a whole old-style timestamp, the header may still become one.
    if (text < 8 || (!whole && end - p < 16)) {
      return short_of;
    }
    const bool old = end - p >= 16 && OldTimestamp(p);
    const bool v1 = p[0] == '1' && p[1] == ' ' && (p[2] == '-' || (Digit(p[2]) && p[6] == '-'));
    TextSpan time{}, host{}, app{};
    if (old || v1) {
      p += old ? 16 : 2;
      const bool read =
          (old || Field(p, end, time)) && Field(p, end, host) && Field(p, end, app, old);
      if (!read && !whole) {
        return Verdict::kNeedMore;
      }
    }
    if (!s.Name()) {
      return Verdict::kNotMine;
    }
    s.Publish(0, kFacilities[pri >> 3]);
    s.Publish(1, kSeverities[pri & 7]);
    if (host.length != 0 && !(host.length == 1 && host.text[0] == '-')) {
      s.Publish(2, host.text, host.length);
    }
    if (app.length != 0 && !(app.length == 1 && app.text[0] == '-')) {
      s.Publish(3, app.text, app.length);
    }
    return s.tuple().protocol == 6 ? Verdict::kDone : Verdict::kNamed;
  }

  // A priority ("<"), or over TCP an octet count before it.
  static bool Opening(unsigned, ByteReader first, uint8_t transport) {
    const char c = static_cast<char>(first.Peek());
    return c == '<' || (transport == 6 && Digit(c));
  }

  static Verdict Feed(Session<Syslog> &s, ByteReader r) {
    const char *bytes = reinterpret_cast<const char *>(r.Here());
    if (s.tuple().protocol != 6) {
      const Verdict v = Header(s, bytes, bytes + r.Left(), true);
      return v == Verdict::kNotMine && s.named() ? Verdict::kNeedMore : v;
    }
    // TCP: gather the first bytes until the header is whole (a line end, or
    // the room is full), less an octet count in front.
    State &st = s.state();
    if (st.speaker != 0 && st.speaker != 1 + s.side()) {
      return Verdict::kNotMine;
    }
    st.speaker = static_cast<uint8_t>(1 + s.side());
    const uint32_t take = static_cast<uint32_t>(r.Left()) < sizeof st.head - st.length
                              ? static_cast<uint32_t>(r.Left())
                              : static_cast<uint32_t>(sizeof st.head - st.length);
    memcpy(st.head + st.length, bytes, take);
    st.length += take;
    const char *p = st.head, *end = st.head + st.length;
    while (p < end && p - st.head < 6 && Digit(*p)) {
      ++p;
    }
    if (p == end && st.length < sizeof st.head) {
      return Verdict::kNeedMore; // an octet count, so far
    }
    p = p > st.head && *p == ' ' ? p + 1 : st.head;
    const char *line_end = static_cast<const char *>(memchr(p, '\n', static_cast<size_t>(end - p)));
    const bool whole = line_end != nullptr || st.length == sizeof st.head;
    return Header(s, p, line_end != nullptr ? line_end : end, whole);
  }
};

} // namespace

KEST_DECODER(Syslog)
