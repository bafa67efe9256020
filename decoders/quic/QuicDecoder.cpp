// The QUIC decoder: quic.plg. Names QUIC on UDP by its long headers (a
// known version, connection IDs of at most 20 bytes, lengths that fit the
// datagram), or by the headers of Google's earlier QUIC that carry a
// version ("Q035", "Q046", ...; see QuicPacket.h), on any port and first
// on 443, 8443, 853 and 784. A flow that shows only short headers is not
// named: they carry nothing to tell QUIC from noise.
//
// Initial packets are encrypted with keys anyone can derive, so for the
// versions whose salt is known the decoder opens the client's first few
// Initials, puts their CRYPTO frames back in order and reads the
// ClientHello with the TLS decoder's parser: the server name and ALPN are
// published under the TLS attribute names, as for TLS over TCP. Those names
// are the TLS decoder's, borrowed: where tls.plg is loaded it keeps them
// and this decoder reports through its registration.
#include "quic/QuicPacket.h"
#include "tls/TlsHello.h"

#include <kest/kit/Decoder.h>
#include <kest/kit/Services.h>
#include <new>

namespace {

using oru::kit::ByteReader;
using oru::kit::Verdict;

enum Attribute { kVersion, kServerName, kAlpn };

// Datagrams a flow may send before one names it; a client's first datagram
// has a long header, so a few allow for a capture that starts late.
constexpr uint32_t kPatience = 8;
// After naming: Initial packets opened, decryptions tried (a server's
// Initials fail under the client's keys), datagrams looked at.
constexpr uint32_t kMaxOpened = 6;
constexpr uint32_t kMaxAttempts = 12;
constexpr uint32_t kMaxDatagrams = 32;
// The largest UDP payload.
constexpr size_t kScratch = 65536;

void AddCrypto(void *user, uint64_t offset, const uint8_t *data, size_t length) {
  static_cast<kest_quic::CryptoStream *>(user)->Add(offset, data, length);
}

struct Quic {
  static constexpr oru::kit::Spec kSpec{
      .plugin = "quic",
      .module = oru::kit::MODULE_QUIC,
      .protocols = {"QUIC"},
      .attributes = {"quic.version"},
      .borrowed = {"tls.server_name", "tls.alpn"},
      .udp = true,
      // HTTPS, its alternative port, DNS over QUIC (853, and 784 from its
      // drafts).
      .udp_ports = {443, 8443, 853, 784},
      .max_messages = kMaxDatagrams,
  };
  struct State {
    State() = default;
    State(const State &) = delete;
    State &operator=(const State &) = delete;
    ~State() {
      if (crypto != nullptr) {
        crypto->~CryptoStream();
        kest_free_local(crypto);
      }
    }

    bool done = false;
    bool have_keys = false;
    int8_t client_side = -1;
    uint32_t version = 0;
    uint32_t datagrams = 0;
    uint32_t opened = 0;
    uint32_t attempts = 0;
    int64_t largest_pn = -1;
    kest_quic::InitialKeys keys{};
    // Made at the first Initial opened.
    kest_quic::CryptoStream *crypto = nullptr;
  };
  // Room to open a packet in, and the hello read last.
  struct Thread {
    kest_tls::HelloInfo hello;
    uint8_t scratch[kScratch];
  };
  using Session = oru::kit::Session<Quic>;

  static Verdict Feed(Session &s, ByteReader datagram) {
    State &c = s.state();
    Datagram(s, datagram.Here(), datagram.Left());
    ++c.datagrams;
    if (!s.named()) {
      return c.datagrams >= kPatience ? Verdict::kNotMine : Verdict::kNeedMore;
    }
    if (c.done || c.opened >= kMaxOpened || c.attempts >= kMaxAttempts) {
      return Verdict::kDone;
    }
    return Verdict::kNeedMore;
  }

private:
  // The packets of one datagram, one after the other, up to a short header
  // or anything that does not read.
  static void Datagram(Session &s, const uint8_t *data, size_t length) {
    State &c = s.state();
    kest_quic::GoogleHeader google;
    if (!c.done && kest_quic::ParseGoogleHeader(data, length, google)) {
      Google(s, data, length, google);
      return;
    }
    size_t pos = 0;
    while (pos < length && !c.done) {
      kest_quic::LongHeader header;
      if (kest_quic::ParseLongHeader(data + pos, length - pos, header) !=
          kest_quic::HeaderStatus::kOk) {
        return;
      }
      if (!s.named()) {
        if (!s.Name()) {
          c.done = true;
          return;
        }
        SetVersion(s, header.version);
      } else if (c.version == kest_quic::kVersionNegotiation &&
                 header.version != kest_quic::kVersionNegotiation) {
        // The client's next attempt after a version negotiation.
        SetVersion(s, header.version);
      }
      if (c.done) {
        return;
      }
      if (header.type == kest_quic::PacketType::kInitial &&
          (c.client_side < 0 || c.client_side == static_cast<int8_t>(s.side()))) {
        Initial(s, data + pos, header);
      }
      pos += header.packet_length;
    }
  }

  // A gQUIC packet that names its version: the flow is named by it, and
  // the client's hello, clear text before Q044, gives the server name.
  // One such packet is all there is to learn.
  static void Google(Session &s, const uint8_t *data, size_t length,
                     const kest_quic::GoogleHeader &header) {
    State &c = s.state();
    if (!s.Name()) {
      c.done = true;
      return;
    }
    c.done = true;
    c.version = header.version;
    char text[16];
    s.Publish(kVersion, text, kest_quic::VersionText(header.version, text, sizeof text));
    const uint8_t *name = nullptr;
    size_t name_length = 0;
    if (!header.long_form && header.header_length != 0 &&
        kest_quic::FindChloServerName(data + header.header_length, length - header.header_length,
                                      name, name_length)) {
      oru::kit::PublishServerName(s, kServerName, name, name_length, oru::SERVICE_SOURCE_SNI);
    }
  }

  static void SetVersion(Session &s, uint32_t version) {
    State &c = s.state();
    c.version = version;
    char text[16];
    s.Publish(kVersion, text, kest_quic::VersionText(version, text, sizeof text));
    // Nothing more to learn where the Initial keys are unknown; a version
    // negotiation is followed by the client's next try.
    if (version != kest_quic::kVersionNegotiation &&
        kest_quic::KeyFamilyOf(version) == kest_quic::KeyFamily::kNone) {
      c.done = true;
    }
  }

  // Tries the client's keys on an Initial packet: those that opened an
  // earlier one, then those of this packet's own Destination Connection ID
  // (the client's first Initials, or the new ones after a Retry).
  static void Initial(Session &s, const uint8_t *packet, const kest_quic::LongHeader &header) {
    State &c = s.state();
    uint8_t *scratch = s.thread().scratch;
    if (c.opened >= kMaxOpened || c.attempts >= kMaxAttempts || header.packet_length > kScratch) {
      return;
    }
    const uint8_t *payload = nullptr;
    size_t payload_length = 0;
    uint64_t pn = 0;
    bool opened = false;
    if (c.have_keys && c.version == header.version) {
      ++c.attempts;
      opened = kest_quic::OpenInitial(packet, header, c.keys, c.largest_pn, scratch, payload,
                                      payload_length, pn);
    }
    if (!opened && c.attempts < kMaxAttempts) {
      kest_quic::InitialKeys keys;
      if (!kest_quic::DeriveClientInitialKeys(header.version, header.dcid, header.dcid_length,
                                              keys)) {
        return;
      }
      ++c.attempts;
      opened = kest_quic::OpenInitial(packet, header, keys, c.have_keys ? c.largest_pn : -1,
                                      scratch, payload, payload_length, pn);
      if (opened) {
        c.keys = keys;
        c.have_keys = true;
        c.version = header.version;
      }
    }
    if (!opened) {
      return;
    }
    ++c.opened;
    c.client_side = static_cast<int8_t>(s.side());
    if (static_cast<int64_t>(pn) > c.largest_pn) {
      c.largest_pn = static_cast<int64_t>(pn);
    }
    if (c.crypto == nullptr) {
      void *block = kest_malloc_local(sizeof(kest_quic::CryptoStream));
      if (block == nullptr) {
        c.done = true;
        return;
      }
      c.crypto = ::new (block) kest_quic::CryptoStream();
    }
    kest_quic::ParseFrames(payload, payload_length, AddCrypto, c.crypto);
    switch (c.crypto->GetState()) {
    case kest_quic::CryptoStream::State::kNeedMore:
      return;
    case kest_quic::CryptoStream::State::kTooLarge:
      c.done = true;
      return;
    case kest_quic::CryptoStream::State::kReady:
      break;
    }
    c.done = true;
    kest_tls::HelloInfo &hello = s.thread().hello;
    if (kest_tls::ParseHello(c.crypto->Message(), c.crypto->MessageLength(), hello) !=
            kest_tls::ParseStatus::kOk ||
        hello.type != kest_tls::kClientHello) {
      return;
    }
    if (hello.has_server_name) {
      oru::kit::PublishServerName(s, kServerName, hello.server_name, hello.server_name_length,
                                  oru::SERVICE_SOURCE_SNI);
    }
    if (hello.has_alpn) {
      s.Publish(kAlpn, hello.alpn, hello.alpn_length);
    }
  }
};

} // namespace

KEST_DECODER(Quic)
