// Kerberos 5 on any port, by its DER messages: over UDP one per datagram,
// over TCP each behind a four-byte length. A message is one of the
// application-tagged kinds (AS and TGS requests and replies, AP requests and
// replies, errors) whose sequence opens with protocol version 5 and the
// message type of its tag. Requests report the client and service names and
// the realm of their body, replies the client's, errors the service's (and
// the client's when given): "kerberos.msg_type", "kerberos.realm",
// "kerberos.cname", "kerberos.sname", names as "part/part".
#include <kest/kit/Decoder.h>

namespace {

using namespace oru::kit;

struct Kerberos {
  static constexpr Spec kSpec{
      .plugin = "kerberos",
      .module = MODULE_KERBEROS,
      .protocols = {"Kerberos"},
      .attributes = {"kerberos.msg_type", "kerberos.realm", "kerberos.cname", "kerberos.sname"},
      .tcp = true,
      .tcp_ports = {88},
      .udp = true,
      .udp_ports = {88},
      .tcp_framing = Framing::kRecords,
      .records = {.offset = 0, .width = 4, .max = 4 + 65536, .min = 4 + 16}};
  struct State {};
  enum { kType, kRealm, kClient, kService };

  // Tag number to kind; the tag is 0x60 | number.
  static const char *Kind(uint32_t tag) {
    static constexpr const char *kKinds[] = {"as-req",  "as-rep", "tgs-req",
                                             "tgs-rep", "ap-req", "ap-rep"};
    return tag >= 0x6a && tag <= 0x6f ? kKinds[tag - 0x6a] : tag == 0x7e ? "krb-error" : nullptr;
  }

  // Where a message keeps its realm, client name and service name: the
  // context tags, in the message or (requests) in its body; 0 for none.
  struct Fields {
    uint32_t realm, client, service;
  };

  // Copies a realm (GeneralString) or a PrincipalName (its strings joined
  // by '/') into `out`; returns the length, 0 for a malformed one.
  static uint32_t Text(ByteReader value, bool principal, char *out, uint32_t room) {
    ByteReader strings = value;
    if (principal) {
      ByteReader name = value.BerTagged(0x30);
      name.BerTagged(0xa0);
      strings = name.BerTagged(0xa1).BerTagged(0x30);
    }
    uint32_t n = 0;
    while (strings.Ok() && !strings.Empty()) {
      ByteReader part = strings.BerTagged(0x1b);
      if (n != 0 && n < room) {
        out[n++] = '/';
      }
      while (part.Ok() && !part.Empty() && n < room) {
        out[n++] = static_cast<char>(part.U8());
      }
    }
    return strings.Ok() ? n : 0;
  }

  // TCP: a record length below 2^24 (the top bit is reserved).
  static bool Opening(unsigned, ByteReader first, uint8_t transport) {
    return transport != 6 || first.Peek() == 0;
  }

  // TCP: a record must hold a whole message of one of the known kinds.
  static Verdict Early(Session<Kerberos> &, ByteReader head) {
    const bool ok = head.Peek(0) == 0 && head.Left() < 5 ? true
                    : head.Peek(0) != 0                  ? false
                                                         : Kind(head.Peek(4)) != nullptr;
    return ok ? Verdict::kNeedMore : Verdict::kNotMine;
  }

  static Verdict Feed(Session<Kerberos> &s, ByteReader r) {
    if (s.tuple().protocol == 6) {
      r.Skip(4);
    }
    uint32_t tag = 0;
    ByteReader body = r.Ber(tag).BerTagged(0x30);
    const char *kind = Kind(tag);
    // KDC requests number their fields from 1, the other messages from 0.
    const bool kdc_request = tag == 0x6a || tag == 0x6c;
    const uint32_t first = kdc_request ? 0xa1 : 0xa0;
    const int64_t version = body.BerTagged(first).BerInt();
    const int64_t type = body.BerTagged(first + 1).BerInt();
    if (kind == nullptr || !r.Ok() || !r.Empty() || !body.Ok() || version != 5 ||
        type != (tag & 0x1f)) {
      return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    if (!s.Name()) {
      return Verdict::kNotMine;
    }
    s.Publish(kType, kind);
    Fields where = {0, 0, 0};
    if (kdc_request) { // padata [3] may come before the body [4]
      uint32_t field = 0;
      ByteReader value;
      while (body.Ok() && !body.Empty() && field != 0xa4) {
        value = body.Ber(field);
      }
      body = field == 0xa4 ? value.BerTagged(0x30) : ByteReader();
      where = {0xa2, 0xa1, 0xa3};
    } else if (tag == 0x6b || tag == 0x6d) {
      where = {0xa3, 0xa4, 0};
    } else if (tag == 0x7e) {
      where = {0xa9, 0xa8, 0xaa};
    }
    char text[3][256];
    uint32_t length[3] = {};
    const uint32_t wanted[3] = {where.realm, where.client, where.service};
    while (where.realm != 0 && body.Ok() && !body.Empty()) {
      uint32_t field = 0;
      ByteReader value = body.Ber(field);
      for (int i = 0; i < 3; ++i) {
        if (field == wanted[i]) {
          length[i] = Text(value, i != 0, text[i], sizeof text[i]);
        }
      }
    }
    for (int i = 0; i < 3; ++i) {
      if (length[i] != 0) {
        s.Publish(kRealm + i, text[i], length[i]);
      }
    }
    return Verdict::kNamed;
  }
};

} // namespace

KEST_DECODER(Kerberos)
