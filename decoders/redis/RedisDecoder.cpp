// Redis on any port, by the client's first command, from whichever side
// speaks first (the server never does). A command in RESP (2 or 3: the
// same requests) is an array of bulk strings, "*2\r\n$3\r\nGET\r\n$1\r\nk\r\n",
// and names Redis at once. An inline command ("PING\r\n") must be one that
// Redis knows, on a line of printable text, and waits for the server's
// reply in RESP before it names anything: a line of words is what most
// text protocols send. The names of the first four commands go to
// "redis.command", in capitals (a module's "JSON.GET" keeps its dot).
//
// The client's bytes are read one at a time: lines and strings may lie
// across packets, and a bulk string's bytes are counted past, never kept.
// The server's replies are read only for the first byte that confirms an
// inline command.
#include <kest/kit/Decoder.h>
#include <kest/kit/TextLine.h>

namespace {

using namespace oru::kit;

struct Redis {
  static constexpr Spec kSpec{.plugin = "redis",
                              .module = MODULE_REDIS,
                              .protocols = {"Redis"},
                              .attributes = {"redis.command"},
                              .tcp = true,
                              .tcp_ports = {6379, 6380, 26379}};
  // A command's name is kept up to this; a longer one is no command.
  static constexpr uint32_t kName = 32;
  // The longest inline line read before giving up on it.
  static constexpr uint32_t kInline = 1024;
  static constexpr uint32_t kCommands = 4;
  // Redis's own bounds on an array's strings and a string's bytes.
  static constexpr uint64_t kMaxArgs = 1024 * 1024;
  static constexpr uint64_t kMaxBulk = 512ull * 1024 * 1024;

  struct State {
    char text[kName];    // the start of the current line or command name
    char pending[kName]; // an inline command's name, until the server replies
    uint32_t length;     // bytes of the line or name seen, kept or not
    uint32_t args;       // bulk strings of the current array still to come
    uint32_t bulk;       // bytes of the current bulk string still to come, CR LF included
    uint8_t client;      // 1 + the side that spoke first
    uint8_t commands;    // names published
    uint8_t pending_length;
    uint8_t http;   // bytes of " HTTP/" matched at the end of the line
    bool cr;        // the last byte of the line was a CR
    bool word;      // the inline line's first word has ended
    bool name_next; // the next bulk string names a command
    bool waiting;   // an inline command waits for the server's reply
  };
  using S = Session<Redis>;

  // The first packet: an array, or a line whose first word Redis knows and
  // that is no HTTP request. Most text connections leave here, before any
  // state is made for them.
  static bool Opening(unsigned, ByteReader first) {
    if (first.Peek() == '*') {
      return true;
    }
    const char *text = reinterpret_cast<const char *>(first.Here());
    const size_t n = first.Left();
    size_t word = 0;
    while (word < n && word <= kName && Letter(text[word])) {
      ++word;
    }
    if (word == 0 || (word < n && !Known(text, static_cast<uint32_t>(word)))) {
      return false;
    }
    // A path after the word ("GET /index.html") or " HTTP/" before the end
    // of the line: an HTTP request.
    if (word + 1 < n && text[word] == ' ' && text[word + 1] == '/') {
      return false;
    }
    uint32_t http = 0;
    for (size_t i = word; i < n && text[i] != '\n' && http < 6; ++i) {
      http = text[i] == " HTTP/"[http] ? http + 1 : text[i] == ' ' ? 1 : 0;
    }
    return http < 6;
  }

  static Verdict Feed(S &s, ByteReader r) {
    State &st = s.state();
    st.client = st.client != 0 ? st.client : static_cast<uint8_t>(1 + s.side());
    if (st.client != 1 + s.side()) {
      if (s.named()) {
        return Verdict::kNeedMore;
      }
      return st.waiting && Reply(r) ? Publish(s, nullptr, 0) : Verdict::kNotMine;
    }
    Verdict v = Verdict::kNeedMore;
    // Commands behind an inline one waiting for its reply are still read:
    // a request of another protocol shows itself in its later lines.
    while (v == Verdict::kNeedMore && !r.Empty()) {
      if (st.bulk > 0) {
        // Past the bytes of an argument in one step; a name's in one at a time.
        if (!st.name_next && st.bulk > 2) {
          const size_t skip = r.Left() < st.bulk - 2 ? r.Left() : st.bulk - 2;
          r.Skip(skip);
          st.bulk -= static_cast<uint32_t>(skip);
          continue;
        }
        v = Bulk(s, static_cast<char>(r.U8()));
      } else {
        v = LineByte(s, static_cast<char>(r.U8()));
      }
    }
    // Once named, bytes that make no sense end the reading; the name stays.
    return v == Verdict::kNotMine && s.named() ? Verdict::kDone : v;
  }

  static Verdict Bulk(S &s, char c) {
    State &st = s.state();
    --st.bulk;
    if (st.bulk >= 2) {
      Keep(st, c);
      return Verdict::kNeedMore;
    }
    if (c != (st.bulk == 1 ? '\r' : '\n')) {
      return Verdict::kNotMine;
    }
    if (st.bulk > 0 || !st.name_next) {
      return Verdict::kNeedMore;
    }
    st.name_next = false;
    return Name(st) ? Publish(s, st.text, st.length) : Verdict::kNotMine;
  }

  static Verdict LineByte(S &s, char c) {
    State &st = s.state();
    const bool cr = st.cr;
    st.cr = c == '\r';
    if (c != '\n') {
      Keep(st, c);
      const char type = st.text[0];
      if (cr) {
        // A CR only at the end of a line.
        return Verdict::kNotMine;
      }
      if (st.args == 0 && Letter(type)) {
        // An inline command: printable text within a bound, and no HTTP
        // request line (" HTTP/" in it).
        const bool fits = c == '\r' || c == '\t' || (c >= 0x20 && c < 0x7F);
        st.http = c == " HTTP/"[st.http] ? st.http + 1 : c == ' ' ? 1 : 0;
        if (!fits || st.http == 6 || st.length > kInline) {
          return Verdict::kNotMine;
        }
        // The first word is judged as soon as it ends: most lines of other
        // protocols leave here, without waiting for their end.
        const bool word_end = (c == ' ' || c == '\r' || c == '\t') && !st.word;
        st.word = st.word || word_end;
        const bool known = st.length - 1 < kName && Known(st.text, st.length - 1);
        return !word_end || known ? Verdict::kNeedMore : Verdict::kNotMine;
      }
      // "*<count>" or "$<length>": a type byte then digits.
      const bool ok = st.length == 1 ? (type == '*' && st.args == 0) || (type == '$' && st.args > 0)
                                     : st.length <= 12 && (Digit(c) || c == '\r');
      return ok ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    const uint32_t n = st.length - (cr ? 1 : 0);
    st.length = 0;
    st.http = 0;
    st.word = false;
    if (n == 0) {
      return Verdict::kNotMine;
    }
    if (Letter(st.text[0])) {
      // Redis takes a bare LF after an inline command too.
      return st.args == 0 ? Inline(s, n) : Verdict::kNotMine;
    }
    if (!cr || n < 2) {
      return Verdict::kNotMine;
    }
    uint64_t number = 0;
    for (uint32_t i = 1; i < n; ++i) {
      number = number * 10 + static_cast<uint64_t>(st.text[i] - '0');
    }
    if (st.text[0] == '*') {
      if (number == 0 || number > kMaxArgs) {
        return Verdict::kNotMine;
      }
      st.args = static_cast<uint32_t>(number);
      st.name_next = true;
      return Verdict::kNeedMore;
    }
    if (number > kMaxBulk || (st.name_next && (number == 0 || number > kName))) {
      return Verdict::kNotMine;
    }
    st.args--;
    st.bulk = static_cast<uint32_t>(number) + 2;
    return Verdict::kNeedMore;
  }

  // A whole inline line, `n` bytes before its end: its first word must be a
  // command Redis knows.
  static Verdict Inline(S &s, uint32_t n) {
    State &st = s.state();
    uint32_t word = 0;
    while (word < n && word < kName && st.text[word] != ' ' && st.text[word] != '\t') {
      ++word;
    }
    if (st.waiting) {
      // Behind the first, unconfirmed: only whether Redis knows it.
      return word < kName && Known(st.text, word) ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    st.length = word;
    if (word == kName || !Name(st) || !Known(st.text, word)) {
      return Verdict::kNotMine;
    }
    if (s.named()) {
      return Publish(s, st.text, word);
    }
    // The name waits for the server's reply.
    for (uint32_t i = 0; i < word; ++i) {
      st.pending[i] = st.text[i];
    }
    st.pending_length = static_cast<uint8_t>(word);
    st.waiting = true;
    return Verdict::kNeedMore;
  }

  // The server's first bytes open a reply: a RESP type, then what that type
  // begins with. Lines of other protocols' servers start otherwise.
  static bool Reply(ByteReader r) {
    const char type = static_cast<char>(r.U8());
    const char next = static_cast<char>(r.Peek());
    const bool any = r.Empty();
    switch (type) {
    case '+':
    case '-':
      return any || Letter(next) || next == '\r';
    case ':':
    case '$':
    case '*':
    case '%':
    case '~':
    case '>':
    case '|':
    case '=':
    case '(':
      return any || Digit(next) || next == '-';
    case '_':
    case '#':
      return any || next == '\r' || next == 't' || next == 'f';
    case ',':
      return any || Digit(next) || next == '-' || next == 'i' || next == 'n';
    default:
      return false;
    }
  }

  // The kept name, in capitals: letters, digits after the first, and the
  // dots, dashes and underscores of modules' commands.
  static bool Name(State &st) {
    const uint32_t n = st.length;
    if (n == 0 || n > kName || !Letter(st.text[0])) {
      return false;
    }
    for (uint32_t i = 0; i < n; ++i) {
      const char c = st.text[i];
      if (!Letter(c) && !Digit(c) && c != '.' && c != '_' && c != '-' && c != '|') {
        return false;
      }
      st.text[i] = c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
    }
    return true;
  }

  // Names Redis and reports a command's name, after the inline command
  // that waited for the reply that confirms it.
  static Verdict Publish(S &s, const char *name, uint32_t n) {
    State &st = s.state();
    st.length = 0;
    if (!s.Name()) {
      return Verdict::kNotMine;
    }
    if (st.waiting) {
      st.waiting = false;
      s.Publish(0, st.pending, st.pending_length);
      ++st.commands;
    }
    if (name != nullptr && st.commands < kCommands) {
      s.Publish(0, name, n);
      ++st.commands;
    }
    return st.commands < kCommands ? Verdict::kNeedMore : Verdict::kDone;
  }

  // Commands a client types or scripts inline.
  static bool Known(const char *word, uint32_t n) {
    static constexpr const char *kWords[] = {
        "PING",   "ECHO",     "INFO",     "GET",     "SET",       "DEL",        "EXISTS",
        "KEYS",   "AUTH",     "HELLO",    "SELECT",  "QUIT",      "INCR",       "DECR",
        "INCRBY", "DECRBY",   "MGET",     "MSET",    "TYPE",      "TTL",        "EXPIRE",
        "CONFIG", "CLIENT",   "COMMAND",  "MONITOR", "SUBSCRIBE", "PSUBSCRIBE", "PUBLISH",
        "DBSIZE", "FLUSHALL", "FLUSHDB",  "LPUSH",   "RPUSH",     "LPOP",       "RPOP",
        "LRANGE", "LLEN",     "HGET",     "HSET",    "HGETALL",   "SADD",       "SMEMBERS",
        "ZADD",   "ZRANGE",   "SCAN",     "SLAVEOF", "REPLICAOF", "SYNC",       "PSYNC",
        "SAVE",   "BGSAVE",   "SHUTDOWN", "MULTI",   "EXEC",      "DISCARD",    "WATCH",
        "EVAL",   "EVALSHA",  "SCRIPT",   "ROLE",    "TIME",      "LASTSAVE",   "APPEND",
        "STRLEN", "SETEX",    "SETNX",    "GETSET",  "SLOWLOG",   "CLUSTER",    "XADD",
        "XREAD",  "RENAME",   "MODULE",   "ACL",     "DEBUG",     "RANDOMKEY",  "UNLINK"};
    const char first = n > 0 ? static_cast<char>(word[0] & ~0x20) : 0;
    for (const char *w : kWords) {
      if (w[0] == first && TextLength(w) == n && StartsWith(word, n, w)) {
        return true;
      }
    }
    return false;
  }

  static bool Letter(char c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; }
  static bool Digit(char c) { return c >= '0' && c <= '9'; }
  static void Keep(State &st, char c) {
    if (st.length < kName) {
      st.text[st.length] = c;
    }
    ++st.length;
  }
};

} // namespace

KEST_DECODER(Redis)
