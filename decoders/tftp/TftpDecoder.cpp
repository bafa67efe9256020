// TFTP over UDP, by its read or write request on any port: opcode 1 or 2,
// a printable file name, a transfer mode (netascii, octet or mail, any
// case), then option names and values (RFC 2347), each ending in a zero byte.
// A request reports "tftp.op" ("read-request", "write-request"),
// "tftp.filename" and "tftp.mode", and the transfer, which the server
// answers from a port of its own towards the requesting end point, is
// expected and named TFTP, under the future-flows policy.
#include <kest/kit/Decoder.h>
#include <kest/kit/TextLine.h>

namespace {

using namespace oru::kit;

struct Tftp {
  static constexpr Spec kSpec{.plugin = "tftp",
                              .module = MODULE_TFTP,
                              .protocols = {"TFTP"},
                              .attributes = {"tftp.op", "tftp.filename", "tftp.mode"},
                              .udp = true,
                              .udp_ports = {69},
                              .expects = {.transport = 17, .protocol = 0}};
  struct State {};

  // A printable text of 1 to 255 bytes up to its zero byte, or an empty span.
  static TextSpan Text(ByteReader &r) {
    const char *text = reinterpret_cast<const char *>(r.Here());
    uint32_t n = 0;
    while (n < r.Left() && n < 256 && text[n] != '\0') {
      ++n;
    }
    if (n == 0 || n == 256 || !r.Skip(n + 1) || !Printable(text, n)) {
      return TextSpan{nullptr, 0};
    }
    return TextSpan{text, n};
  }

  static Verdict Feed(Session<Tftp> &s, ByteReader r) {
    const uint32_t op = r.U16();
    const TextSpan file = Text(r);
    const TextSpan mode = Text(r);
    bool known_mode = false;
    for (const char *name : {"netascii", "octet", "mail"}) {
      known_mode |= mode.length == TextLength(name) && StartsWith(mode.text, mode.length, name);
    }
    bool options = true;
    while (options && !r.Empty()) {
      options = Text(r).length != 0 && Text(r).length != 0;
    }
    if (s.named() || (op != 1 && op != 2) || file.length == 0 || !known_mode || mode.length > 8 ||
        !options) {
      return s.named() ? Verdict::kDone : Verdict::kNotMine;
    }
    if (!s.Name()) {
      return Verdict::kNotMine;
    }
    s.Publish(0, op == 1 ? "read-request" : "write-request");
    s.Publish(1, file.text, file.length);
    s.Publish(2, mode.text, mode.length);
    const oru::Tuple &t = s.tuple();
    s.Expect(s.side() == 0 ? t.src : t.dst, s.side() == 0 ? t.src_port : t.dst_port);
    return Verdict::kDone;
  }
};

} // namespace

KEST_DECODER(Tftp)
