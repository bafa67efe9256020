// The two hellos of a TLS handshake, read from bytes alone.
//
// Two layers, both plain code over byte buffers with no knowledge of
// connections, so that other decoders can reuse them:
//
//  - ParseHello reads ONE handshake message, header included:
//      msg_type(1) length(3) body(length)
//    as a ClientHello (type 1) or a ServerHello (type 2), into a HelloInfo.
//    DTLS hellos are read too, once their fragments are put back together
//    under that four-byte header: their versions count down from 0xfeff,
//    and a DTLS ClientHello has a cookie after its session id.
//    It allocates nothing and never reads outside [data, data + length).
//    A decoder that gets the handshake bytes another way (QUIC's CRYPTO
//    frames, put in order) hands the message straight to ParseHello.
//
//  - HelloAssembler takes one direction of a TCP stream, in pieces of any
//    size, walks the TLS records (content type 22, version 0x0301..0x0304,
//    length 1..18432; two-byte alerts before the hello are passed over) and
//    collects the side's first handshake message, which
//    may span records and segments, up to kMaxHandshake bytes. It copies
//    only the bytes of that message, into one block from kest_malloc_local.
//
// Why so strict on the first bytes: the decoder runs on every port, and the
// record header plus the hello's type and length are what tell TLS from
// anything else.
#ifndef KEST_DECODERS_TLS_TLSHELLO_H
#define KEST_DECODERS_TLS_TLSHELLO_H

#include <stddef.h>
#include <stdint.h>

namespace kest_tls {

enum : uint8_t {
  kClientHello = 1,
  kServerHello = 2,
};

enum : uint16_t {
  kExtServerName = 0x0000,
  kExtSignatureAlgorithms = 0x000d,
  kExtAlpn = 0x0010,
  kExtSupportedVersions = 0x002b,
};

// Reserved values that clients sprinkle into their lists to keep servers
// tolerant (0x0a0a, 0x1a1a, ... 0xfafa); they carry no meaning.
inline bool IsGrease(uint16_t v) {
  return (v & 0x0f0f) == 0x0a0a && (v >> 8) == (v & 0xff);
}

struct HelloInfo {
  // Lists longer than these are cut; `lists_cut` says so.
  static constexpr size_t kMaxCiphers = 512;
  static constexpr size_t kMaxExtensions = 128;
  static constexpr size_t kMaxSigAlgs = 128;
  static constexpr size_t kMaxName = 255;
  static constexpr size_t kMaxAlpnText = 511;

  uint8_t type;
  // A DTLS hello.
  bool dtls;
  // The version field of the hello body.
  uint16_t legacy_version;
  // ClientHello: the highest entry of supported_versions that VersionText
  // knows (GREASE and unknown values left out; 1.3 drafts count as 0x0304),
  // for DTLS the newest that DtlsVersionText knows. ServerHello: the
  // version it selected there. 0 without the extension.
  uint16_t supported_version;
  bool lists_cut;

  // The first host_name of server_name, without its terminating zero in
  // the count (the text is always terminated).
  bool has_server_name;
  uint16_t server_name_length;
  char server_name[kMaxName + 1];

  // ALPN: the protocols joined by ","; a ServerHello has exactly one. Bytes
  // outside printable ASCII become '?'. The first protocol's raw first and
  // last bytes are kept for the fingerprint.
  bool has_alpn;
  uint16_t alpn_length;
  char alpn[kMaxAlpnText + 1];
  bool alpn_first_present;
  uint8_t alpn_first_first;
  uint8_t alpn_first_last;

  // In the order of the message, GREASE included. A ServerHello's one
  // selected suite is the only entry of `ciphers`.
  uint16_t cipher_count;
  uint16_t ciphers[kMaxCiphers];
  uint16_t extension_count;
  uint16_t extensions[kMaxExtensions];
  uint16_t sig_alg_count;
  uint16_t sig_algs[kMaxSigAlgs];
};

enum class ParseStatus {
  kOk,
  // Not a hello, or a hello whose lengths do not add up.
  kMalformed,
};

// Reads one handshake message (header included) of `length` bytes. The
// message must be whole: its length field must equal length - 4. With
// `dtls`, a DTLS hello (versions 0xfexx, the ClientHello's cookie).
ParseStatus ParseHello(const uint8_t *data, size_t length, HelloInfo &out, bool dtls = false);

// "1.0" .. "1.3" for a negotiated version, or null for anything else. TLS 1.3
// drafts (0x7fxx) and the experimental 1.3 variants some large sites run
// (0xfbxx) read as "1.3".
const char *VersionText(uint16_t version);
// "1.0", "1.2" or "1.3" for DTLS 1.0 (0xfeff), 1.2 (0xfefd) and 1.3
// (0xfefc): the DTLS version's own number; null for anything else.
const char *DtlsVersionText(uint16_t version);
// The version's two characters in the client fingerprint: "10" .. "13",
// "s3" for SSL 3, "d1", "d2" and "d3" for DTLS 1.0, 1.2 and 1.3, "00" for
// anything else.
const char *VersionCode(uint16_t version);

// The version a ServerHello settles on: supported_versions if present, else
// its legacy version.
inline uint16_t NegotiatedVersion(const HelloInfo &server_hello) {
  return server_hello.supported_version != 0 ? server_hello.supported_version
                                             : server_hello.legacy_version;
}

// The step of gathering one handshake message from the records that carry
// it (HelloAssembler, LeafAssembler): copies to `message` + `have` as many
// of the `length` bytes at `data` as both the current record
// (`record_left`) and the message (`total` - `have`) still hold, and moves
// data, length, record_left and have past them. Returns whether the
// message is whole.
bool TakeRecordBytes(const uint8_t *&data, size_t &length, uint32_t &record_left, uint8_t *message,
                     uint32_t &have, uint32_t total);

class HelloAssembler {
public:
  // Handshake messages longer than this (header included) are given up on.
  static constexpr uint32_t kMaxHandshake = 64 * 1024;
  // The largest record payload TLS allows (2^14 plus expansion room).
  static constexpr uint32_t kMaxRecord = 16384 + 2048;

  enum class State {
    kNeedMore,
    // The first message is whole: Message() / MessageLength().
    kDone,
    // Not TLS, a first message that is not a hello, or out of memory.
    kFailed,
    // An SSL 2.0-style ClientHello (a two-byte header with the top bit set,
    // type 1, version 3.x), which old clients still sent to reach TLS
    // servers: the side is TLS, but there is no hello to read.
    kLegacyHello,
  };

  HelloAssembler() = default;
  ~HelloAssembler();
  HelloAssembler(const HelloAssembler &) = delete;
  HelloAssembler &operator=(const HelloAssembler &) = delete;

  // The next `length` bytes of the direction. Bytes after the end of the
  // first message are ignored. Returns the state after them.
  State Feed(const uint8_t *data, size_t length);
  State GetState() const { return m_state; }
  // Whether the bytes so far look like TLS records carrying a hello (the
  // first record header and the handshake type are valid).
  bool LooksLikeTls() const { return m_header_checked && m_type_checked; }

  // Bytes of the last Feed that the first message took (with the records'
  // headers before it), and what is left of the record it ended in: where
  // the side's next handshake message begins.
  size_t Used() const { return m_used; }
  uint32_t RecordLeft() const { return m_record_left; }

  const uint8_t *Message() const { return m_state == State::kDone ? m_message : nullptr; }
  uint32_t MessageLength() const { return m_state == State::kDone ? m_message_length : 0; }

private:
  State Fail();
  bool CheckRecordHeader();

  State m_state = State::kNeedMore;
  uint8_t m_header[5] = {};
  uint8_t m_header_have = 0;
  bool m_header_checked = false;
  bool m_type_checked = false;
  // Payload bytes of the current record still to come.
  uint32_t m_record_left = 0;
  // The current record is an alert, passed over.
  bool m_skip = false;
  // The handshake header, then the message in m_message.
  uint8_t m_hs_header[4] = {};
  uint8_t m_hs_have = 0;
  uint8_t *m_message = nullptr;
  uint32_t m_message_length = 0;
  uint32_t m_message_have = 0;
  size_t m_used = 0;
};

} // namespace kest_tls

#endif
