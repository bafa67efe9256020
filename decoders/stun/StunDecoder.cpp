// STUN and TURN (RFC 8489 and 8656, with RFC 5389, RFC 6062's TCP
// allocations and the classic STUN of RFC 3489) on UDP and TCP, any port
// (3478 tried first), from either side first.
//
// A message names "STUN" by its bytes: a type with its two top bits clear,
// a body length that is a multiple of 4 and fills the datagram exactly (over
// TCP messages follow one another; each is measured by its own length), the
// magic cookie 0x2112A442, and attributes that fill the body exactly, each
// padded to 4 bytes. Classic STUN has no cookie: its message must be one of
// the six types RFC 3489 knows, and only the answer from the other side,
// with the request's transaction id, names the connection.
//
// Reported: "stun.method" (Binding, SharedSecret, Allocate, Refresh, Send,
// Data, CreatePermission, ChannelBind, Connect, ConnectionBind,
// ConnectionAttempt), each method once per connection when first seen;
// "stun.software" from SOFTWARE, the first of each side; "stun.username"
// from USERNAME, each of the first four different names. Texts are cut to
// 128 bytes at a character boundary, bytes that are not UTF-8 text given
// as '?'. TURN is not a name of its own: its methods say it.
//
// An Allocate success response announces the flows its allocation will
// carry: the relayed transport address (XOR-RELAYED-ADDRESS), where peers
// send, and the client's reflexive address (XOR-MAPPED-ADDRESS). Under the
// future-flows policy a later UDP flow with either end point is named
// "STUN" on its first packet (no attributes: its bytes are the media's),
// four announcements per connection at most, each waiting two minutes.
//
// Once named, the decoder keeps reading for the first 64 messages (WebRTC
// puts STUN, DTLS and SRTP on one 5-tuple: what is not STUN is passed over,
// TURN ChannelData by its length) and leaves. Over TCP, messages are read
// from the stream one after another, ChannelData with its padding to 4
// bytes, or each behind a two-byte length as ICE over TCP frames them (then
// what is not STUN passes too); a message's first 320 bytes are read, the
// rest skipped by its length without being kept. The DATA of Send and Data
// indications is not looked into.
#include <kest/IpAddr.h>
#include <kest/kit/Decoder.h>
#include <kest/kit/TextLine.h>
#include <string.h>

namespace {

using namespace oru::kit;

enum Attribute { kMethod, kSoftware, kUsername };

constexpr uint32_t kCookie = 0x2112A442;
constexpr size_t kHeader = 20;
// What a TCP side holds of one message; control messages fit.
constexpr size_t kHold = 320;
// Bytes of a published text.
constexpr size_t kMaxText = 128;
constexpr uint8_t kMaxUsernames = 4;
constexpr uint8_t kMaxExpected = 4;
// Datagrams or runs a classic request may wait for its answer.
constexpr uint8_t kPatience = 4;

// How a TCP side frames its messages, known from its first bytes.
enum : uint8_t { kUnknown, kPlain, kFramed };

enum : uint16_t {
  kAttrUsername = 0x0006,
  kAttrXorRelayed = 0x0016,
  kAttrXorMapped = 0x0020,
  kAttrSoftware = 0x8022,
};

constexpr CodeName kMethods[] = {
    {0x001, "Binding"},
    {0x002, "SharedSecret"},
    {0x003, "Allocate"},
    {0x004, "Refresh"},
    {0x006, "Send"},
    {0x007, "Data"},
    {0x008, "CreatePermission"},
    {0x009, "ChannelBind"},
    {0x00A, "Connect"},
    {0x00B, "ConnectionBind"},
    {0x00C, "ConnectionAttempt"},
};

// Binding and Shared Secret requests, responses and error responses.
bool ClassicType(uint32_t type) {
  return type == 0x0001 || type == 0x0101 || type == 0x0111 || type == 0x0002 || type == 0x0102 ||
         type == 0x0112;
}

// A transport address as a message carries it.
struct Address {
  bool present = false;
  oru::IpAddr addr;
  uint16_t port = 0;
};

struct Message {
  uint32_t type = 0;
  bool cookie = false;
  // The 16 bytes after the length: cookie and transaction id.
  const uint8_t *id = nullptr;
  ByteReader username;
  ByteReader software;
  Address relayed;
  Address mapped;

  uint32_t Method() const {
    return (type & 0x000F) | ((type & 0x00E0) >> 1) | ((type & 0x3E00) >> 2);
  }
  // 0 request, 1 indication, 2 success response, 3 error response.
  uint32_t Class() const { return ((type >> 4) & 1) | ((type >> 7) & 2); }
};

// An XOR-...-ADDRESS value: reserved byte, family, port and address, each
// xored with the cookie (IPv6: cookie and transaction id).
void ReadXorAddress(ByteReader value, const uint8_t *id, Address &out) {
  value.U8();
  const uint32_t family = value.U8();
  const uint16_t port = static_cast<uint16_t>(value.U16() ^ (kCookie >> 16));
  uint8_t bytes[16];
  const size_t n = family == 1 ? 4 : 16;
  if (!value.Ok() || (family != 1 && family != 2) || value.Left() != n) {
    return;
  }
  for (size_t i = 0; i < n; ++i) {
    bytes[i] = value.Here()[i] ^ id[i];
  }
  out.present = true;
  out.port = port;
  out.addr = family == 1 ? oru::IpAddr::FromV4(LoadBe32(bytes)) : oru::IpAddr::FromV6(bytes);
}

// Reads a message of `total` bytes of which `bytes` holds the first
// `held`. False when it is not a STUN message; attributes beyond the held
// bytes are not read.
bool Parse(const uint8_t *bytes, size_t held, size_t total, Message &out) {
  ByteReader r(bytes, held);
  out.type = r.U16();
  const uint32_t length = r.U16();
  out.id = r.Here();
  out.cookie = r.U32() == kCookie;
  r.Skip(12);
  if (!r.Ok() || (out.type & 0xC000) != 0 || length % 4 != 0 || kHeader + length != total ||
      (!out.cookie && (held != total || !ClassicType(out.type)))) {
    return false;
  }
  while (!r.Empty()) {
    const uint32_t type = r.U16();
    const uint32_t size = r.U16();
    if (!r.Ok() || size > r.Left()) {
      // A cut attribute is the end of what is held, not a fault, unless the
      // message is whole.
      return held != total;
    }
    ByteReader value = r.Sub(size);
    if (!r.Skip((4 - size % 4) % 4)) {
      return held != total;
    }
    if (type == kAttrUsername && out.username.Here() == nullptr) {
      out.username = value;
    } else if (type == kAttrSoftware && out.software.Here() == nullptr) {
      out.software = value;
    } else if (out.cookie && type == kAttrXorRelayed && !out.relayed.present) {
      ReadXorAddress(value, out.id, out.relayed);
    } else if (out.cookie && type == kAttrXorMapped && !out.mapped.present) {
      ReadXorAddress(value, out.id, out.mapped);
    }
  }
  return true;
}

// Writes up to kMaxText bytes of UTF-8 text: whole characters only, a byte
// that begins none, or a control character, as '?'. A NUL ends the text
// (some clients pad a name to 4 bytes inside its length). Returns the
// length.
size_t Text(ByteReader in, char *out) {
  const uint8_t *p = in.Here();
  const size_t n = in.Left();
  size_t used = 0;
  for (size_t i = 0; i < n && p[i] != 0;) {
    const uint8_t c = p[i];
    size_t width = c < 0x80                 ? 1
                   : c >= 0xC2 && c <= 0xDF ? 2
                   : c >= 0xE0 && c <= 0xEF ? 3
                   : c >= 0xF0 && c <= 0xF4 ? 4
                                            : 0;
    for (size_t k = 1; k < width; ++k) {
      if (i + k >= n || (p[i + k] & 0xC0) != 0x80) {
        width = 0;
      }
    }
    const bool good = width > 1 || (width == 1 && c >= 0x20 && c != 0x7F);
    const size_t take = good ? width : 1;
    if (used + take > kMaxText) {
      break;
    }
    if (good) {
      memcpy(out + used, p + i, take);
    } else {
      out[used] = '?';
    }
    used += take;
    i += width != 0 ? width : 1;
  }
  return used;
}

// One direction of a TCP connection: the message being read.
struct Framer {
  uint8_t held[kHold];
  uint16_t have;
  // The whole size of the current message or ChannelData (0: its first four
  // bytes are not in yet), and bytes still to pass over.
  uint32_t want;
  uint32_t skip;
  uint8_t framing;
};

struct Stun {
  static constexpr Spec kSpec{
      .plugin = "stun",
      .module = MODULE_STUN,
      .protocols = {"STUN"},
      .attributes = {"stun.method", "stun.software", "stun.username"},
      .tcp = true,
      .tcp_ports = {3478},
      .udp = true,
      .udp_ports = {3478},
      .tcp_framing = Framing::kStream,
      .expects = {.transport = 17, .protocol = 0},
      .max_messages = 64,
  };
  struct State {
    Framer side[2];
    // A classic request waiting for its answer.
    uint8_t classic_id[16];
    bool classic_waiting;
    uint8_t classic_side;
    uint8_t waited;
    bool software[2];
    uint8_t username_count;
    uint8_t expected;
    uint16_t methods;
    uint32_t usernames[kMaxUsernames];
  };
  using Session = oru::kit::Session<Stun>;

  // The first bytes of either side: a STUN header as far as they go, or
  // one behind a two-byte length (ICE over TCP).
  static bool Opening(unsigned /*side*/, ByteReader first) {
    const uint8_t *p = first.Here();
    const size_t n = first.Left();
    const bool plain = (p[0] & 0xC0) == 0 && (n < 4 || p[3] % 4 == 0) &&
                       (n < 8 || LoadBe32(p + 4) == kCookie || ClassicType(LoadBe16(p)));
    return plain || (n < 10 ? (p[0] & 0xC0) == 0 : FramingOf(p) == kFramed);
  }

  static Verdict Feed(Session &s, ByteReader bytes) {
    State &state = s.state();
    if (s.tuple().protocol == 6) {
      return Stream(s, state.side[s.side()], bytes);
    }
    const uint8_t *p = bytes.Here();
    const size_t n = bytes.Left();
    Message message;
    if (n >= kHeader && (p[0] & 0xC0) == 0 && Parse(p, n, n, message)) {
      return OnMessage(s, message);
    }
    // ChannelData and what shares the flow (DTLS, RTP) pass once named.
    return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
  }

private:
  static Verdict Stop(Session &s) { return s.named() ? Verdict::kDone : Verdict::kNotMine; }

  // How a side's first bytes frame its messages: STUN headers back to
  // back, or each message behind a two-byte length (ICE over TCP, RFC 6544,
  // which frames everything it carries so).
  static uint8_t FramingOf(const uint8_t *p) {
    if (LoadBe32(p + 4) == kCookie || (ClassicType(LoadBe16(p)) && p[3] % 4 == 0)) {
      return kPlain;
    }
    const bool framed = LoadBe32(p + 6) == kCookie && (p[2] & 0xC0) == 0 &&
                        LoadBe16(p) == LoadBe16(p + 4) + kHeader;
    return framed ? kFramed : kUnknown;
  }

  // A run of TCP bytes: messages and ChannelData one after another.
  static Verdict Stream(Session &s, Framer &f, ByteReader run) {
    while (!run.Empty()) {
      if (f.skip != 0) {
        const size_t n = run.Left() < f.skip ? run.Left() : f.skip;
        run.Skip(n);
        f.skip -= static_cast<uint32_t>(n);
        continue;
      }
      const size_t head = f.framing == kFramed ? 2 : f.framing == kPlain ? 4 : 10;
      const size_t goal = f.want == 0 ? head : f.want < kHold ? f.want : kHold;
      const size_t n = run.Left() < goal - f.have ? run.Left() : goal - f.have;
      memcpy(f.held + f.have, run.Here(), n);
      run.Skip(n);
      f.have = static_cast<uint16_t>(f.have + n);
      if (f.framing == kUnknown && (f.held[0] & 0xC0) != 0) {
        // Neither a STUN type nor a length of one: most streams leave here.
        return Stop(s);
      }
      if (f.have < goal) {
        break;
      }
      if (f.want == 0) {
        if (f.framing == kUnknown && (f.framing = FramingOf(f.held)) == kUnknown) {
          return Stop(s);
        }
        if (f.framing == kFramed) {
          f.want = 2u + LoadBe16(f.held);
          if (f.want < 2 + kHeader || (f.held[2] & 0xC0) != 0) {
            // Not a STUN message (DTLS, RTP): passed over once named.
            if (!s.named() || f.want < f.have) {
              return Stop(s);
            }
            f.skip = f.want - f.have;
            f.want = 0;
            f.have = 0;
          }
          continue;
        }
        const uint32_t length = LoadBe16(f.held + 2);
        if (f.held[0] >= 0x40 && f.held[0] < 0x80 && s.named() && f.have == 4) {
          // ChannelData: channel number, length, data padded to 4 bytes.
          f.skip = (length + 3) & ~3u;
          f.have = 0;
          continue;
        }
        if ((f.held[0] & 0xC0) != 0 || length % 4 != 0) {
          return Stop(s);
        }
        f.want = static_cast<uint32_t>(kHeader) + length;
        continue;
      }
      const size_t at = f.framing == kFramed ? 2 : 0;
      Message message;
      const bool ok = Parse(f.held + at, f.have - at, f.want - at, message);
      f.skip = f.want - f.have;
      f.want = 0;
      f.have = 0;
      if (!ok && f.framing == kFramed && s.named()) {
        continue;
      }
      if (!ok || OnMessage(s, message) == Verdict::kNotMine) {
        return Stop(s);
      }
    }
    return Verdict::kNeedMore;
  }

  static Verdict OnMessage(Session &s, const Message &m) {
    State &state = s.state();
    if (!m.cookie && !s.named()) {
      // Classic STUN: a request, then its answer from the other side.
      const bool request = (m.type & 0x0110) == 0;
      if (state.classic_waiting && s.side() != state.classic_side && !request &&
          memcmp(state.classic_id, m.id, 16) == 0) {
        state.classic_waiting = false;
      } else if (request && ++state.waited <= kPatience) {
        memcpy(state.classic_id, m.id, 16);
        state.classic_waiting = true;
        state.classic_side = static_cast<uint8_t>(s.side());
        return Verdict::kNeedMore;
      } else {
        return Verdict::kNotMine;
      }
    }
    if (!s.Name()) {
      return Verdict::kNotMine;
    }
    const uint32_t method = m.Method();
    for (size_t i = 0; i < sizeof kMethods / sizeof kMethods[0]; ++i) {
      if (kMethods[i].code == method && (state.methods & (1u << i)) == 0) {
        state.methods = static_cast<uint16_t>(state.methods | (1u << i));
        s.Publish(kMethod, kMethods[i].name);
      }
    }
    char text[kMaxText];
    size_t n = Text(m.software, text);
    if (n != 0 && !state.software[s.side()]) {
      state.software[s.side()] = true;
      s.Publish(kSoftware, text, n);
    }
    n = Text(m.username, text);
    if (n != 0 && state.username_count < kMaxUsernames) {
      // FNV-1a: names seen before are not reported again.
      uint32_t hash = 2166136261u;
      for (size_t i = 0; i < n; ++i) {
        hash = (hash ^ static_cast<uint8_t>(text[i])) * 16777619u;
      }
      bool seen = false;
      for (uint8_t i = 0; i < state.username_count; ++i) {
        seen |= state.usernames[i] == hash;
      }
      if (!seen) {
        state.usernames[state.username_count++] = hash;
        s.Publish(kUsername, text, n);
      }
    }
    // An allocation granted: its relayed and reflexive addresses.
    if (m.Method() == 0x003 && m.Class() == 2) {
      for (const Address *a : {&m.relayed, &m.mapped}) {
        if (a->present && state.expected < kMaxExpected) {
          ++state.expected;
          s.Expect(a->addr, a->port);
        }
      }
    }
    return Verdict::kNeedMore;
  }
};

} // namespace

KEST_DECODER(Stun)
