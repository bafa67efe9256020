// Redis on the kest decoder kit. The client's first command names REDIS: a
// RESP array of bulk strings ("*2\r\n$3\r\nGET\r\n$1\r\nk\r\n"), or an inline
// command ("PING\r\n") once the server answers in RESP. The names of the first
// four commands go to "redis.command", in capitals. The client's bytes are read
// one at a time, so lines and strings may lie across packets.
#include <kest/kit/Decoder.h>

namespace {

using oru::kit::Verdict;

struct Redis {
  static constexpr oru::kit::Spec kSpec{
      .plugin = "redis",
      .module = oru::kit::MODULE_FIRST_FREE, // yours: from MODULE_FIRST_FREE up, one per plug-in
      .protocols = {"REDIS"},
      .attributes = {"redis.command"},
      .tcp = true,
      .tcp_ports = {6379},                       // tried first; the bytes decide, on any port
      .tcp_framing = oru::kit::Framing::kStream, // each side's bytes in order, as they come
  };
  struct State {
    char text[16];     // the start of the current line, or of a command's name
    uint32_t length;   // bytes of it seen, kept or not
    uint32_t args;     // bulk strings of the current array still to come
    uint32_t bulk;     // bytes of the current bulk string and its CR LF still to come
    uint32_t commands; // commands published
    uint32_t client;   // 1 + the side that spoke first
    bool name_next;    // the next bulk string names a command
    bool waiting;      // an inline command waits for the server's reply
  };
  using Session = oru::kit::Session<Redis>;

  static Verdict Feed(Session &s, oru::kit::ByteReader r) {
    State &st = s.state();
    st.client = st.client != 0 ? st.client : 1 + s.side();
    if (st.client != 1 + s.side()) { // the server's first reply confirms an inline command
      const bool resp = r.Peek() == '+' || r.Peek() == '-' || r.Peek() == ':' || r.Peek() == '$';
      return s.named() ? Verdict::kNeedMore : st.waiting && resp ? Command(s) : Verdict::kNotMine;
    }
    Verdict v = Verdict::kNeedMore;
    while (v == Verdict::kNeedMore && !r.Empty() && !st.waiting) {
      v = Byte(s, static_cast<char>(r.U8()));
    }
    return v == Verdict::kNotMine && s.named() ? Verdict::kDone : v; // the name stays
  }

  static Verdict Byte(Session &s, char c) {
    State &st = s.state();
    if (st.bulk > 0) { // a bulk string's bytes are passed, but for a command's name
      Keep(st, c, st.bulk > 2 && st.name_next);
      return --st.bulk == 0 && st.name_next ? Command(s) : Verdict::kNeedMore;
    }
    if (c == '\n') {
      return Line(s);
    }
    Keep(st, c, true);
    // Before the name, a line opens an array, a bulk string in one, or an inline command.
    const bool opens = st.length > 1 || c == '*' || Letter(c) || st.args > 0 || s.named();
    return opens ? Verdict::kNeedMore : Verdict::kNotMine;
  }

  // A whole line, CR and all: "*<n>" opens an array of n bulk strings,
  // "$<length>" the next of them; other lines are inline commands.
  static Verdict Line(Session &s) {
    State &st = s.state();
    int64_t number = st.length > 2 && st.length <= sizeof st.text ? 0 : -1;
    for (uint32_t i = 1; i + 1 < st.length && number >= 0; ++i) {
      number = st.text[i] >= '0' && st.text[i] <= '9' ? number * 10 + (st.text[i] - '0') : -1;
    }
    const char type = st.length > 0 ? st.text[0] : 0;
    if (st.args == 0 && Letter(type)) { // named now, or once the server answers
      st.waiting = !s.named();
      return st.waiting ? Verdict::kNeedMore : Command(s);
    }
    st.length = 0;
    if (st.args == 0 && type == '*' && number > 0) {
      st.args = static_cast<uint32_t>(number);
      st.name_next = true;
      return Verdict::kNeedMore;
    }
    if (st.args > 0 && type == '$' && number >= 0) {
      st.args--;
      st.bulk = static_cast<uint32_t>(number) + 2;
      return Verdict::kNeedMore;
    }
    return Verdict::kNotMine;
  }

  // The command's name: the text up to a space or CR, letters (and dots after
  // the first, for modules' commands), published in capitals.
  static Verdict Command(Session &s) {
    State &st = s.state();
    uint32_t n = 0;
    for (; n < st.length && n < sizeof st.text &&
           (Letter(st.text[n]) || (n > 0 && st.text[n] == '.'));
         ++n) {
      st.text[n] = static_cast<char>(Letter(st.text[n]) ? st.text[n] & ~0x20 : st.text[n]);
    }
    const bool whole =
        n == st.length || (n < sizeof st.text && (st.text[n] == ' ' || st.text[n] == '\r'));
    st.length = 0;
    st.name_next = st.waiting = false;
    if (n == 0 || !whole || !s.Name()) {
      return Verdict::kNotMine;
    }
    s.Publish(0, st.text, n);
    return ++st.commands < 4 ? Verdict::kNeedMore : Verdict::kDone;
  }

  static bool Letter(char c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; }
  static void Keep(State &st, char c, bool keep) {
    if (keep && st.length < sizeof st.text) {
      st.text[st.length] = c;
    }
    st.length += keep ? 1 : 0;
  }
};

} // namespace

KEST_DECODER(Redis)
