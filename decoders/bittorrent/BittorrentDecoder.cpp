// BitTorrent on any port, by its bytes:
//   - the peer wire over TCP: the handshake ("\x13BitTorrent protocol", 8
//     reserved bytes, the info hash, the peer id) from either side, or, for
//     a connection seen from its middle, three messages in a row on one side
//     whose lengths fit their ids exactly (have, bitfield, request, piece,
//     ...); an encrypted connection (MSE) shows nothing to name;
//   - tracker announces and scrapes over HTTP ("GET .../announce?info_hash=
//     ..." from the client): named HTTP and BitTorrent above it, the HTTP
//     decoder reading the request as usual;
//   - over UDP: DHT messages (a bencoded dictionary: "y" of q, r or e, "t",
//     and a query's "q" and "a" or an answer's "r" with a 20-byte "id");
//     uTP packets (version 1, types 0 to 4, a well-formed extension chain)
//     once the two sides' connection ids pair (a SYN's id answered, or ids
//     one apart); a tracker's connect request (protocol id 0x41727101980)
//     and the announces after it, or an announce and the tracker's answer
//     to its transaction; local peer discovery ("BT-SEARCH *").
// "bittorrent.info_hash" (40 hex digits) comes from handshakes, announces,
// DHT get_peers and announce_peer queries and discovery; "bittorrent.client"
// from a peer id: Azureus-style ("-qB4650-": "qBittorrent 4.6.5"),
// Shadow-style and Mainline-style prefixes, else the id's printable start.
// Pieces and other payloads are passed over by their lengths, never kept;
// nothing past the handshakes is read of a named peer connection.
#include "bittorrent/Bencode.h"

#include <kest/kit/Decoder.h>
#include <kest/kit/TextLine.h>

#include <string.h>

namespace {

using namespace oru::kit;
using kest_bittorrent::Bencode;

constexpr uint8_t kProtocolName[20] = {19,  'B', 'i', 't', 'T', 'o', 'r', 'r', 'e', 'n',
                                       't', ' ', 'p', 'r', 'o', 't', 'o', 'c', 'o', 'l'};
constexpr uint32_t kHandshake = 68;
// Messages in a row that name a connection seen from its middle.
constexpr uint8_t kFramesToName = 3;
// The longest message taken: a bitfield of two million pieces.
constexpr uint32_t kMaxMessage = 1u << 18;
// A tracker request's path and query, at most.
constexpr uint32_t kMaxPath = 256;
constexpr uint32_t kMaxQuery = 2048;

// One side of a TCP connection.
struct Wire {
  enum : uint8_t { kStart, kHandshake, kFrames, kQuery, kQuiet };
  uint8_t mode = kStart;
  uint8_t head_have = 0;
  uint8_t frames = 0;
  uint8_t head[5] = {};
  uint32_t at = 0;
  // Bytes of the current message's body still to pass.
  uint32_t left = 0;
};

// A tracker request's line (its target's path and query, then the rest of
// the line), read a byte at a time.
struct Query {
  enum : uint8_t { kPath, kName, kValue, kHead };
  uint8_t phase = kPath;
  uint8_t name_length = 0;
  // 1: the value is the info hash, 2: the peer id.
  uint8_t target = 0;
  uint8_t escape = 0;
  uint8_t escaped = 0;
  uint8_t got = 0;
  bool hash_ok = false;
  bool peer_ok = false;
  char tail[8] = {};
  char name[9] = {};
};

// uTP: what each side's last packet said.
struct Utp {
  uint16_t id[2] = {};
  bool seen[2] = {};
  bool syn[2] = {};
  // Packets of one side while the other has not answered.
  uint8_t unanswered = 0;
};
// A side's uTP packets that wait for the other's, at most.
constexpr uint8_t kMaxUnanswered = 8;

struct Bittorrent {
  static constexpr Spec kSpec{.plugin = "bittorrent",
                              .module = MODULE_BITTORRENT,
                              .protocols = {"BitTorrent", "HTTP"},
                              .attributes = {"bittorrent.info_hash", "bittorrent.client"},
                              .tcp = true,
                              // HTTP's ports too: there the tracker request is read before HTTP's
                              // decoder reads it, so that the two report in one order wherever the
                              // packets cut the request.
                              .tcp_ports = {6881, 6969, 80, 8080, 8000, 8008, 8888, 3128},
                              .udp = true,
                              .udp_ports = {6881, 6771, 6969},
                              .tcp_framing = Framing::kStream};
  enum { kInfoHash, kClient };

  struct State {
    Wire side[2];
    Query query;
    Utp utp;
    uint8_t hash[20] = {};
    uint8_t peer[2][20] = {};
    bool hash_told = false;
    // A UDP tracker's connect request was seen, from this side; or only
    // an announce, of this transaction, whose answer is awaited.
    bool tracker = false;
    bool announced = false;
    uint8_t tracker_client = 0;
    uint32_t transaction = 0;
  };

  // An announce to a UDP tracker: a connection id, action 1, a transaction,
  // the info hash, the peer id, three counts of 8 bytes, an event of 0 to 3,
  // address, key, wanted peers and port.
  static bool Announce(ByteReader r) {
    return r.Left() >= 98 && LoadBe32(r.Here() + 8) == 1 && LoadBe32(r.Here() + 80) <= 3;
  }

  // The first bytes of a connection: a handshake, a tracker request, a
  // message's length (TCP); a bencoded dictionary, a uTP header, a tracker
  // connect or answer, a discovery search (UDP).
  static bool Opening(unsigned, ByteReader first) {
    const uint32_t c = first.Peek();
    return c == 0x13 || (c == 'G' && MayBeTrackerQuery(first)) || c == 'd' || c == 'B' || c == 0 ||
           ((c & 0x0f) == 1 && c <= 0x41) || Announce(first);
  }

  // Whether a first packet that opens with 'G' may begin a tracker request:
  // "GET /" and a path that, as far as the packet goes, ends in "announce"
  // or "scrape" before its query. Every HTTP request passes here, so the
  // path is scanned in one pass rather than a byte per call.
  static bool MayBeTrackerQuery(ByteReader first) {
    const char *text = reinterpret_cast<const char *>(first.Here());
    const size_t n = first.Left();
    static constexpr char kGet[] = "GET /";
    for (size_t i = 0; i < sizeof kGet - 1; ++i) {
      if (i == n) {
        return true;
      }
      if (text[i] != kGet[i]) {
        return false;
      }
    }
    for (size_t i = sizeof kGet - 1; i < n; ++i) {
      if (text[i] == ' ' || static_cast<unsigned char>(text[i]) < ' ') {
        return false;
      }
      if (text[i] == '?') {
        return (i >= 8 && HasPrefix(text + i - 8, 8, "announce")) ||
               (i >= 6 && HasPrefix(text + i - 6, 6, "scrape"));
      }
    }
    return true;
  }

  static void Hex(const uint8_t *bytes, char *out) {
    static constexpr char kDigits[] = "0123456789abcdef";
    for (int i = 0; i < 20; ++i) {
      out[2 * i] = kDigits[bytes[i] >> 4];
      out[2 * i + 1] = kDigits[bytes[i] & 15];
    }
  }

  static void TellHash(Session<Bittorrent> &s, const uint8_t *hash) {
    char text[40];
    Hex(hash, text);
    s.Publish(kInfoHash, text, sizeof text);
  }

  // Dotted digit groups of a Mainline-style or aria2 id ("4-4-0--",
  // "1-36-0-"): three groups, each ended by '-'. 0 when not so.
  static uint32_t Dashed(const uint8_t *p, uint32_t n, char *out) {
    uint32_t o = 0;
    uint32_t i = 0;
    for (int group = 0; group < 3; ++group) {
      const uint32_t from = i;
      while (i < n && i - from < 3 && p[i] >= '0' && p[i] <= '9') {
        out[o++] = static_cast<char>(p[i++]);
      }
      if (i == from || i >= n || p[i] != '-') {
        return 0;
      }
      ++i;
      if (group < 2) {
        out[o++] = '.';
      }
    }
    return o;
  }

  // A peer id's client and version as text; its printable start when the
  // style is not known.
  static uint32_t ClientName(const uint8_t *id, char *out) {
    struct Code {
      char code[3];
      const char *name;
    };
    static constexpr Code kAzureus[] = {
        {"AZ", "Vuze"},     {"BC", "BitComet"},     {"BI", "BiglyBT"},      {"BT", "BitTorrent"},
        {"DE", "Deluge"},   {"FW", "FrostWire"},    {"KT", "KTorrent"},     {"LT", "libtorrent"},
        {"lt", "rTorrent"}, {"qB", "qBittorrent"},  {"TR", "Transmission"}, {"UM", "uTorrent Mac"},
        {"UT", "uTorrent"}, {"UW", "uTorrent Web"}, {"WW", "WebTorrent"},   {"XL", "Xunlei"}};
    static constexpr Code kShadow[] = {{"A", "ABC"},     {"O", "Osprey Permaseed"},
                                       {"Q", "BTQueue"}, {"R", "Tribler"},
                                       {"S", "Shadow"},  {"T", "BitTornado"}};
    const char *name = nullptr;
    uint32_t n = 0;
    auto put = [&](const char *text) {
      while (*text != 0) {
        out[n++] = *text++;
      }
    };
    if (id[0] == '-' && id[7] == '-') {
      for (const Code &c : kAzureus) {
        if (id[1] == static_cast<uint8_t>(c.code[0]) && id[2] == static_cast<uint8_t>(c.code[1])) {
          name = c.name;
        }
      }
      bool alnum = true;
      for (int i = 3; i < 7; ++i) {
        alnum = alnum && Printable(reinterpret_cast<const char *>(id + i), 1) && id[i] != ' ';
      }
      if (name != nullptr && alnum) {
        put(name);
        out[n++] = ' ';
        for (int i = 3; i < 6; ++i) {
          out[n++] = static_cast<char>(id[i]);
          out[n++] = i < 5 ? '.' : '\0';
        }
        --n;
        if (id[6] != '0') {
          out[n++] = '.';
          out[n++] = static_cast<char>(id[6]);
        }
        return n;
      }
    }
    char version[16];
    if (id[0] == 'M' || (id[0] == 'A' && id[1] == '2' && id[2] == '-')) {
      const uint32_t v = id[0] == 'M' ? Dashed(id + 1, 19, version) : Dashed(id + 3, 17, version);
      if (v != 0) {
        put(id[0] == 'M' ? "BitTorrent " : "aria2 ");
        for (uint32_t i = 0; i < v; ++i) {
          out[n++] = version[i];
        }
        return n;
      }
    }
    for (const Code &c : kShadow) {
      if (id[0] != static_cast<uint8_t>(c.code[0])) {
        continue;
      }
      // Up to five version characters of 0-9, A-Z, a-z and '.', then
      // dashes.
      uint32_t v = 0;
      uint32_t i = 1;
      for (; i < 6 && id[i] != '-'; ++i) {
        const uint8_t d = id[i];
        const uint32_t value = d >= '0' && d <= '9'   ? d - '0'
                               : d >= 'A' && d <= 'Z' ? d - 'A' + 10
                               : d >= 'a' && d <= 'z' ? d - 'a' + 36
                               : d == '.'             ? 62
                                                      : 99;
        if (value == 99) {
          break;
        }
        if (v != 0) {
          version[v++] = '.';
        }
        v += FormatDecimal(value, version + v);
      }
      if (i > 1 && id[i] == '-' && id[i + 1] == '-') {
        put(c.name);
        out[n++] = ' ';
        for (uint32_t k = 0; k < v; ++k) {
          out[n++] = version[k];
        }
        return n;
      }
    }
    while (n < 8 && Printable(reinterpret_cast<const char *>(id + n), 1)) {
      out[n] = static_cast<char>(id[n]);
      ++n;
    }
    return n;
  }

  static void TellClient(Session<Bittorrent> &s, const uint8_t *id) {
    char text[48];
    const uint32_t n = ClientName(id, text);
    if (n != 0) {
      s.Publish(kClient, text, n);
    }
  }

  // Whether a peer wire message's length fits its id.
  static bool FitsId(uint32_t length, uint32_t id) {
    switch (id) {
    case 0: // choke, unchoke, interested, not interested
    case 1:
    case 2:
    case 3:
    case 14: // have all, have none
    case 15:
      return length == 1;
    case 4:  // have
    case 13: // suggest
    case 17: // allowed fast
      return length == 5;
    case 6:  // request
    case 8:  // cancel
    case 16: // reject
      return length == 13;
    case 7: // piece
      return length > 9 && length <= (1u << 17) + 9;
    case 9: // port
      return length == 3;
    case 5:  // bitfield
    case 20: // extended
      return length >= 2;
    default:
      return false;
    }
  }

  // The peer wire handshake, a byte at a time; false when it is not one.
  static bool HandshakeByte(Session<Bittorrent> &s, Wire &w, uint8_t b) {
    State &st = s.state();
    const uint32_t at = w.at++;
    if (at < sizeof kProtocolName) {
      return b == kProtocolName[at];
    }
    if (at >= 28 && at < 48 && !st.hash_told) {
      st.hash[at - 28] = b;
    } else if (at >= 48) {
      st.peer[&w == &st.side[1]][at - 48] = b;
    }
    return true;
  }

  // One message header byte or body run of a connection read from its
  // middle; false when the framing breaks.
  static bool Frames(Wire &w, ByteReader &r) {
    if (w.left != 0) {
      const size_t n = w.left < r.Left() ? w.left : r.Left();
      r.Skip(n);
      w.left -= static_cast<uint32_t>(n);
      if (w.left == 0 && w.frames < 255) {
        ++w.frames;
      }
      return true;
    }
    w.head[w.head_have++] = static_cast<uint8_t>(r.U8());
    if (w.head_have < 4) {
      return true;
    }
    const uint32_t length = LoadBe32(w.head);
    if (length > kMaxMessage) {
      return false;
    }
    if (length == 0) { // keep-alive: allowed, but names nothing
      w.head_have = 0;
      return true;
    }
    if (w.head_have < 5) {
      return true;
    }
    w.head_have = 0;
    if (!FitsId(length, w.head[4])) {
      return false;
    }
    w.left = length - 1;
    if (w.left == 0 && w.frames < 255) {
      ++w.frames;
    }
    return true;
  }

  // A tracker request, one byte; -1 when it is not one, 1 once its request
  // line is whole with an info hash in its target, 0 for more.
  static int QueryByte(State &st, uint8_t c) {
    Query &q = st.query;
    Wire &w = st.side[0];
    const uint32_t at = w.at++;
    if (at < 5) {
      return c == static_cast<uint8_t>("GET /"[at]) ? 0 : -1;
    }
    if (q.phase == Query::kHead) {
      // Named at the end of the request line: HTTP waits for the rest of
      // the head only once this decoder has left the connection.
      return c == '\n' ? 1 : at > kMaxPath + kMaxQuery + 16 ? -1 : 0;
    }
    if (c <= ' ' && c != ' ') {
      return -1;
    }
    if (q.phase == Query::kPath) {
      if (c == '?') {
        const bool announce = HasPrefix(q.tail, 8, "announce");
        const bool scrape = HasPrefix(q.tail + 2, 6, "scrape");
        q.phase = Query::kName;
        return announce || scrape ? 0 : -1;
      }
      for (int i = 0; i < 7; ++i) {
        q.tail[i] = q.tail[i + 1];
      }
      q.tail[7] = static_cast<char>(c);
      return c == ' ' || at > kMaxPath ? -1 : 0;
    }
    if (at > kMaxPath + kMaxQuery) {
      return -1;
    }
    if (q.phase == Query::kName) {
      if (c == '=') {
        const uint32_t n = q.name_length;
        q.target = n == 9 && HasPrefix(q.name, 9, "info_hash") ? 1
                   : n == 7 && HasPrefix(q.name, 7, "peer_id") ? 2
                                                               : 0;
        q.phase = Query::kValue;
        q.got = 0;
        q.escape = 0;
      } else if (c == '&') {
        q.name_length = 0;
      } else if (c == ' ') {
        q.phase = Query::kHead;
        return q.hash_ok ? 0 : -1;
      } else if (q.name_length < sizeof q.name) {
        q.name[q.name_length++] = static_cast<char>(c);
      } else {
        q.name_length = 255;
      }
      return 0;
    }
    if (c == '&' || c == ' ') {
      q.hash_ok = q.hash_ok || (q.target == 1 && q.got == 20 && q.escape == 0);
      q.peer_ok = q.peer_ok || (q.target == 2 && q.got == 20 && q.escape == 0);
      q.phase = c == ' ' ? Query::kHead : Query::kName;
      q.name_length = 0;
      return c == ' ' && !q.hash_ok ? -1 : 0;
    }
    if (q.target == 0) {
      return 0;
    }
    uint8_t byte = c;
    if (c == '%' && q.escape == 0) {
      q.escape = 1;
      return 0;
    }
    if (q.escape != 0) {
      const int digit = c >= '0' && c <= '9'   ? c - '0'
                        : c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                               : -1;
      if (digit < 0) {
        return -1;
      }
      q.escaped = static_cast<uint8_t>(q.escaped << 4 | digit);
      if (++q.escape < 3) {
        return 0;
      }
      q.escape = 0;
      byte = q.escaped;
    }
    if (q.got < 20) {
      (q.target == 1 ? st.hash : st.peer[0])[q.got] = byte;
    }
    q.got = q.got < 21 ? q.got + 1 : 21;
    return 0;
  }

  static Verdict Tcp(Session<Bittorrent> &s, ByteReader r) {
    State &st = s.state();
    Wire &w = st.side[s.side()];
    Wire &other = st.side[1 - s.side()];
    if (w.mode == Wire::kStart && !r.Empty()) {
      const uint32_t c = r.Peek();
      w.mode = c == 0x13                                                 ? Wire::kHandshake
               : s.named()                                               ? Wire::kQuiet
               : c == 'G' && s.side() == 0 && other.mode == Wire::kStart ? Wire::kQuery
               : other.mode == Wire::kQuery                              ? Wire::kQuiet
                                                                         : Wire::kFrames;
    }
    if (w.mode == Wire::kHandshake && w.at == 0 && r.Left() >= kHandshake) {
      // A whole handshake at hand, as it usually comes: read at once.
      const uint8_t *h = r.Here();
      if (memcmp(h, kProtocolName, sizeof kProtocolName) != 0) {
        return s.named() ? Verdict::kDone : Verdict::kNotMine;
      }
      if (!s.Name()) {
        return Verdict::kNotMine;
      }
      if (!st.hash_told) {
        memcpy(st.hash, h + 28, sizeof st.hash);
        st.hash_told = true;
        TellHash(s, st.hash);
      }
      memcpy(st.peer[s.side()], h + 48, sizeof st.peer[0]);
      TellClient(s, st.peer[s.side()]);
      r.Skip(kHandshake);
      w.at = kHandshake;
      w.mode = Wire::kQuiet;
    }
    while (!r.Empty() && w.mode != Wire::kQuiet) {
      if (w.mode == Wire::kHandshake) {
        if (!HandshakeByte(s, w, static_cast<uint8_t>(r.U8()))) {
          return s.named() ? Verdict::kDone : Verdict::kNotMine;
        }
        if (w.at == sizeof kProtocolName && !s.Name()) {
          return Verdict::kNotMine;
        }
        if (w.at == 48 && !st.hash_told) {
          st.hash_told = true;
          TellHash(s, st.hash);
        }
        if (w.at == kHandshake) {
          TellClient(s, st.peer[s.side()]);
          w.mode = Wire::kQuiet;
        }
      } else if (w.mode == Wire::kQuery) {
        const int got = QueryByte(st, static_cast<uint8_t>(r.U8()));
        if (got < 0) {
          return Verdict::kNotMine;
        }
        if (got > 0) {
          // The request is HTTP's too: HTTP below BitTorrent, whichever
          // decoder reads it first.
          if (!s.conn().PushProtocol(s.registration().Proto(1)) || !s.Name()) {
            return Verdict::kNotMine;
          }
          TellHash(s, st.hash);
          if (st.query.peer_ok) {
            TellClient(s, st.peer[0]);
          }
          return Verdict::kDone;
        }
      } else if (!Frames(w, r)) {
        return s.named() ? Verdict::kDone : Verdict::kNotMine;
      } else if (w.frames >= kFramesToName && !s.named()) {
        if (!s.Name()) {
          return Verdict::kNotMine;
        }
        // Nothing to report of a connection seen from its middle.
        return Verdict::kDone;
      }
    }
    if (s.named() && w.mode == Wire::kQuiet && other.mode == Wire::kQuiet) {
      return Verdict::kDone;
    }
    return s.named() ? Verdict::kNamed : Verdict::kNeedMore;
  }

  // A DHT message: a whole datagram of one dictionary.
  static Verdict Dht(Session<Bittorrent> &s, ByteReader r) {
    const ByteReader message = Bencode::Value(r);
    if (!message.Ok() || !r.Empty()) {
      return Verdict::kNotMine;
    }
    const ByteReader y = Bencode::Find(message, "y", 1);
    const bool query = Bencode::IsString(y, "q", 1);
    ByteReader t = Bencode::Find(message, "t", 1);
    if (!Bencode::String(t).Ok() || !t.Empty()) {
      return Verdict::kNotMine;
    }
    ByteReader body;
    if (query) {
      ByteReader q = Bencode::Find(message, "q", 1);
      if (!Bencode::String(q).Ok() || !q.Empty()) {
        return Verdict::kNotMine;
      }
      body = Bencode::Find(message, "a", 1);
    } else if (Bencode::IsString(y, "r", 1)) {
      body = Bencode::Find(message, "r", 1);
    } else if (Bencode::IsString(y, "e", 1)) {
      const ByteReader e = Bencode::Find(message, "e", 1);
      return e.Ok() && e.Peek() == 'l' && s.Name() ? Verdict::kNamed : Verdict::kNotMine;
    } else {
      return Verdict::kNotMine;
    }
    ByteReader id = Bencode::Find(body, "id", 2);
    ByteReader id_bytes = Bencode::String(id);
    if (!id_bytes.Ok() || id_bytes.Left() != 20 || !s.Name()) {
      return Verdict::kNotMine;
    }
    if (query) {
      ByteReader hash = Bencode::Find(body, "info_hash", 9);
      ByteReader hash_bytes = Bencode::String(hash);
      if (hash_bytes.Ok() && hash_bytes.Left() == 20) {
        TellHash(s, hash_bytes.Here());
      }
    }
    return Verdict::kNamed;
  }

  // A uTP header; its type, connection id and payload. False when not one.
  static bool UtpHeader(ByteReader r, uint32_t &type, uint32_t &id, ByteReader &payload) {
    const uint32_t first = r.U8();
    type = first >> 4;
    uint32_t extension = r.U8();
    id = r.U16();
    r.Skip(16);
    for (int hops = 0; extension != 0 && r.Ok(); ++hops) {
      if (hops == 8) {
        return false;
      }
      extension = r.U8();
      r.Skip(r.U8());
    }
    payload = r;
    // A SYN and a state packet carry nothing.
    return r.Ok() && (first & 0x0f) == 1 && type <= 4 && ((type != 2 && type != 4) || r.Empty());
  }

  static Verdict UtpPacket(Session<Bittorrent> &s, ByteReader r) {
    uint32_t type = 0;
    uint32_t id = 0;
    ByteReader payload;
    if (!UtpHeader(r, type, id, payload)) {
      return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    Utp &u = s.state().utp;
    const unsigned me = s.side();
    const unsigned other = 1 - me;
    const bool syn = type == 4;
    if (!s.named() && !u.seen[other] && ++u.unanswered > kMaxUnanswered) {
      return Verdict::kNotMine;
    }
    if (!s.named() && u.seen[other]) {
      const uint16_t theirs = u.id[other];
      // The answer to a SYN carries its id; otherwise the initiator sends
      // with one more than it receives.
      const bool paired = syn || u.syn[other] ? id == theirs
                                              : static_cast<uint16_t>(id + 1) == theirs ||
                                                    static_cast<uint16_t>(theirs + 1) == id;
      if (!paired) {
        return Verdict::kNotMine;
      }
      if (!s.Name()) {
        return Verdict::kNotMine;
      }
    }
    u.seen[me] = true;
    u.syn[me] = syn;
    u.id[me] = static_cast<uint16_t>(id);
    if (s.named() && type == 0 && payload.Left() >= kHandshake &&
        payload.Expect(kProtocolName, sizeof kProtocolName)) {
      payload.Skip(8);
      if (!s.state().hash_told) {
        s.state().hash_told = true;
        TellHash(s, payload.Here());
      }
      payload.Skip(20);
      TellClient(s, payload.Here());
    }
    return s.named() ? Verdict::kNamed : Verdict::kNeedMore;
  }

  // Local peer discovery: "BT-SEARCH * HTTP/1.1" and an "Infohash" header
  // of 40 hex digits (or several).
  static Verdict Discovery(Session<Bittorrent> &s, ByteReader r) {
    static constexpr char kLine[] = "BT-SEARCH * HTTP/1.1\r\n";
    if (!r.Expect(kLine, sizeof kLine - 1)) {
      return Verdict::kNotMine;
    }
    const char *text = reinterpret_cast<const char *>(r.Here());
    const uint32_t n = r.Left() < 1024 ? static_cast<uint32_t>(r.Left()) : 1024;
    static constexpr char kHeader[] = "infohash: ";
    bool named = false;
    for (uint32_t i = 0; i + 10 + 40 <= n; ++i) {
      if ((i != 0 && text[i - 1] != '\n') || !StartsWith(text + i, n - i, kHeader)) {
        continue;
      }
      uint8_t hash[20];
      bool hex = true;
      for (uint32_t k = 0; k < 40 && hex; ++k) {
        const char c = Fold(text[i + 10 + k]);
        const int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        hex = d >= 0;
        hash[k / 2] = static_cast<uint8_t>(k % 2 == 0 ? d << 4 : hash[k / 2] | d);
      }
      if (hex && (named || s.Name())) {
        named = true;
        TellHash(s, hash);
      }
    }
    return named ? Verdict::kNamed : Verdict::kNotMine;
  }

  // A UDP tracker's connect request and, after it, the answers and the
  // announces.
  static Verdict Tracker(Session<Bittorrent> &s, ByteReader r, bool &mine) {
    State &st = s.state();
    ByteReader h = r;
    const uint64_t connection = h.U64();
    const uint32_t action = h.U32();
    const uint32_t transaction = h.U32();
    mine = h.Ok();
    if (mine && connection == 0x41727101980ull && action == 0 && h.Empty() && !s.named()) {
      st.tracker = true;
      st.tracker_client = static_cast<uint8_t>(s.side());
      return s.Name() ? Verdict::kNamed : Verdict::kNotMine;
    }
    if (!s.named() && !st.announced && Announce(r)) {
      // Its connect came before the capture: named once the tracker
      // answers this transaction.
      st.announced = true;
      st.tracker_client = static_cast<uint8_t>(s.side());
      st.transaction = transaction;
      for (int i = 0; i < 20; ++i) {
        st.hash[i] = h.Here()[i];
        st.peer[s.side()][i] = h.Here()[20 + i];
      }
      return Verdict::kNeedMore;
    }
    if (!s.named() && st.announced) {
      // The answer: action 1, the transaction, interval, leechers, seeders
      // and peers of 6 (or 18) bytes; or an error (action 3).
      const uint32_t answer = static_cast<uint32_t>(connection >> 32);
      const size_t peers = r.Left() - 20;
      const bool answered =
          s.side() != st.tracker_client && static_cast<uint32_t>(connection) == st.transaction &&
          ((answer == 1 && r.Left() >= 20 && (peers % 6 == 0 || peers % 18 == 0)) || answer == 3);
      if (!answered || !s.Name()) {
        return Verdict::kNotMine;
      }
      st.tracker = true;
      TellHash(s, st.hash);
      TellClient(s, st.peer[st.tracker_client]);
      return Verdict::kNamed;
    }
    if (mine && st.tracker && s.side() == st.tracker_client && action == 1 &&
        h.Left() >= 20 + 20 + 24 + 16 + 2) {
      TellHash(s, h.Here());
      h.Skip(20);
      TellClient(s, h.Here());
      return Verdict::kNamed;
    }
    mine = mine && st.tracker;
    return Verdict::kNamed;
  }

  static Verdict Feed(Session<Bittorrent> &s, ByteReader r) {
    if (s.tuple().protocol == 6) {
      return Tcp(s, r);
    }
    const uint32_t c = r.Peek();
    if (c == 'd') {
      const Verdict v = Dht(s, r);
      return v == Verdict::kNotMine && s.named() ? Verdict::kNeedMore : v;
    }
    if (c == 'B') {
      const Verdict v = Discovery(s, r);
      return v == Verdict::kNotMine && s.named() ? Verdict::kNeedMore : v;
    }
    bool tracker = false;
    if (r.Left() >= 16 && (c == 0 || s.state().tracker || s.state().announced || Announce(r))) {
      const Verdict v = Tracker(s, r, tracker);
      if (tracker) {
        return v;
      }
    }
    return UtpPacket(s, r);
  }
};

} // namespace

KEST_DECODER(Bittorrent)
