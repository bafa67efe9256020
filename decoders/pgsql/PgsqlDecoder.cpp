// PostgreSQL on any port, by its frontend/backend messages. The client opens
// with an untyped message (a length, then a code): a startup message of
// protocol 3 (or 2) with its parameters, or an SSLRequest, a GSSENCRequest or
// a CancelRequest, each a fixed code; later messages on both sides are typed
// (a byte, then a length). A capture that begins after the startup is named
// by two typed messages of one side in a row (or one simple query) whose
// lengths frame them exactly.
//
// Reports the startup's "user", "database" and "application_name" as
// "pgsql.user", "pgsql.database" and "pgsql.application", and the server's
// "server_version" parameter as "pgsql.server_version". An SSLRequest that
// the server answers 'S' hands the connection on, under chameleon, for the
// TLS decoder; one answered 'N' (and a GSSENCRequest answered 'N') goes on
// with a startup in clear. A GSSENCRequest answered 'G' continues in
// GSSAPI's wrapping, which is left alone. Of each message only the head is
// kept (kHead bytes); the rest (rows, copied data) is passed over by its
// length. The first kMessages messages of each side are read.
#include <kest/kit/Decoder.h>
#include <kest/kit/MessageHeads.h>
#include <kest/kit/TextLine.h>

#include <string.h>

namespace {

using namespace oru::kit;

struct Pgsql {
  static constexpr Spec kSpec{
      .plugin = "pgsql",
      .module = MODULE_PGSQL,
      .protocols = {"PostgreSQL"},
      .attributes = {"pgsql.user", "pgsql.database", "pgsql.application", "pgsql.server_version"},
      .tcp = true,
      .tcp_ports = {5432}};
  enum { kUser, kDatabase, kApplication, kServerVersion };
  static constexpr uint32_t kHead = 512;
  static constexpr uint32_t kMessages = 32;
  // The untyped messages' codes: protocol 2.0, and the requests.
  static constexpr uint32_t kProtocol2 = 0x00020000;
  static constexpr uint32_t kSslRequest = 80877103;
  static constexpr uint32_t kGssRequest = 80877104;
  static constexpr uint32_t kCancel = 80877102;
  // The longest startup message a server takes.
  static constexpr uint32_t kMaxStartup = 10000;

  enum Mode : uint8_t {
    kUntyped, // a client's message with no type byte (startup, requests)
    kTyped,   // a type byte, then a four-byte length
    kAnswer,  // the server's one-byte answer to an SSL or GSS request
  };
  struct Side : MessageHeads<kHead> {
    uint32_t plausible; // typed messages in a row that framed well, unnamed
  };
  struct State {
    Side side[2];
    Mode mode[2];
    uint8_t client; // the side that sent the untyped messages
    bool started;   // the first message was judged (modes are set)
    bool asked;     // an SSL or GSS request waits for its answer
    bool gss;       // that request was GSSENCRequest
    bool version_said;
  };

  static constexpr char kClientTypes[] = "QPBEDCSHFXpdcf";
  static constexpr char kServerTypes[] = "RSKZTDCENAVGHWdcnst123Iv";

  // An untyped message's code: a request's, or a protocol version's.
  static bool Code(uint32_t code) {
    return code == kSslRequest || code == kGssRequest || code == kCancel || code == kProtocol2 ||
           (code >> 16 == 3 && (code & 0xffff) <= 16);
  }
  static bool Answer(uint32_t c) { return c == 'S' || c == 'N' || c == 'G'; }
  static bool Has(const char *set, uint32_t c) {
    return c != 0 && strchr(set, static_cast<int>(c));
  }

  // A typed message's length field: a fixed value for the types that
  // carry nothing or little, at least 4 otherwise.
  static bool TypedLength(uint32_t type, uint32_t length, bool server) {
    if (length < 4 || length > 0x40000000) {
      return false;
    }
    if (server) {
      switch (type) {
      case 'Z':
        return length == 5;
      case 'K':
        return length == 12;
      case 'R':
        return length >= 8;
      case '1':
      case '2':
      case '3':
      case 'n':
      case 's':
      case 'I':
        return length == 4;
      default:
        return true;
      }
    }
    switch (type) {
    case 'S':
    case 'H':
    case 'X':
    case 'c':
      return length == 4;
    case 'Q':
      return length >= 5;
    default:
      return true;
    }
  }

  static uint32_t Be32(const uint8_t *p) { return LoadBe32(p); }

  // The bytes the current message of `side` needs before its size is
  // known; its size once they are in (0 while not), or false for bytes that
  // cannot begin a message here.
  static bool Frame(const State &st, unsigned who, const Side &side, uint32_t &size) {
    size = 0;
    const Mode mode = st.mode[who];
    if (side.have == 0) {
      return true;
    }
    const uint8_t first = side.head[0];
    if (mode == kAnswer && Answer(first)) {
      size = 1;
      return true;
    }
    if (mode == kUntyped) {
      if (side.have < 4) {
        return side.head[0] == 0;
      }
      const uint32_t length = Be32(side.head);
      if (length < 8 || length > kMaxStartup || (side.have >= 8 && !Code(Be32(side.head + 4)))) {
        return false;
      }
      size = length;
      return true;
    }
    const bool server = who != st.client;
    if (!Has(server ? kServerTypes : kClientTypes, first)) {
      return false;
    }
    if (side.have < 5) {
      return true;
    }
    const uint32_t length = Be32(side.head + 1);
    if (!TypedLength(first, length, server)) {
      return false;
    }
    size = length + 1;
    return true;
  }

  // Startup parameters, name and value NUL-terminated each, then a NUL;
  // published when `publish` (once they were found to frame).
  static bool Parameters(Session<Pgsql> &s, ByteReader r, bool whole, bool publish) {
    for (;;) {
      const char *name = nullptr;
      uint32_t n = 0;
      if (!r.CString(name, n)) {
        return !whole;
      }
      if (n == 0) {
        return !whole || r.Empty();
      }
      const char *value = nullptr;
      uint32_t m = 0;
      if (!r.CString(value, m)) {
        return !whole;
      }
      if (!Printable(name, n)) {
        return false;
      }
      const int attribute = n == 4 && memcmp(name, "user", 4) == 0                 ? kUser
                            : n == 8 && memcmp(name, "database", 8) == 0           ? kDatabase
                            : n == 16 && memcmp(name, "application_name", 16) == 0 ? kApplication
                                                                                   : -1;
      if (publish && attribute >= 0 && m != 0) {
        s.Publish(attribute, value, m);
      }
    }
  }

  // A field of fixed room, NUL-padded.
  static void Fixed(Session<Pgsql> &s, int attribute, ByteReader f) {
    const uint32_t n =
        static_cast<uint32_t>(strnlen(reinterpret_cast<const char *>(f.Here()), f.Left()));
    if (n != 0) {
      s.Publish(attribute, f.Here(), n);
    }
  }

  // The client's untyped message; kNotMine for none.
  static Verdict Untyped(Session<Pgsql> &s, ByteReader r, uint32_t size) {
    State &st = s.state();
    r.Skip(4);
    const uint32_t code = r.U32();
    if ((code == kSslRequest || code == kGssRequest) && size == 8) {
      st.asked = true;
      st.gss = code == kGssRequest;
      st.mode[st.client ^ 1] = kAnswer;
      return s.Name() ? Verdict::kNamed : Verdict::kNotMine;
    }
    if (code == kCancel && size == 16) {
      return s.Name() ? Verdict::kDone : Verdict::kNotMine;
    }
    if (!Code(code) || code == kSslRequest || code == kGssRequest || code == kCancel) {
      return Verdict::kNotMine;
    }
    if (code == kProtocol2) {
      // The version 2 startup: fixed fields of 64 bytes, database first.
      ByteReader database = r.Sub(64);
      ByteReader user = r.Sub(32);
      if (size != 296 || !r.Ok() || !s.Name()) {
        return Verdict::kNotMine;
      }
      Fixed(s, kUser, user);
      Fixed(s, kDatabase, database);
      st.mode[st.client] = kTyped;
      return Verdict::kNamed;
    }
    if (!Parameters(s, r, size <= kHead, false) || !s.Name()) {
      return Verdict::kNotMine;
    }
    Parameters(s, r, size <= kHead, true);
    st.mode[st.client] = kTyped;
    return Verdict::kNamed;
  }

  // One whole message, or its head; kNotMine for foreign bytes.
  static Verdict Message(Session<Pgsql> &s, ByteReader r, uint32_t size) {
    State &st = s.state();
    const unsigned who = s.side();
    Side &side = st.side[who];
    if (st.mode[who] == kUntyped) {
      return Untyped(s, r, size);
    }
    const uint32_t type = r.U8();
    if (st.mode[who] == kAnswer) {
      st.mode[who] = kTyped;
      st.asked = false;
      if (size == 1 && type == 'S' && !st.gss) {
        s.HandOn();
        return Verdict::kDone;
      }
      if (size == 1 && type == 'G' && st.gss) {
        return Verdict::kDone;
      }
      if (size == 1 && type == 'N') {
        // A startup in clear follows.
        st.mode[st.client] = kUntyped;
        return Verdict::kNamed;
      }
      // An old server's error message instead of an answer.
    }
    r.Skip(4);
    const bool server = who != st.client;
    if (server && type == 'S' && !st.version_said) {
      const char *text = reinterpret_cast<const char *>(r.Here());
      if (r.Left() > 15 && memcmp(text, "server_version", 15) == 0) {
        const uint32_t n = static_cast<uint32_t>(strnlen(text + 15, r.Left() - 15));
        if (n != 0 && n < r.Left() - 15 && s.named()) {
          s.Publish(kServerVersion, text + 15, n);
          st.version_said = true;
        }
      }
    }
    if (s.named()) {
      return Verdict::kNeedMore;
    }
    // Unnamed: a simple query whose text ends where its length says, or
    // a second message in a row that framed well.
    const bool query = !server && type == 'Q' && size <= kHead &&
                       Printable(reinterpret_cast<const char *>(r.Here()), r.Left() - 1) &&
                       r.Peek(r.Left() - 1) == 0;
    if (query || ++side.plausible >= 2) {
      return s.Name() ? Verdict::kNamed : Verdict::kNotMine;
    }
    return Verdict::kNeedMore;
  }

  // The first bytes of a client's untyped message or of a typed message
  // of either side: a length below 16 MB.
  static bool Opening(unsigned, ByteReader first) {
    const uint32_t c = first.Peek();
    return (c == 0 || Has(kClientTypes, c) || Has(kServerTypes, c)) &&
           (first.Left() < 2 || first.Peek(1) == 0);
  }

  static Verdict Feed(Session<Pgsql> &s, ByteReader r) {
    State &st = s.state();
    const unsigned who = s.side();
    if (!st.started) {
      // The side that opens with an untyped message is the client;
      // otherwise the first side's type tells which it is.
      st.started = true;
      const uint32_t c = r.Peek();
      st.client = static_cast<uint8_t>(c == 0 || Has(kClientTypes, c) ? who : who ^ 1);
      st.mode[st.client] = c == 0 ? kUntyped : kTyped;
      st.mode[st.client ^ 1] = kTyped;
    }
    Side &side = st.side[who];
    // A side's mode turns with the other side's messages: a head kept under
    // the old one may not fit the new, and is judged again.
    return side.ReadAtMost(
        s, r, kMessages,
        [&](const uint8_t *, uint32_t) -> uint32_t {
          uint32_t size = 0;
          return Frame(st, who, side, size) ? size : Side::kForeign;
        },
        [&](ByteReader head, uint32_t size) { return Message(s, head, size); });
  }
};

} // namespace

KEST_DECODER(Pgsql)
