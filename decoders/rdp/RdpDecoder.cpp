// RDP on any port, by the X.224 connection request that opens it, in a TPKT
// record (version 3): the request reports its "Cookie: mstshash=" value as
// "rdp.cookie" and the security protocols it offers as
// "rdp.requested_protocols" ("ssl,hybrid", say). When the server's
// connection confirm selects TLS or CredSSP, the rest of the connection is
// TLS: it is handed on, under chameleon, for the TLS decoder.
#include <kest/kit/Decoder.h>
#include <kest/kit/TextLine.h>

namespace {

using namespace oru::kit;

struct Rdp {
  static constexpr Spec kSpec{
      .plugin = "rdp",
      .module = MODULE_RDP,
      .protocols = {"RDP"},
      .attributes = {"rdp.cookie", "rdp.requested_protocols"},
      .tcp = true,
      .tcp_ports = {3389},
      .tcp_framing = Framing::kRecords,
      .records = {.offset = 2, .width = 2, .adjust = -4, .max = 1024, .min = 11}};
  struct State {};

  // A TPKT header (version 3).
  static bool Opening(unsigned, ByteReader first) { return first.Peek() == 3; }

  // The head of a TPKT record with an X.224 request (0xe0) or confirm (0xd0).
  static Verdict Early(Session<Rdp> &s, ByteReader head) {
    const uint32_t code = s.named() ? 0xd0 : 0xe0;
    const bool ok = head.Peek(0) == 3 && (head.Left() < 2 || head.Peek(1) == 0) &&
                    (head.Left() < 6 || (head.Peek(5) & 0xf0) == code);
    return ok ? Verdict::kNeedMore : Verdict::kNotMine;
  }

  static Verdict Feed(Session<Rdp> &s, ByteReader r) {
    // The length indicator covers the rest of the record: code,
    // references, class, then the cookie and the negotiation.
    const bool tpkt = r.U8() == 3 && r.U8() == 0 && r.Skip(2);
    const uint32_t indicator = r.U8();
    const uint32_t code = r.U8();
    r.Skip(5);
    if (!tpkt || !r.Ok() || indicator < 6 || indicator != r.Left() + 6) {
      return s.named() ? Verdict::kDone : Verdict::kNotMine;
    }
    if (code == 0xd0 && s.named()) { // a confirm: type 2 selects a protocol
      const bool tls = r.U8() == 2 && r.Skip(3) && (r.U32Le() & 0xb) != 0;
      if (tls && r.Ok()) {
        s.HandOn();
      }
      return Verdict::kDone;
    }
    if (code != 0xe0 || !s.Name()) {
      return Verdict::kNotMine;
    }
    // A cookie or a routing token, up to CR LF, then the negotiation.
    const char *text = reinterpret_cast<const char *>(r.Here());
    uint32_t n = 0;
    while (n + 1 < r.Left() && !(text[n] == '\r' && text[n + 1] == '\n')) {
      ++n;
    }
    if (n + 1 < r.Left()) {
      if (HasPrefix(text, n, "Cookie: mstshash=")) {
        s.Publish(0, text + 17, n - 17);
      }
      r.Skip(n + 2);
    }
    if (r.U8() == 1 && r.Skip(3)) {
      const uint32_t offered = r.U32Le();
      static const char *const kNames[] = {"ssl", "hybrid", "rdstls", "hybrid-ex"};
      char list[40];
      uint32_t length = 0;
      for (uint32_t bit = 0; bit < 5; ++bit) {
        // Standard RDP security is the absence of the others.
        const char *name = bit < 4 ? kNames[bit] : "rdp";
        if (bit < 4 ? (offered >> bit & 1) == 0 : offered != 0) {
          continue;
        }
        if (length != 0) {
          list[length++] = ',';
        }
        for (const char *c = name; *c != '\0'; ++c) {
          list[length++] = *c;
        }
      }
      if (r.Ok() && length != 0) {
        s.Publish(1, list, length);
      }
    }
    return Verdict::kNamed;
  }
};

} // namespace

KEST_DECODER(Rdp)
