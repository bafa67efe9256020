// DTLS 1.0, 1.2 and 1.3 on UDP, any port (4433, 5684 CoAP over DTLS,
// 3478 and 5349 of WebRTC's relays tried first), from either side first.
//
// A datagram is DTLS when it is records back to back that fill it exactly:
// each a 13-byte header (content type 20 to 23, version 0xfeff or 0xfefd,
// epoch, 48-bit sequence number, length up to 18432) and its payload. A
// flow is named "DTLS" at its first hello that parses (ClientHello,
// ServerHello or HelloVerifyRequest), or at its second DTLS datagram for a
// flow seen from its middle. WebRTC puts STUN, DTLS and SRTP on one 5-tuple:
// a flow that opens with STUN (the STUN decoder names it) is watched for its
// DTLS handshake too, so that such a flow reads UDP/STUN/DTLS.
//
// The hellos are read with the TLS decoder's parser, and reported under the
// TLS decoder's attribute names (borrowed: where tls.plg is loaded it keeps
// them): "tls.server_name" and "tls.alpn" from the ClientHello (the first
// one, or the one after a HelloVerifyRequest when the first does not read),
// the client fingerprint of TlsFingerprint.h with "d" for DTLS and the
// versions "d1", "d2" and "d3", and "tls.version" from the ServerHello as
// the DTLS version's own number: "1.0", "1.2" or "1.3" (DTLS 1.3 by
// supported_versions 0xfefc). The ServerHello's ALPN stands in for the
// client's list only when no ClientHello was read.
//
// A hello sent in fragments over several datagrams is put back together,
// in order, up to 8 KB, in one of four slots of the classifying thread
// (given back when the decoder leaves the connection; the one used least
// recently is taken back when all are busy); a fragment that begins beyond
// the bytes held is dropped and waits for its retransmission. The decoder
// leaves once both hellos are read, after 24 datagrams, or, before a name,
// at the first datagram that is neither DTLS nor STUN or after 16.
// Encrypted records, DTLS 1.3's short headers among them, are passed over.
//
// A server that settles on DTLS 1.0 or 1.2 sends its certificate chain in
// clear: the leaf is read from the first 8 KB of its Certificate message
// (put back together like a hello when it comes in fragments) and reported
// as the TLS decoder does ("tls.subject" ... "tls.san"), with the TLS risks
// of CertificateReport.h. The wait for it ends at the leaf, the server's
// ServerHelloDone or ChangeCipherSpec, or the datagram bound.
#include "tls/CertificateReport.h"
#include "tls/TlsFingerprint.h"
#include "tls/TlsHello.h"

#include <kest/kit/Decoder.h>
#include <kest/kit/Services.h>
#include <string.h>

namespace {

using kest_tls::HelloInfo;
using kest_tls::kAlpn;
using kest_tls::kCertificate;
using oru::kit::ByteReader;
using oru::kit::LoadBe32;
using oru::kit::Verdict;

enum : uint8_t {
  kChangeCipherSpec = 20,
  kHandshake = 22,
  kHelloVerifyRequest = 3,
  kServerHelloDone = 14
};

constexpr uint32_t kStunCookie = 0x2112A442;
constexpr uint32_t kMaxRecord = 16384 + 2048;
// The longest hello put together, and the slots for hellos in pieces.
constexpr uint32_t kMaxHello = 8192;
constexpr int kSlots = 4;
constexpr uint32_t kPatience = 16;
constexpr uint32_t kMaxDatagrams = 24;

// A hello in pieces: its bytes under a TLS handshake header.
struct Slot {
  uint64_t conn;
  bool busy;
  uint8_t side;
  uint16_t seq;
  uint32_t length;
  uint32_t have;
  uint32_t used_at;
  uint8_t bytes[4 + kMaxHello];
};

struct Side {
  // A hello of this side was read, or given up on.
  bool done;
  bool parsed;
};

// The record layer of one datagram: true when its records fill it exactly.
// `visit(type, epoch, payload)` sees each, once the whole datagram passed.
template <class Visit> bool Records(ByteReader datagram, Visit &&visit) {
  for (int pass = 0; pass < 2; ++pass) {
    ByteReader d = datagram;
    while (!d.Empty()) {
      const uint32_t type = d.U8();
      const uint32_t version = d.U16();
      const uint32_t epoch = d.U16();
      d.Skip(6);
      ByteReader payload = d.Prefixed(2);
      if (!d.Ok() || type < 20 || type > 23 || (version != 0xfeff && version != 0xfefd) ||
          payload.Left() > kMaxRecord) {
        return false;
      }
      if (pass == 1) {
        visit(type, epoch, payload);
      }
    }
  }
  return true;
}

struct Dtls {
  static constexpr oru::kit::Spec kSpec{
      .plugin = "dtls",
      .module = oru::kit::MODULE_DTLS,
      .protocols = {"DTLS"},
      .borrowed = {"tls.server_name", "tls.alpn", "tls.version", "tls.client_fingerprint",
                   "tls.subject", "tls.issuer", "tls.not_before", "tls.not_after", "tls.san",
                   oru::kit::kRiskAttribute},
      .udp = true,
      .udp_ports = {4433, 5684, 3478, 5349},
      .max_messages = kMaxDatagrams,
  };
  struct State {
    Side side[2];
    uint32_t datagrams;
    uint32_t shaped;
    // The server's certificate is still to come, on side leaf_side.
    bool leaf_wanted;
    uint8_t leaf_side;
    uint32_t hello_risks;
    // The client's server name, for the certificate's names.
    bool has_server_name;
    uint16_t server_name_length;
    char server_name[HelloInfo::kMaxName + 1];
  };
  struct Thread {
    HelloInfo hello;
    Slot slots[kSlots];
    uint32_t clock;
    uint8_t whole[4 + kMaxHello];
    kest_tls::CertificateInfo certificate;
  };
  using Session = oru::kit::Session<Dtls>;

  // A DTLS record header, or STUN that a WebRTC flow opens with.
  static bool Opening(unsigned /*side*/, ByteReader first) {
    const uint8_t *p = first.Here();
    const size_t n = first.Left();
    const bool dtls =
        p[0] >= 20 && p[0] <= 23 && (n < 3 || (p[1] == 0xfe && (p[2] == 0xff || p[2] == 0xfd)));
    return dtls || ((p[0] & 0xC0) == 0 && n >= 20 && LoadBe32(p + 4) == kStunCookie);
  }

  static Verdict Feed(Session &s, ByteReader datagram) {
    State &c = s.state();
    ++c.datagrams;
    const bool shaped = Records(datagram, [&s](uint32_t type, uint32_t epoch, ByteReader payload) {
      if (type == kHandshake && epoch == 0) {
        Handshake(s, payload);
      } else if (type == kChangeCipherSpec && s.side() == s.state().leaf_side) {
        s.state().leaf_wanted = false;
      }
    });
    if (shaped && ++c.shaped >= 2 && !s.named() && !s.Name()) {
      return Leave(s, Verdict::kNotMine);
    }
    if (s.named()) {
      const bool both = c.side[0].parsed && c.side[1].parsed && !c.leaf_wanted;
      return both || c.datagrams >= kMaxDatagrams ? Leave(s, Verdict::kDone) : Verdict::kNeedMore;
    }
    const bool stun = datagram.Left() >= 20 && (datagram.Peek(0) & 0xC0) == 0;
    return (shaped || stun) && c.datagrams < kPatience ? Verdict::kNeedMore
                                                       : Leave(s, Verdict::kNotMine);
  }

private:
  // The handshake messages of one record, each a 12-byte header and a
  // fragment.
  static void Handshake(Session &s, ByteReader r) {
    while (r.Left() >= 12) {
      const uint32_t type = r.U8();
      const uint32_t length = r.U24();
      const uint32_t seq = r.U16();
      const uint32_t offset = r.U24();
      ByteReader fragment = r.Prefixed(3);
      if (!r.Ok() || offset + fragment.Left() > length) {
        return;
      }
      if (type == kHelloVerifyRequest) {
        // Server version and a cookie of up to 255 bytes, whole.
        ByteReader body = fragment;
        const uint32_t version = body.U16();
        body.Skip(body.U8());
        if (body.Ok() && body.Empty() && offset == 0 && fragment.Left() == length &&
            (version == 0xfeff || version == 0xfefd)) {
          s.Name();
        }
      } else if (type == kest_tls::kClientHello || type == kest_tls::kServerHello) {
        Piece(s, type, length, seq, offset, fragment);
      } else if (type == kest_tls::kCertificateMessage) {
        CertificatePiece(s, length, seq, offset, fragment);
      } else if (type == kServerHelloDone && s.side() == s.state().leaf_side) {
        s.state().leaf_wanted = false;
      }
    }
  }

  // A piece of a hello: read at once when whole, else into a slot.
  static void Piece(Session &s, uint32_t type, uint32_t length, uint32_t seq, uint32_t offset,
                    ByteReader fragment) {
    Side &side = s.state().side[s.side()];
    Thread &t = s.thread();
    if (side.done) {
      return;
    }
    if (length > kMaxHello) {
      side.done = true;
      return;
    }
    if (offset == 0 && fragment.Left() == length) {
      Header(t.whole, type, length);
      memcpy(t.whole + 4, fragment.Here(), length);
      Parse(s, t.whole, length);
      return;
    }
    if (const Slot *slot = Gather(s, type, length, length, seq, offset, fragment)) {
      Parse(s, slot->bytes, slot->length);
    }
  }

  // A piece of the server's Certificate message, of which the first 8 KB
  // are kept: they hold the leaf, or it is not read.
  static void CertificatePiece(Session &s, uint32_t length, uint32_t seq, uint32_t offset,
                               ByteReader fragment) {
    State &c = s.state();
    if (!c.leaf_wanted || s.side() != c.leaf_side) {
      return;
    }
    const uint32_t want = length < kMaxHello ? length : kMaxHello;
    if (offset == 0 && fragment.Left() >= want) {
      Leaf(s, fragment.Here(), want);
      return;
    }
    if (const Slot *slot =
            Gather(s, kest_tls::kCertificateMessage, length, want, seq, offset, fragment)) {
      Leaf(s, slot->bytes + 4, want);
    }
  }

  // Puts a piece (at `offset`) of handshake message `type`, `length` bytes
  // long, into this side's slot, of which the first `want` bytes are kept
  // (`want` at most kMaxHello). Returns the slot, freed for the next
  // message but with its bytes still there, once those are all in; null
  // until then, or when the pieces do not fit together.
  static const Slot *Gather(Session &s, uint32_t type, uint32_t length, uint32_t want, uint32_t seq,
                            uint32_t offset, ByteReader fragment) {
    Slot *slot = Claim(s, seq, offset);
    if (slot == nullptr || offset > slot->have) {
      return nullptr;
    }
    if (slot->have == 0) {
      Header(slot->bytes, type, length);
      slot->length = length;
    }
    if (slot->length != length || slot->bytes[0] != type) {
      slot->busy = false;
      return nullptr;
    }
    uint32_t end = offset + static_cast<uint32_t>(fragment.Left());
    end = end < want ? end : want;
    if (end > slot->have) {
      memcpy(slot->bytes + 4 + slot->have, fragment.Here() + (slot->have - offset),
             end - slot->have);
      slot->have = end;
    }
    if (slot->have != want) {
      return nullptr;
    }
    slot->busy = false;
    return slot;
  }

  // The start of a Certificate message's body: the list's length, then the
  // leaf with its own.
  static void Leaf(Session &s, const uint8_t *body, uint32_t length) {
    State &c = s.state();
    c.leaf_wanted = false;
    ByteReader r(body, length);
    r.U24();
    ByteReader leaf = r.Prefixed(3);
    if (!r.Ok() || leaf.Empty()) {
      return;
    }
    kest_tls::ReportCertificate(s, kCertificate, leaf.Here(), leaf.Left(), s.thread().certificate,
                                c.has_server_name ? c.server_name : nullptr, c.server_name_length);
  }

  // Leaving the connection: its hellos in pieces are given up.
  static Verdict Leave(Session &s, Verdict verdict) {
    for (Slot &slot : s.thread().slots) {
      slot.busy = slot.busy && slot.conn != s.conn().m_number;
    }
    return verdict;
  }

  // The slot of this side's hello; a new one for its first piece: a free
  // one, else the one used least recently.
  static Slot *Claim(Session &s, uint32_t seq, uint32_t offset) {
    Thread &t = s.thread();
    const uint64_t conn = s.conn().m_number;
    Slot *own = nullptr;
    Slot *pick = &t.slots[0];
    for (Slot &slot : t.slots) {
      if (slot.busy && slot.conn == conn && slot.side == s.side()) {
        own = &slot;
        break;
      }
      if (pick->busy && (!slot.busy || slot.used_at < pick->used_at)) {
        pick = &slot;
      }
    }
    if (own != nullptr && own->seq == seq) {
      own->used_at = ++t.clock;
      return own;
    }
    if (offset != 0) {
      return nullptr;
    }
    // A later hello (after a HelloVerifyRequest) replaces the first.
    pick = own != nullptr ? own : pick;
    pick->busy = true;
    pick->conn = conn;
    pick->side = static_cast<uint8_t>(s.side());
    pick->seq = static_cast<uint16_t>(seq);
    pick->length = 0;
    pick->have = 0;
    pick->used_at = ++t.clock;
    return pick;
  }

  static void Header(uint8_t *out, uint32_t type, uint32_t length) {
    out[0] = static_cast<uint8_t>(type);
    out[1] = static_cast<uint8_t>(length >> 16);
    out[2] = static_cast<uint8_t>(length >> 8);
    out[3] = static_cast<uint8_t>(length);
  }

  static void Parse(Session &s, const uint8_t *message, uint32_t length) {
    State &c = s.state();
    Side &side = c.side[s.side()];
    HelloInfo &hello = s.thread().hello;
    if (kest_tls::ParseHello(message, 4 + length, hello, true) != kest_tls::ParseStatus::kOk) {
      return;
    }
    side.done = true;
    side.parsed = true;
    s.Name();
    if (hello.type == kest_tls::kClientHello) {
      kest_tls::ReportClientHello(s, hello, c.hello_risks);
      if (hello.has_server_name) {
        c.has_server_name = true;
        c.server_name_length = hello.server_name_length;
        memcpy(c.server_name, hello.server_name, hello.server_name_length + 1u);
      }
      return;
    }
    c.leaf_wanted = kest_tls::ReportServerHello(s, hello, c.hello_risks, true);
    c.leaf_side = static_cast<uint8_t>(s.side());
    if (hello.has_alpn && !c.side[1 - s.side()].parsed) {
      s.Publish(kAlpn, hello.alpn, hello.alpn_length);
    }
  }
};

} // namespace

KEST_DECODER(Dtls)
