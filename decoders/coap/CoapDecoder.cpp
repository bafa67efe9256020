// CoAP over UDP on any port, by a message and its answer. A message is
// version 1, a type, a token of at most 8 bytes, a code of a known class
// (0 for requests and the empty message, 2, 4 and 5 for responses), a
// message id, the token, options in delta/length form (no reserved nibble,
// none past the datagram) and, behind 0xFF, a payload that is not empty.
// The header alone proves little, so a flow is named once the other side
// answers: an acknowledgement or reset with the message id of a
// confirmable message, or a message of the other kind (request against
// response) with the same token. Either side may be seen first. A request
// that no answer follows (a scanner's, or one to a server that is gone)
// names the flow alone when its options hold to the datagram's end and one
// of them carries text (4 printable bytes or more, as a Uri-Path or
// Uri-Host does): random bytes seldom manage both. Reports
// the request's "coap.method" (GET, POST, PUT, DELETE, FETCH, PATCH,
// iPATCH) and "coap.uri_path" (its Uri-Path options joined by "/", the
// first 128 bytes). Payloads and the other options are left alone.
#include <kest/kit/Decoder.h>

namespace {

using namespace oru::kit;

struct Coap {
  static constexpr Spec kSpec{.plugin = "coap",
                              .module = MODULE_COAP,
                              .protocols = {"CoAP"},
                              .attributes = {"coap.method", "coap.uri_path"},
                              .udp = true,
                              .udp_ports = {5683},
                              .max_messages = 16};
  static constexpr uint32_t kMaxPath = 128;
  enum : uint8_t { kCon = 0, kNon = 1, kAck = 2, kRst = 3 };
  // What is kept of a side's last message.
  struct Message {
    uint8_t seen;
    uint8_t type;
    uint8_t code;
    uint8_t token_length;
    uint16_t id;
    uint8_t token[8];
    uint8_t path_length;
    // An option value of 4 printable bytes or more.
    uint8_t text;
    char path[kMaxPath];
  };
  struct State {
    Message last[2];
  };

  static bool Opening(unsigned, ByteReader first) {
    const uint32_t b = first.Peek(0);
    return (b >> 6) == 1 && (b & 0x0f) <= 8;
  }

  // Reads one message into `m`; false when it is not well formed.
  static bool Read(ByteReader r, Message &m) {
    const uint32_t first = r.U8();
    const uint32_t code = r.U8();
    const uint32_t id = r.U16();
    const uint32_t tkl = first & 0x0f;
    const uint32_t cls = code >> 5;
    if (!r.Ok() || (first >> 6) != 1 || tkl > 8 || (cls != 0 && cls != 2 && cls != 4 && cls != 5) ||
        (cls == 0 && code > 7)) {
      return false;
    }
    m.type = static_cast<uint8_t>((first >> 4) & 3);
    m.code = static_cast<uint8_t>(code);
    m.id = static_cast<uint16_t>(id);
    m.token_length = static_cast<uint8_t>(tkl);
    m.path_length = 0;
    m.text = 0;
    if (code == 0) {
      // The empty message is the header alone.
      return tkl == 0 && r.Empty();
    }
    // Requests go as CON or NON, never as ACK or RST.
    if (cls == 0 && m.type >= kAck) {
      return false;
    }
    for (uint32_t i = 0; i < tkl; ++i) {
      m.token[i] = static_cast<uint8_t>(r.U8());
    }
    uint32_t number = 0;
    while (r.Ok() && !r.Empty()) {
      const uint32_t b = r.U8();
      if (b == 0xff) {
        // The payload marker, followed by a payload.
        return !r.Empty();
      }
      uint32_t delta = b >> 4;
      uint32_t length = b & 0x0f;
      if (delta == 15 || length == 15) {
        return false;
      }
      delta = delta == 13 ? 13 + r.U8() : delta == 14 ? 269 + r.U16() : delta;
      length = length == 13 ? 13 + r.U8() : length == 14 ? 269 + r.U16() : length;
      number += delta;
      ByteReader value = r.Sub(length);
      if (!r.Ok() || number > 0xffff) {
        return false;
      }
      m.text |= Printable(value) ? 1 : 0;
      if (number == 11 && cls == 0) {
        // Uri-Path: one segment each, joined by '/'.
        if (m.path_length != 0 && m.path_length < kMaxPath) {
          m.path[m.path_length++] = '/';
        }
        while (!value.Empty() && m.path_length < kMaxPath) {
          m.path[m.path_length++] = static_cast<char>(value.U8());
        }
      }
    }
    return r.Ok();
  }

  static bool Printable(ByteReader value) {
    if (value.Left() < 4) {
      return false;
    }
    while (!value.Empty()) {
      const uint32_t c = value.U8();
      if (c < 0x20 || c > 0x7e) {
        return false;
      }
    }
    return true;
  }

  static bool IsRequest(const Message &m) { return m.code != 0 && (m.code >> 5) == 0; }

  // Whether `b` answers `a` (or `a` answers `b`).
  static bool Answers(const Message &a, const Message &b) {
    if (a.id == b.id &&
        ((a.type == kCon && b.type >= kAck) || (b.type == kCon && a.type >= kAck))) {
      return true;
    }
    if (a.code == 0 || b.code == 0 || IsRequest(a) == IsRequest(b) ||
        a.token_length != b.token_length) {
      return false;
    }
    for (uint32_t i = 0; i < a.token_length; ++i) {
      if (a.token[i] != b.token[i]) {
        return false;
      }
    }
    return true;
  }

  static Verdict Feed(Session<Coap> &s, ByteReader r) {
    State &st = s.state();
    const unsigned side = s.side();
    Message &m = st.last[side];
    if (!Read(r, m)) {
      return s.named() ? Verdict::kDone : Verdict::kNotMine;
    }
    m.seen = 1;
    const Message &other = st.last[side ^ 1];
    const bool answered = other.seen != 0 && Answers(m, other);
    const Verdict after = answered ? Verdict::kDone : Verdict::kNeedMore;
    if (s.named()) {
      return after;
    }
    if (!answered && !(IsRequest(m) && m.text != 0)) {
      return Verdict::kNeedMore;
    }
    if (!s.Name()) {
      return Verdict::kNotMine;
    }
    const Message &request = IsRequest(m) ? m : other;
    if (IsRequest(request)) {
      static constexpr const char *kMethods[] = {"GET",   "POST",  "PUT",   "DELETE",
                                                 "FETCH", "PATCH", "iPATCH"};
      s.Publish(0, kMethods[request.code - 1]);
      if (request.path_length != 0) {
        s.Publish(1, request.path, request.path_length);
      }
    }
    return after;
  }
};

} // namespace

KEST_DECODER(Coap)
