// The TLS decoder: follows each side of every TCP connection from its first
// byte through a HelloAssembler (first on the ports where TLS is usual; the
// bytes decide, any port may carry it), names the connection "TLS" once a
// hello parses and publishes what the hellos say. It leaves as soon as it
// can: at the first side that is not a TLS handshake record, after both
// hellos, or when one hello has come and the other side keeps silent.
#include "tls/TlsFingerprint.h"
#include "tls/TlsHello.h"

#include <kest/kit/Decoder.h>
#include <kest/kit/Services.h>
#include <string.h>

namespace {

using kest_tls::HelloAssembler;
using kest_tls::HelloInfo;
using oru::kit::ByteReader;
using oru::kit::Verdict;

enum Attribute { kServerName, kAlpn, kVersion, kFingerprint };

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
      .attributes = {"tls.server_name", "tls.alpn", "tls.version", "tls.client_fingerprint"},
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
  };
  // The hello read last; too large for the stack of every host.
  struct Thread {
    HelloInfo hello;
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
    } else {
      Read(s, side, run);
    }
    // Leave at the first side that is not TLS (whatever the other said), when
    // both hellos are in, or when the other side stays silent too long.
    const bool failed = (side.done && !side.parsed && !side.legacy) ||
                        (other.done && !other.parsed && !other.legacy);
    const bool both = (side.parsed || side.legacy) && (other.parsed || other.legacy);
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
    }
  }

  static void OnHello(Session &s, const HelloInfo &hello) {
    State &state = s.state();
    // A connection that refuses the name is asked again at the next hello.
    s.Name();
    if (hello.type == kest_tls::kClientHello) {
      if (hello.has_server_name) {
        s.Publish(kServerName, hello.server_name, hello.server_name_length);
        oru::kit::ReportServerName(hello.server_name, hello.server_name_length,
                                   oru::SERVICE_SOURCE_SNI);
      }
      if (hello.has_alpn) {
        state.client_alpn = true;
        state.server_alpn_pending = false;
        s.Publish(kAlpn, hello.alpn, hello.alpn_length);
      }
      if (s.registration().Id(kFingerprint) > 0) {
        char fingerprint[kest_tls::kFingerprintSize];
        kest_tls::ClientFingerprint(hello, fingerprint);
        s.Publish(kFingerprint, fingerprint);
      }
      return;
    }
    const char *version = kest_tls::VersionText(kest_tls::NegotiatedVersion(hello));
    if (version != nullptr) {
      s.Publish(kVersion, version);
    }
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
