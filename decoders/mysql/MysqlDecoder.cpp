// MySQL and MariaDB on any port, by their packets: a three-byte length and a
// sequence number, then the payload. Named by the server's greeting
// (protocol 10: its version text, a connection id, the scramble), by the
// error a server sends instead of one, by the client's handshake response
// (protocol 4.1 capabilities, the reserved filler, a user name), or, in a
// capture that begins later, by a client's query, prepare or change of
// database whose text fills its packet.
//
// Reports the greeting's version as "mysql.server_version" (without the
// "5.5.5-" that MariaDB puts in front of its own for old clients), the
// handshake response's user and database as "mysql.user" and
// "mysql.database", and the database of a later change of database too. A
// client's SSL request (a handshake response cut short, asking for SSL)
// hands the connection on, under chameleon, for the TLS decoder. Of each
// packet only the head is kept; the rest (result rows, blobs) is passed over
// by its length. The first kMessages packets of each side are read.
#include <kest/kit/Decoder.h>
#include <kest/kit/MessageHeads.h>
#include <kest/kit/TextLine.h>

#include <string.h>

namespace {

using namespace oru::kit;

struct Mysql {
  static constexpr Spec kSpec{
      .plugin = "mysql",
      .module = MODULE_MYSQL,
      .protocols = {"MySQL"},
      .attributes = {"mysql.server_version", "mysql.user", "mysql.database"},
      .tcp = true,
      .tcp_ports = {3306}};
  enum { kServerVersion, kUser, kDatabase };
  static constexpr uint32_t kHead = 384;
  static constexpr uint32_t kMessages = 8;
  // Capability flags of the handshake response.
  static constexpr uint32_t kConnectWithDb = 0x8;
  static constexpr uint32_t kProtocol41 = 0x200;
  static constexpr uint32_t kSsl = 0x800;
  static constexpr uint32_t kSecureConnection = 0x8000;
  static constexpr uint32_t kLenencAuth = 0x200000;
  // Commands that carry text.
  static constexpr uint32_t kInitDb = 0x02;
  static constexpr uint32_t kQuery = 0x03;
  static constexpr uint32_t kPrepare = 0x16;

  using Side = MessageHeads<kHead>;
  struct State {
    Side side[2];
  };

  // The server's greeting, protocol 10.
  static bool Greeting(Session<Mysql> &s, ByteReader r) {
    const char *version = nullptr;
    uint32_t n = 0;
    if (r.U8() != 10 || !r.CString(version, n) || n == 0 || !Printable(version, n)) {
      return false;
    }
    // Connection id, the scramble's first part, a filler of zero.
    r.Skip(12);
    if (r.U8() != 0 || !r.Ok() || !s.Name()) {
      return false;
    }
    if (n > 6 && memcmp(version, "5.5.5-", 6) == 0) {
      version += 6;
      n -= 6;
    }
    s.Publish(kServerVersion, version, n);
    return true;
  }

  // An error packet: a code, "#" and a state of five, or a message alone.
  static bool Error(ByteReader r) {
    r.Skip(1);
    const uint32_t code = r.U16Le();
    const char *text = reinterpret_cast<const char *>(r.Here());
    return r.Ok() && code >= 1000 && code < 5000 && r.Left() >= 4 &&
           Printable(text, static_cast<uint32_t>(r.Left()));
  }

  // The client's handshake response (or SSL request) of protocol 4.1.
  static Verdict Response(Session<Mysql> &s, ByteReader r, uint32_t size) {
    const uint32_t caps = r.U32Le();
    r.Skip(5); // the largest packet, the character set
    // A filler of 23 bytes: MariaDB's capabilities take its last four.
    static constexpr uint8_t kZero[19] = {};
    if (!r.Ok() || (caps & kProtocol41) == 0 || !r.Expect(kZero, sizeof kZero) || !r.Skip(4)) {
      return Verdict::kNotMine;
    }
    if (size == 36) { // no user: an SSL request
      if ((caps & kSsl) == 0 || !s.Name()) {
        return Verdict::kNotMine;
      }
      s.HandOn();
      return Verdict::kDone;
    }
    const char *user = nullptr;
    uint32_t n = 0;
    if (!r.CString(user, n) || !Printable(user, n) || !s.Name()) {
      return Verdict::kNotMine;
    }
    if (n != 0) {
      s.Publish(kUser, user, n);
    }
    uint64_t auth = 0;
    if ((caps & kLenencAuth) != 0) {
      auth = r.U8();
      if (auth >= 0xfb) { // longer encodings: no client sends that much
        return Verdict::kNamed;
      }
    } else if ((caps & kSecureConnection) != 0) {
      auth = r.U8();
    } else {
      const char *text = nullptr;
      uint32_t m = 0;
      r.CString(text, m);
    }
    r.Skip(static_cast<size_t>(auth));
    const char *database = nullptr;
    if ((caps & kConnectWithDb) != 0 && r.CString(database, n) && n != 0) {
      s.Publish(kDatabase, database, n);
    }
    return Verdict::kNamed;
  }

  static Verdict Packet(Session<Mysql> &s, ByteReader r, uint32_t size) {
    r.Skip(3);
    const uint32_t sequence = r.U8();
    const uint32_t first = r.Peek();
    if (sequence == 0 && first == 10 && size > 40) {
      return Greeting(s, r) ? Verdict::kNamed : Verdict::kNotMine;
    }
    if (sequence == 0 && first == 0xff) {
      return Error(r) && s.Name() ? Verdict::kNamed : Verdict::kNotMine;
    }
    if (sequence == 1 && size >= 36) {
      const Verdict v = Response(s, r, size);
      if (v != Verdict::kNotMine || !s.named()) {
        return v;
      }
    }
    // A command with text, whole in its packet.
    const char *text = reinterpret_cast<const char *>(r.Here() + 1);
    const uint32_t n = static_cast<uint32_t>(r.Left() - 1);
    if (sequence != 0 || (first != kInitDb && first != kQuery && first != kPrepare) ||
        (!s.named() && (size > kHead || n == 0 || !Printable(text, n)))) {
      return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    if (!s.Name()) {
      return Verdict::kNotMine;
    }
    if (first == kInitDb && n != 0 && size <= kHead) {
      s.Publish(kDatabase, text, n);
    }
    return Verdict::kNamed;
  }

  // The head of a packet that can name the protocol: a greeting or its
  // error (sequence 0), a handshake response (1), a command with text (0).
  static bool MayBegin(const uint8_t *h, size_t have) {
    if (have < 4) {
      return true;
    }
    const uint32_t length = h[0] | h[1] << 8 | h[2] << 16;
    if (h[3] == 1) {
      return length >= 32;
    }
    return h[3] == 0 && (have < 5 || h[4] == 10 || h[4] == 0xff || h[4] == kInitDb ||
                         h[4] == kQuery || h[4] == kPrepare);
  }

  static bool Opening(unsigned, ByteReader first) { return MayBegin(first.Here(), first.Left()); }

  static Verdict Feed(Session<Mysql> &s, ByteReader r) {
    Side &side = s.state().side[s.side()];
    const Verdict v = side.ReadAtMost(
        s, r, kMessages,
        [&](const uint8_t *head, uint32_t have) -> uint32_t {
          if (have < 4) {
            return 0;
          }
          const uint32_t whole = (head[0] | head[1] << 8 | head[2] << 16) + 4;
          return whole == 4 || (!s.named() && !MayBegin(head, have)) ? Side::kForeign : whole;
        },
        [&](ByteReader head, uint32_t whole) { return Packet(s, head, whole); });
    if (s.handing_on()) {
      // A client may send its TLS hello in the segment of its SSL request.
      s.HandOn(side.unread);
    }
    return v;
  }
};

} // namespace

KEST_DECODER(Mysql)
