// The TLS decoder: follows each side of every TCP connection from its first
// byte through a HelloAssembler (first on the ports where TLS is usual; the
// bytes decide, any port may carry it), names the connection "TLS" once a
// hello parses and publishes what the hellos say. It leaves as soon as it
// can: at the first side that is not a TLS handshake record, after both
// hellos (and the server's certificate, when it is in clear), or when one
// hello has come and the other side keeps silent.
//
// A server that settles on TLS 1.2 or older sends its certificate chain in
// clear, right after its hello: the leaf is read (LeafAssembler, up to
// 16 KB, the rest of the chain never) and reported with the TLS risks of
// CertificateReport.h.
#include "tls/CertificateReport.h"
#include "tls/TlsFingerprint.h"
#include "tls/TlsHello.h"

#include <kest/kit/Decoder.h>
#include <kest/kit/Services.h>
#include <string.h>

namespace {

using kest_tls::HelloAssembler;
using kest_tls::HelloInfo;
using kest_tls::kAlpn;
using kest_tls::kCertificate;
using oru::kit::ByteReader;
using oru::kit::Verdict;

// Runs of bytes (one per packet, in order) a side may send after its hello
// while the other side says nothing, before the wait for the other hello
// ends.
constexpr uint16_t kPatience = 4;

struct Side {
  HelloAssembler assembler;
  bool started = false;
  bool done = false;
  bool parsed = false;
  // An SSL 2.0-style ClientHello: TLS, with nothing to read.
  bool legacy = false;
  uint16_t later = 0;
};

struct Tls {
  static constexpr oru::kit::Spec kSpec{
      .plugin = "tls",
      .module = oru::kit::MODULE_TLS,
      .protocols = {"TLS"},
      .attributes = {"tls.server_name", "tls.alpn", "tls.version", "tls.client_fingerprint",
                     "tls.subject", "tls.issuer", "tls.not_before", "tls.not_after", "tls.san"},
      .borrowed = {oru::kit::kRiskAttribute},
      .tcp = true,
      // HTTPS, SMTPS, NNTPS, LDAPS, DNS over TLS, FTPS data and control,
      // TELNETS, IMAPS, IRCS, POP3S, SIP over TLS, alternative HTTPS.
      .tcp_ports = {443, 465, 563, 636, 853, 989, 990, 992, 993, 994, 995, 5061, 8443},
      .tcp_framing = oru::kit::Framing::kStream,
  };
  struct State {
    Side side[2];
    bool client_alpn = false;
    bool server_alpn_pending = false;
    char server_alpn[HelloInfo::kMaxAlpnText + 1] = {};
    // The server's leaf certificate, while it is being read.
    kest_tls::LeafAssembler leaf;
    bool leaf_wanted = false;
    uint8_t leaf_side = 0;
    uint32_t hello_risks = 0;
  };
  // The hello read last; too large for the stack of every host.
  struct Thread {
    HelloInfo hello;
    kest_tls::CertificateInfo certificate;
  };
  using Session = oru::kit::Session<Tls>;

  // A side opens with a handshake record, an alert before it, or a
  // two-byte SSL 2 header (top bit set).
  static bool Opening(unsigned, ByteReader first) {
    const uint32_t c = first.Peek();
    return c == 22 || c == 21 || c >= 0x80;
  }

  static Verdict Feed(Session &s, ByteReader run) {
    State &state = s.state();
    Side &side = state.side[s.side()];
    Side &other = state.side[1 - s.side()];
    side.started = true;
    if (side.done) {
      if (side.later < 0xFFFF) {
        ++side.later;
      }
      if (state.leaf_wanted && state.leaf_side == s.side()) {
        ReadLeaf(s, run);
      }
    } else {
      Read(s, side, run);
    }
    // Leave at the first side that is not TLS (whatever the other said), when
    // both hellos are in, or when the other side stays silent too long.
    const bool failed = (side.done && !side.parsed && !side.legacy) ||
                        (other.done && !other.parsed && !other.legacy);
    const bool both =
        (side.parsed || side.legacy) && (other.parsed || other.legacy) && !state.leaf_wanted;
    const bool waited = side.done && !other.started && side.later > kPatience;
    if (failed || both || waited) {
      Leave(s);
      return s.named() ? Verdict::kDone : Verdict::kNotMine;
    }
    return Verdict::kNeedMore;
  }

  // The server's ALPN that waited for the client's list goes out when the
  // decoder leaves, the connection's end included.
  static void Leave(Session &s) {
    State &state = s.state();
    state.leaf.Release();
    state.leaf_wanted = false;
    if (state.server_alpn_pending) {
      state.server_alpn_pending = false;
      s.Publish(kAlpn, state.server_alpn);
    }
  }

private:
  static void Read(Session &s, Side &side, ByteReader run) {
    switch (side.assembler.Feed(run.Here(), run.Left())) {
    case HelloAssembler::State::kNeedMore:
      return;
    case HelloAssembler::State::kFailed:
      side.done = true;
      return;
    case HelloAssembler::State::kLegacyHello:
      side.done = true;
      side.legacy = true;
      return;
    case HelloAssembler::State::kDone:
      side.done = true;
      break;
    }
    HelloInfo &hello = s.thread().hello;
    if (kest_tls::ParseHello(side.assembler.Message(), side.assembler.MessageLength(), hello) ==
        kest_tls::ParseStatus::kOk) {
      side.parsed = true;
      OnHello(s, hello);
      State &state = s.state();
      if (state.leaf_wanted) {
        state.leaf_side = static_cast<uint8_t>(s.side());
        state.leaf.Start(side.assembler.RecordLeft());
        run.Skip(side.assembler.Used());
        ReadLeaf(s, run);
      }
    }
  }

  static void ReadLeaf(Session &s, ByteReader run) {
    State &state = s.state();
    if (run.Empty()) {
      return;
    }
    const kest_tls::LeafAssembler::State got = state.leaf.Feed(run.Here(), run.Left());
    if (got == kest_tls::LeafAssembler::State::kNeedMore) {
      return;
    }
    state.leaf_wanted = false;
    if (got != kest_tls::LeafAssembler::State::kDone) {
      return;
    }
    // The client's server name, read again from its hello, which its side
    // still holds.
    Thread &t = s.thread();
    const HelloAssembler &client = state.side[1 - state.leaf_side].assembler;
    const bool named = client.Message() != nullptr &&
                       kest_tls::ParseHello(client.Message(), client.MessageLength(), t.hello) ==
                           kest_tls::ParseStatus::kOk &&
                       t.hello.type == kest_tls::kClientHello && t.hello.has_server_name;
    kest_tls::ReportCertificate(s, kCertificate, state.leaf.Leaf(), state.leaf.LeafLength(),
                                t.certificate, named ? t.hello.server_name : nullptr,
                                named ? t.hello.server_name_length : 0);
    state.leaf.Release();
  }

  static void OnHello(Session &s, const HelloInfo &hello) {
    State &state = s.state();
    // A connection that refuses the name is asked again at the next hello.
    s.Name();
    if (hello.type == kest_tls::kClientHello) {
      kest_tls::ReportClientHello(s, hello, state.hello_risks);
      if (hello.has_alpn) {
        state.client_alpn = true;
        state.server_alpn_pending = false;
      }
      return;
    }
    state.leaf_wanted = kest_tls::ReportServerHello(s, hello, state.hello_risks, false);
    // The server's choice stands in for the client's list only when that
    // list is not seen; it waits until the client side has had its chance.
    if (hello.has_alpn && !state.client_alpn) {
      memcpy(state.server_alpn, hello.alpn, hello.alpn_length + 1u);
      state.server_alpn_pending = true;
    }
  }
};

} // namespace

KEST_DECODER(Tls)
