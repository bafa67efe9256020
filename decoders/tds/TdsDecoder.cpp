// TDS (Microsoft SQL Server) on any port, by its packets: an eight-byte
// header (type, status, a big-endian length, a process id, a packet number,
// a window of zero), then the payload. Named by a client's pre-login (its
// option table, VERSION first, every option inside the packet) or LOGIN7
// (its length, a TDS version, an offset table inside the message), by a SQL
// batch, remote procedure call or transaction request (the ALL_HEADERS block
// of TDS 7.2 and later, or UTF-16 text), or by a server's answer whose first
// token is one the server sends first (pre-login options, LOGINACK,
// ENVCHANGE, DONE, ERROR, INFO, COLMETADATA, RETURNSTATUS).
//
// Reports LOGIN7's TDS version as "tds.version" ("7.4"), its user, client
// host, application and database names as "tds.user", "tds.host", "tds.app"
// and "tds.database" (the password stays unread), and the server's
// pre-login answer on encryption as "tds.encryption" ("off", "on",
// "not-supported", "required"). A pre-login that carries a
// TLS handshake (TDS 7's encryption, wrapped in TDS packets) ends the
// reading: the login that follows is encrypted. TDS 8 connections start
// with TLS itself, for the TLS decoder. Of each packet only the head is
// kept; the rest is passed over by its length. The first kMessages packets
// of each side are read.
#include <kest/kit/Decoder.h>
#include <kest/kit/MessageHeads.h>
#include <kest/kit/TextLine.h>

#include <string.h>

namespace {

using namespace oru::kit;

struct Tds {
  static constexpr Spec kSpec{.plugin = "tds",
                              .module = MODULE_TDS,
                              .protocols = {"TDS"},
                              .attributes = {"tds.version", "tds.user", "tds.host", "tds.app",
                                             "tds.database", "tds.encryption"},
                              .tcp = true,
                              .tcp_ports = {1433}};
  enum { kVersion, kUser, kHost, kApp, kDatabase, kEncryption };
  static constexpr uint32_t kHeader = 8;
  static constexpr uint32_t kHead = 1024;
  static constexpr uint32_t kMessages = 8;
  // The largest packet size a client may ask for.
  static constexpr uint32_t kMaxPacket = 32768;
  // LOGIN7's fixed part in TDS 7.0, up to its offset table's end (later
  // versions add eight bytes).
  static constexpr uint32_t kLoginFixed = 86;
  static constexpr uint32_t kAt[] = {36, 40, 48, 68};
  static constexpr int kAttribute[] = {kHost, kUser, kApp, kDatabase};

  enum Type : uint8_t {
    kSqlBatch = 1,
    kRpc = 3,
    kReply = 4,
    kAttention = 6,
    kBulk = 7,
    kTransaction = 14,
    kLogin7 = 16,
    kSspi = 17,
    kPrelogin = 18,
  };

  struct Side : MessageHeads<kHead> {
    bool inside; // the last packet did not end its message
  };
  struct State {
    Side side[2];
  };

  static bool KnownType(uint32_t type) {
    return type == kSqlBatch || type == kRpc || type == kReply || type == kAttention ||
           type == kBulk || type == kTransaction || type == kLogin7 || type == kSspi ||
           type == kPrelogin;
  }

  // A packet header: known type, the status bits of end, ignore, event and reset only.
  static bool HeaderOk(const uint8_t *h, uint32_t have) {
    return KnownType(h[0]) && (have < 2 || (h[1] & ~0x1fu) == 0) && (have < 8 || h[7] == 0);
  }

  static uint32_t Le16(const uint8_t *p) { return static_cast<uint32_t>(p[0] | p[1] << 8); }

  // The pre-login option table: tokens of five bytes, 0xFF at its end,
  // VERSION first with six bytes, each value inside the payload `p`.
  static bool Options(ByteReader p, int &encryption) {
    ByteReader r = p;
    bool first = true;
    encryption = -1;
    for (uint32_t i = 0; i < 16; ++i) {
      const uint32_t token = r.U8();
      if (token == 0xff) {
        return r.Ok() && !first;
      }
      const uint32_t offset = r.U16();
      const uint32_t length = r.U16();
      if (!r.Ok() || (first && (token != 0 || length != 6)) || offset + length > p.Left()) {
        return false;
      }
      if (token == 1 && length == 1) {
        encryption = static_cast<int>(p.Peek(offset));
      }
      first = false;
    }
    return false;
  }

  // ALL_HEADERS: a total length, then headers of a length and a type (query
  // notification, transaction descriptor, trace activity).
  static bool AllHeaders(ByteReader r, uint32_t &total) {
    total = r.U32Le();
    const uint32_t length = r.U32Le();
    const uint32_t type = r.U16Le();
    return r.Ok() && total >= 4 + 6 && total <= 1024 && length >= 6 && length <= total - 4 &&
           type >= 1 && type <= 3;
  }

  // UTF-16LE text of ASCII letters at the front: `chars` of them at least.
  static bool Utf16(ByteReader r, uint32_t chars) {
    for (uint32_t i = 0; i < chars; ++i) {
      const uint32_t c = r.U16Le();
      if (!r.Ok() || c < 0x09 || c > 0x7e || (c < 0x20 && c != 0x09 && c != 0x0a && c != 0x0d)) {
        return false;
      }
    }
    return true;
  }

  // A batch, call or transaction request's payload.
  static bool Request(uint32_t type, ByteReader r) {
    uint32_t total = 0;
    if (AllHeaders(r, total)) {
      r.Skip(total);
    } else if (type == kTransaction) {
      return false;
    }
    if (type == kSqlBatch) {
      return Utf16(r, r.Left() / 2 < 4 ? static_cast<uint32_t>(r.Left() / 2) : 4) && r.Left() >= 2;
    }
    if (type == kRpc) {
      // A procedure's name, or 0xFFFF and a well-known procedure's number.
      const uint32_t length = r.U16Le();
      if (length == 0xffff) {
        const uint32_t id = r.U16Le();
        return r.Ok() && id >= 1 && id <= 15;
      }
      return length != 0 && length <= 128 && Utf16(r, length < 4 ? length : 4);
    }
    // A transaction manager request: its type, 0 to 10.
    return r.U16Le() <= 10 && r.Ok();
  }

  // The first token of a server's answer.
  static bool Reply(ByteReader r) {
    const uint32_t token = r.U8();
    const uint32_t length = r.U16Le();
    switch (token) {
    case 0xfd: // DONE, DONEPROC, DONEINPROC: status, command, row count
    case 0xfe:
    case 0xff:
      return r.Ok() && (length & ~0x1bfu) == 0;
    case 0xad: // LOGINACK, ENVCHANGE, ERROR, INFO: a length that fits
    case 0xe3:
    case 0xaa:
    case 0xab:
      return r.Ok() && length >= 3 && length <= r.Left();
    case 0x81: // COLMETADATA: a count of columns, or none
      return r.Ok() && length != 0;
    case 0x79: // RETURNSTATUS
      return r.Ok();
    default:
      return false;
    }
  }

  // LOGIN7: the version, then the names of the offset table.
  static bool Login(Session<Tds> &s, const uint8_t *p, uint32_t n, uint32_t size) {
    ByteReader r(p, n);
    const uint32_t length = r.U32Le();
    const uint32_t version = r.U32Le();
    const uint32_t major = version >> 24;
    if (!r.Ok() || length < kLoginFixed || length > size || n < kLoginFixed ||
        (major != 0x70 && major != 0x71 && major != 0x72 && major != 0x73 && major != 0x74)) {
      return false;
    }
    // Offset and length (in characters) of the names, the password's
    // among them, each inside the message; the extension's is in bytes.
    for (uint32_t at = 36; at <= 68; at += 4) {
      const uint32_t offset = Le16(p + at);
      const uint32_t chars = Le16(p + at + 2);
      if (at != 56 && chars != 0 && (offset < kLoginFixed || offset + 2 * chars > length)) {
        return false;
      }
    }
    if (!s.Name()) {
      return false;
    }
    // "7.4"; 7.3 has two revisions, "7.3A" and "7.3B".
    char text[4] = {'7', '.', static_cast<char>('0' + major - 0x70), 0};
    uint32_t t = 3;
    if (major == 0x73) {
      text[t++] = (version >> 16 & 0xff) == 0x0b ? 'B' : 'A';
    }
    s.Publish(kVersion, text, t);
    for (uint32_t i = 0; i < 4; ++i) {
      const uint32_t offset = Le16(p + kAt[i]);
      const uint32_t chars = Le16(p + kAt[i] + 2);
      if (chars == 0 || offset >= n) {
        continue;
      }
      const uint32_t bytes = 2 * chars < n - offset ? 2 * chars : n - offset;
      char out[256];
      const uint32_t m = Utf8FromUtf16Le(p + offset, bytes, out, sizeof out);
      if (m != 0) {
        s.Publish(kAttribute[i], out, m);
      }
    }
    return true;
  }

  // One packet (or its head); kNotMine for foreign bytes, kDone to stop.
  static Verdict Packet(Session<Tds> &s, Side &side, const uint8_t *h, uint32_t have,
                        uint32_t size) {
    const uint32_t type = h[0];
    const bool continued = side.inside;
    side.inside = (h[1] & 1) == 0;
    ByteReader payload(h + kHeader, have - kHeader);
    if (continued && s.named()) {
      return Verdict::kNeedMore;
    }
    switch (type) {
    case kPrelogin:
      if (payload.Peek() == 0x16 && payload.Peek(1) == 3) {
        // A TLS handshake inside: what follows is encrypted.
        return s.named() ? Verdict::kDone : Verdict::kNotMine;
      }
      [[fallthrough]];
    case kReply: {
      int encryption = -1;
      if (!Options(payload, encryption)) {
        if (type == kReply && Reply(payload)) {
          return s.Name() ? Verdict::kNamed : Verdict::kNotMine;
        }
        break;
      }
      if (!s.Name()) {
        return Verdict::kNotMine;
      }
      // The server's answer decides whether the login, or all, is encrypted.
      static constexpr const char *kModes[] = {"off", "on", "not-supported", "required"};
      if (type == kReply && encryption >= 0 && encryption <= 3) {
        s.Publish(kEncryption, kModes[encryption]);
      }
      return Verdict::kNamed;
    }
    case kLogin7:
      if (Login(s, h + kHeader, have - kHeader, size - kHeader)) {
        return Verdict::kDone;
      }
      break;
    case kSqlBatch:
    case kRpc:
    case kTransaction:
      if (Request(type, payload)) {
        return s.Name() ? Verdict::kNamed : Verdict::kNotMine;
      }
      break;
    default:
      break;
    }
    return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
  }

  // A packet header: its type, status, length and window as far as given.
  static bool Opening(unsigned, ByteReader first) {
    const uint32_t length = first.Peek(2) << 8 | first.Peek(3);
    return HeaderOk(first.Here(), static_cast<uint32_t>(first.Left() < 8 ? first.Left() : 8)) &&
           (first.Left() < 4 || (length >= kHeader && length <= kMaxPacket));
  }

  static Verdict Feed(Session<Tds> &s, ByteReader r) {
    Side &side = s.state().side[s.side()];
    return side.ReadAtMost(
        s, r, kMessages,
        [](const uint8_t *head, uint32_t have) -> uint32_t {
          if (!HeaderOk(head, have)) {
            return Side::kForeign;
          }
          if (have < kHeader) {
            return 0;
          }
          const uint32_t whole = LoadBe16(head + 2);
          return whole < kHeader || whole > kMaxPacket ? Side::kForeign : whole;
        },
        [&](ByteReader head, uint32_t whole) {
          return Packet(s, side, head.Here(), static_cast<uint32_t>(head.Left()), whole);
        });
  }
};

} // namespace

KEST_DECODER(Tds)
