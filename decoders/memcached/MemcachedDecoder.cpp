// Memcached on any port, in its text and binary protocols, over TCP and UDP.
//
// TCP: the side that speaks first is the client. Its first request must be
// a known text command on a well-formed line ("set k 0 0 5\r\n": the right
// count of arguments, numbers where numbers stand) or a binary request
// header (magic 0x80, a known opcode, lengths that fit); the server's first
// reply then names Memcached: a reply line that opens with one of
// memcached's words, or a binary response header (magic 0x81) to the same
// opcode. A line of words alone is what many text protocols send, so a
// request never names by itself.
// UDP: every datagram carries an 8-byte frame header (request id, sequence
// number, count of datagrams, and two zero bytes); a request (one datagram,
// sequence 0) or a reply behind a header that fits names Memcached.
//
// The first four commands go to "memcached.command": the text command's
// word as sent ("get", "set", "mg"), a binary opcode's name ("getk").
// Values (a storage command's data block, a binary body) are counted past,
// never kept; only the start of a request line is.
#include <kest/kit/Decoder.h>
#include <kest/kit/TextLine.h>

namespace {

using namespace oru::kit;

struct Memcached {
  static constexpr Spec kSpec{.plugin = "memcached",
                              .module = MODULE_MEMCACHED,
                              .protocols = {"Memcached"},
                              .attributes = {"memcached.command"},
                              .tcp = true,
                              .tcp_ports = {11211},
                              .udp = true,
                              .udp_ports = {11211}};
  // The kept start of a request line: a storage command with the longest
  // key (250 bytes) fits.
  static constexpr uint32_t kLine = 320;
  // Retrievals of many keys may run longer, up to this.
  static constexpr uint32_t kLongLine = 8192;
  static constexpr uint32_t kHeader = 24;
  // The largest value memcached takes, by default and then some.
  static constexpr uint64_t kMaxValue = 128u * 1024 * 1024;
  static constexpr uint8_t kCommands = 4;
  // The longest text command's word.
  static constexpr uint32_t kWord = 14;

  struct Side {
    uint64_t skip;   // bytes of a value or body still to pass
    uint32_t length; // bytes of the current line or header seen
    uint8_t binary;  // 1: text, 2: binary (decided by the first byte)
    bool cr;         // the line's last byte was a CR
    bool word;       // the line's first word has ended
  };
  struct State {
    char line[kLine];      // the client's current line, or a header of either side
    uint8_t head[kHeader]; // the server's current binary header
    char reply[16];        // the start of the server's first reply line
    Side side[2];
    uint8_t client;   // 1 + the side that spoke first
    uint8_t commands; // names published
    // Requests before the server's first reply, reported once it named the
    // protocol: a text command's index, or 0x80 + a binary opcode.
    uint8_t pending[kCommands];
    uint8_t waiting; // requests kept in `pending`
    bool asked;      // the first request was whole
  };
  using S = Session<Memcached>;

  // Text commands, each with the counts of words its line may have
  // (command included) and which of them must be numbers.
  struct Command {
    const char *word;
    uint8_t min, max;
    uint8_t numbers; // bit i: word i is a number
    uint8_t value;   // 1 + the word that gives the data block's length
  };
  static constexpr Command kText[] = {{"get", 2, 255, 0, 0},      {"gets", 2, 255, 0, 0},
                                      {"gat", 3, 255, 2, 0},      {"gats", 3, 255, 2, 0},
                                      {"set", 5, 6, 0x1c, 5},     {"add", 5, 6, 0x1c, 5},
                                      {"replace", 5, 6, 0x1c, 5}, {"append", 5, 6, 0x1c, 5},
                                      {"prepend", 5, 6, 0x1c, 5}, {"cas", 6, 7, 0x3c, 5},
                                      {"incr", 3, 4, 4, 0},       {"decr", 3, 4, 4, 0},
                                      {"delete", 2, 4, 0, 0},     {"touch", 3, 4, 4, 0},
                                      {"stats", 1, 3, 0, 0},      {"version", 1, 1, 0, 0},
                                      {"verbosity", 2, 3, 2, 0},  {"flush_all", 1, 3, 0, 0},
                                      {"quit", 1, 1, 0, 0},       {"mg", 2, 32, 0, 0},
                                      {"ms", 3, 32, 4, 3},        {"md", 2, 32, 0, 0},
                                      {"ma", 2, 32, 0, 0},        {"mn", 1, 1, 0, 0},
                                      {"me", 2, 2, 0, 0},         {"lru_crawler", 2, 4, 0, 0},
                                      {"slabs", 2, 4, 0, 0},      {"cache_memlimit", 2, 3, 2, 0},
                                      {"watch", 1, 8, 0, 0},      {"shutdown", 1, 2, 0, 0}};
  static constexpr int kTextCount = sizeof kText / sizeof kText[0];
  static constexpr const char *kReplies[] = {
      "VALUE ",  "END",      "STORED", "NOT_STORED", "EXISTS",        "NOT_FOUND",
      "DELETED", "TOUCHED",  "OK",     "ERROR",      "CLIENT_ERROR ", "SERVER_ERROR ",
      "STAT ",   "VERSION ", "RESET",  "HD",         "VA ",           "EN",
      "NF",      "NS",       "EX",     "MN",         "ME ",           "BUSY",
      nullptr};
  // Binary opcodes 0x00 to 0x24, by name.
  static constexpr const char *kOpcodes[] = {"get",        "set",        "add",
                                             "replace",    "delete",     "increment",
                                             "decrement",  "quit",       "flush",
                                             "getq",       "noop",       "version",
                                             "getk",       "getkq",      "append",
                                             "prepend",    "stat",       "setq",
                                             "addq",       "replaceq",   "deleteq",
                                             "incrementq", "decrementq", "quitq",
                                             "flushq",     "appendq",    "prependq",
                                             "verbosity",  "touch",      "gat",
                                             "gatq",       nullptr,      "sasl_list_mechs",
                                             "sasl_auth",  "sasl_step",  "gatk",
                                             "gatkq"};
  static constexpr uint32_t kOpcodeCount = sizeof kOpcodes / sizeof kOpcodes[0];

  static bool Lower(uint32_t c) { return c >= 'a' && c <= 'z'; }
  static bool Opening(unsigned, ByteReader first) {
    const uint32_t c = first.Peek();
    // UDP: a frame header whose reserved bytes are zero. TCP: a binary
    // header, or a text command whose first word, when it ends in this
    // packet, is one of memcached's.
    if (c == 0x80 || (first.Left() > 8 && first.Peek(6) == 0 && first.Peek(7) == 0)) {
      return true;
    }
    const char *text = reinterpret_cast<const char *>(first.Here());
    uint32_t word = 0;
    while (word < first.Left() && word <= kWord && (Lower(text[word]) || text[word] == '_')) {
      ++word;
    }
    return word > 0 && (word == first.Left() || KnownWord(text, word));
  }

  static Verdict Feed(S &s, ByteReader r) {
    State &st = s.state();
    if (s.tuple().protocol == 17) {
      return Datagram(s, r);
    }
    st.client = st.client != 0 ? st.client : static_cast<uint8_t>(1 + s.side());
    const bool client = st.client == 1 + s.side();
    Side &side = st.side[client ? 0 : 1];
    if (!client && s.named()) {
      return Verdict::kNeedMore;
    }
    if (!client && !st.asked) {
      // A server speaks after a whole request only.
      return Verdict::kNotMine;
    }
    Verdict v = Verdict::kNeedMore;
    while (v == Verdict::kNeedMore && !r.Empty()) {
      if (!client && s.named()) {
        // The reply that named it is all a server's side tells.
        break;
      }
      if (side.skip > 0) {
        const size_t n = r.Left() < side.skip ? r.Left() : static_cast<size_t>(side.skip);
        r.Skip(n);
        side.skip -= n;
        continue;
      }
      if (side.binary == 0) {
        side.binary = r.Peek() == 0x80 || r.Peek() == 0x81 ? 2 : 1;
      }
      v = side.binary == 2 ? HeaderByte(s, client, static_cast<uint8_t>(r.U8()))
                           : LineByte(s, client, static_cast<char>(r.U8()));
    }
    return v == Verdict::kNotMine && s.named() ? Verdict::kDone : v;
  }

  // Binary: a header's bytes, then its body passed by its length.
  static Verdict HeaderByte(S &s, bool client, uint8_t b) {
    State &st = s.state();
    Side &side = st.side[client ? 0 : 1];
    uint8_t *head = client ? reinterpret_cast<uint8_t *>(st.line) : st.head;
    head[side.length++] = b;
    if (side.length < kHeader) {
      return Verdict::kNeedMore;
    }
    side.length = 0;
    uint32_t body = 0;
    const int opcode = Header(ByteReader(head, kHeader), client ? 0x80 : 0x81, body);
    if (opcode < 0) {
      return Verdict::kNotMine;
    }
    side.skip = body;
    if (!client) {
      return opcode + 0x80 == st.pending[0] ? Confirm(s) : Verdict::kNotMine;
    }
    const char *name = kOpcodes[opcode];
    return Request(s, -2 - opcode, name, TextLength(name));
  }

  // A binary header of the magic given (0x80 a request, 0x81 a response):
  // its opcode, or -1; the body's length goes to `body`.
  static int Header(ByteReader h, uint32_t magic, uint32_t &body) {
    const uint32_t m = h.U8();
    const uint32_t opcode = h.U8();
    const uint32_t key = h.U16();
    const uint32_t extras = h.U8();
    const uint32_t type = h.U8();
    h.Skip(2);
    body = h.U32();
    h.Skip(12);
    const bool ok = h.Ok() && m == magic && type == 0 && key <= 250 && key + extras <= body &&
                    body <= kMaxValue && opcode < kOpcodeCount && kOpcodes[opcode] != nullptr;
    return ok ? static_cast<int>(opcode) : -1;
  }

  // Text: a line's bytes; the client's whole line is judged at its LF, the
  // server's first by its opening word.
  static Verdict LineByte(S &s, bool client, char c) {
    State &st = s.state();
    Side &side = st.side[client ? 0 : 1];
    const bool cr = side.cr;
    side.cr = c == '\r';
    if (c != '\n') {
      char *keep = client ? st.line : st.reply;
      const uint32_t room = client ? kLine : sizeof st.reply;
      if (side.length < room) {
        keep[side.length] = c;
      }
      ++side.length;
      const bool printable = (c >= 0x20 && c < 0x7F) || c == '\r';
      if (!printable || cr || side.length > kLongLine) {
        return Verdict::kNotMine;
      }
      if (client && !side.word && (c == ' ' || c == '\r' || side.length > kWord)) {
        // The first word is judged as soon as it ends: most lines of other
        // protocols leave here, without waiting for their end.
        side.word = true;
        if (!KnownWord(st.line, side.length - 1)) {
          return Verdict::kNotMine;
        }
      }
      if (!client && side.length == sizeof st.reply) {
        return st.pending[0] < 0x80 && Reply(st.reply, side.length) ? Confirm(s)
                                                                    : Verdict::kNotMine;
      }
      return Verdict::kNeedMore;
    }
    const uint32_t n = side.length;
    side.length = 0;
    side.word = false;
    if (!cr || n < 2) {
      return Verdict::kNotMine;
    }
    if (!client) {
      return Reply(st.reply, n - 1 < sizeof st.reply ? n - 1 : sizeof st.reply) ? Confirm(s)
                                                                                : Verdict::kNotMine;
    }
    uint64_t value = 0;
    const int index = TextRequest(st.line, n - 1, value);
    if (index < 0) {
      return Verdict::kNotMine;
    }
    side.skip = value;
    return Request(s, index, kText[index].word, TextLength(kText[index].word));
  }

  // A whole request: published once named; the first waits for the server.
  static Verdict Request(S &s, int index, const char *name, uint32_t n) {
    State &st = s.state();
    if (s.named()) {
      s.Publish(0, name, n);
      return ++st.commands < kCommands ? Verdict::kNeedMore : Verdict::kDone;
    }
    st.asked = true;
    if (st.waiting < kCommands) {
      st.pending[st.waiting++] = static_cast<uint8_t>(index < 0 ? 0x80 + (-2 - index) : index);
    }
    return Verdict::kNeedMore;
  }

  // The server answered the first request in kind: Memcached, with the
  // requests so far.
  static Verdict Confirm(S &s) {
    State &st = s.state();
    if (!s.Name()) {
      return Verdict::kNotMine;
    }
    for (uint8_t i = 0; i < st.waiting; ++i) {
      const uint8_t p = st.pending[i];
      const char *name = p >= 0x80 ? kOpcodes[p - 0x80] : kText[p].word;
      s.Publish(0, name, TextLength(name));
    }
    st.commands = st.waiting;
    return st.commands < kCommands ? Verdict::kNeedMore : Verdict::kDone;
  }

  // The command of a text request line (`n` bytes before CR LF), or -1; a
  // storage command's data block length, CR LF included, goes to `value`.
  static int TextRequest(const char *line, uint32_t n, uint64_t &value) {
    const uint32_t kept = n < kLine ? n : kLine;
    uint32_t words = 0;
    uint32_t start[8] = {};
    uint32_t end[8] = {};
    for (uint32_t i = 0; i < kept;) {
      if (line[i] == ' ') {
        ++i;
        continue;
      }
      uint32_t j = i;
      while (j < kept && line[j] != ' ') {
        ++j;
      }
      if (words < 8) {
        start[words] = i;
        end[words] = j;
      }
      ++words;
      i = j;
    }
    if (words == 0 || start[0] != 0) {
      return -1;
    }
    int index = -1;
    for (int k = 0; k < kTextCount && index < 0; ++k) {
      const uint32_t len = TextLength(kText[k].word);
      // Memcached reads its commands in small letters only.
      if (end[0] == len && Same(line, kText[k].word, len)) {
        index = k;
      }
    }
    if (index < 0) {
      return -1;
    }
    const Command &command = kText[index];
    // Only retrievals run past the kept start, with their many keys.
    const bool many = command.max == 255 || command.max == 32;
    if ((n > kLine && !many) || words < command.min || words > command.max) {
      return -1;
    }
    for (uint32_t w = 1; w < words && w < 8; ++w) {
      const bool number = (command.numbers >> w & 1) != 0;
      if ((number && !Number(line + start[w], end[w] - start[w])) ||
          (w == 1 && end[w] - start[w] > 250)) {
        return -1;
      }
    }
    value = 0;
    if (command.value != 0) {
      const uint32_t w = command.value - 1;
      for (uint32_t i = start[w]; i < end[w]; ++i) {
        value = value * 10 + static_cast<uint64_t>(line[i] - '0');
      }
      if (value > kMaxValue) {
        return -1;
      }
      value += 2;
      // "noreply" is the only word after a storage command's numbers.
      const uint32_t last = words - 1;
      if (command.word[0] != 'm' && last > command.min - 1u &&
          !(end[last] - start[last] == 7 && Same(line + start[last], "noreply", 7))) {
        return -1;
      }
    }
    return index;
  }

  static bool Same(const char *text, const char *word, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
      if (text[i] != word[i]) {
        return false;
      }
    }
    return true;
  }

  static bool KnownWord(const char *word, uint32_t n) {
    for (const Command &command : kText) {
      if (n > 0 && command.word[0] == word[0] && TextLength(command.word) == n &&
          Same(word, command.word, n)) {
        return true;
      }
    }
    return false;
  }

  // A signed decimal of at most 20 digits.
  static bool Number(const char *text, uint32_t n) {
    const uint32_t sign = n > 1 && text[0] == '-' ? 1 : 0;
    if (n == sign || n > 20) {
      return false;
    }
    for (uint32_t i = sign; i < n; ++i) {
      if (text[i] < '0' || text[i] > '9') {
        return false;
      }
    }
    return true;
  }

  // The start of a reply line opens with one of memcached's words, or is the
  // number an increment answers.
  static bool Reply(const char *text, uint32_t n) {
    if (n > 0 && text[0] >= '0' && text[0] <= '9') {
      uint32_t i = 0;
      while (i < n && text[i] >= '0' && text[i] <= '9') {
        ++i;
      }
      return i == n || text[i] == ' ';
    }
    for (int i = 0; kReplies[i] != nullptr; ++i) {
      const uint32_t len = TextLength(kReplies[i]);
      if (n >= len && Same(text, kReplies[i], len) &&
          (n == len || kReplies[i][len - 1] == ' ' || text[len] == ' ')) {
        return true;
      }
    }
    return false;
  }

  // UDP: the frame header, then one request or reply.
  static Verdict Datagram(S &s, ByteReader r) {
    State &st = s.state();
    r.Skip(2);
    const uint32_t sequence = r.U16();
    const uint32_t count = r.U16();
    const uint32_t reserved = r.U16();
    if (!r.Ok() || r.Empty() || reserved != 0 || count == 0 || sequence >= count) {
      return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    const char *name = nullptr;
    uint32_t n = 0;
    const uint32_t first = r.Peek();
    if (first == 0x80 || first == 0x81) {
      uint32_t body = 0;
      const int opcode = Header(r, first, body);
      if (opcode < 0 || (sequence == 0 && body > r.Left() - kHeader)) {
        return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
      }
      name = first == 0x80 ? kOpcodes[opcode] : nullptr;
    } else {
      // The line up to its CR LF, within the datagram.
      const char *text = reinterpret_cast<const char *>(r.Here());
      const uint32_t left = static_cast<uint32_t>(r.Left() < kLongLine ? r.Left() : kLongLine);
      uint32_t end = 0;
      while (end + 1 < left && !(text[end] == '\r' && text[end + 1] == '\n')) {
        ++end;
      }
      uint64_t value = 0;
      const bool whole = end + 1 < left && Printable(text, end);
      const int index = whole && sequence == 0 ? TextRequest(text, end, value) : -1;
      if (index >= 0 && count == 1) {
        name = kText[index].word;
      } else if (!whole || !Reply(text, end < 16 ? end : 16)) {
        // A reply's later datagrams carry its values, which may be anything.
        return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
      }
    }
    if (!s.Name()) {
      return Verdict::kNotMine;
    }
    if (name != nullptr && st.commands < kCommands) {
      n = TextLength(name);
      s.Publish(0, name, n);
      ++st.commands;
    }
    return st.commands < kCommands ? Verdict::kNamed : Verdict::kDone;
  }
};

} // namespace

KEST_DECODER(Memcached)
