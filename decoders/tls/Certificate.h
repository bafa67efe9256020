// A server's certificate, read from its DER bytes alone, and the stream
// layer that finds the leaf certificate in a TLS server's handshake.
//
//  - ReadCertificate reads one X.509 certificate (v1 or v3) far enough for
//    what a connection reports about its server: subject, issuer, validity,
//    the names of subjectAltName, and what tells a self-signed one. The
//    walk follows the certificate's fixed layout with ByteReader::Ber, one
//    level at a time (no recursion: the depth is that of the layout, seven
//    at most), allocates nothing, and never reads outside [der, der + n).
//    The texts it writes:
//      - names: "CN=example.com, O=Example Inc, C=US": the relative names
//        last first (the usual way to write a distinguished name), an
//        attribute of several values joined by "+". Known types by their
//        short names: CN, C, L, ST, O, OU, STREET, SERIALNUMBER, DC, UID,
//        emailAddress; any other by its dotted object identifier
//        ("2.5.4.97=VATDE-123"). Bytes outside printable ASCII become '?'
//        (a BMPString's characters above 0x7f too); ',', '+', '"', '\\',
//        ';', '<', '>' and '=' in a value get a '\\' before them. A text
//        longer than kMaxText is cut at an attribute's end.
//      - times: "2025-01-31T12:00:00Z" from UTCTime (years 50 to 99 are
//        19xx) and GeneralizedTime, whole seconds in UTC as DER has them.
//      - subjectAltName: the first kMaxSans dNSName and iPAddress entries,
//        joined by ","; addresses as dotted IPv4 or IPv6's colon form.
//
//  - LeafAssembler follows a TLS 1.0 to 1.2 server's stream from the end of
//    its ServerHello: the very next handshake message must be Certificate
//    (type 11), whose first entry (the leaf) is copied, up to kMaxLeaf
//    bytes, into one block from kest_malloc_local; the rest of the chain is
//    never read. Anything else (another message, a record that is not a
//    handshake, a leaf over the bound, lengths that do not add up) ends it
//    with nothing.
#ifndef KEST_DECODERS_TLS_CERTIFICATE_H
#define KEST_DECODERS_TLS_CERTIFICATE_H

#include <stddef.h>
#include <stdint.h>

namespace kest_tls {

enum : uint8_t { kCertificateMessage = 11 };

struct CertificateInfo {
  static constexpr size_t kMaxText = 255;
  static constexpr int kMaxSans = 4;
  // "YYYY-MM-DDTHH:MM:SSZ" and its terminating zero.
  static constexpr size_t kTimeText = 21;

  char subject[kMaxText + 1];
  uint16_t subject_length;
  char issuer[kMaxText + 1];
  uint16_t issuer_length;
  char not_before[kTimeText];
  char not_after[kTimeText];
  // Seconds since 1970-01-01 UTC.
  int64_t not_before_sec;
  int64_t not_after_sec;
  // Empty when the certificate names nothing there.
  char san[kMaxText + 1];
  uint16_t san_length;
  // Every dNSName and iPAddress entry, those beyond the text included.
  uint16_t san_count;

  // The certificate's own bytes, for the checks below (valid while the
  // certificate's bytes are): the names as encoded, the subjectAltName's
  // list of names (empty without one), the subject's last common name,
  // and the key identifiers (empty when absent).
  const uint8_t *subject_der;
  size_t subject_der_length;
  const uint8_t *issuer_der;
  size_t issuer_der_length;
  const uint8_t *san_der;
  size_t san_der_length;
  bool has_dns_name;
  const uint8_t *common_name;
  size_t common_name_length;
  const uint8_t *subject_key_id;
  size_t subject_key_id_length;
  const uint8_t *authority_key_id;
  size_t authority_key_id_length;
};

enum class CertificateStatus {
  kOk,
  // Not a certificate, or one whose lengths, times or names do not read.
  kMalformed,
};

CertificateStatus ReadCertificate(const uint8_t *der, size_t length, CertificateInfo &out);

// Self-signed: the issuer's encoded name is byte for byte the subject's, and,
// when the certificate carries both key identifiers, they are equal (a CA
// that issues under its own name with another key is not self-signed).
bool SelfSigned(const CertificateInfo &cert);

// Whether `host` (the client's server name, any case, one trailing dot
// allowed) is one of the certificate's dNSName entries, or, when it has
// none, its common name; an address is covered by the same address among
// the iPAddress entries. "*.example.com" covers one label only:
// "a.example.com", not "example.com" nor "a.b.example.com"; "*.com" covers
// nothing, and a '*' anywhere else is no wildcard.
bool NameCovered(const CertificateInfo &cert, const char *host, size_t host_length);
bool NameMatches(const uint8_t *pattern, size_t pattern_length, const char *host,
                 size_t host_length);

// Seconds since 1970 of a DER time's value (UTCTime when `generalized` is
// false), written into `text` (kTimeText bytes); false when it is not
// "YYMMDDHHMMSSZ" / "YYYYMMDDHHMMSSZ" with fields in range.
bool ReadTime(const uint8_t *value, size_t length, bool generalized, int64_t &seconds, char *text);

// The version numbers a TLS risk calls obsolete: SSL 3.0, TLS 1.0 and 1.1,
// and DTLS 1.0 (which is TLS 1.1's datagram form).
inline bool ObsoleteVersion(uint16_t version) {
  return (version >= 0x0300 && version <= 0x0302) || version == 0xfeff;
}
// Cipher suites that leave the traffic readable or unauthenticated: NULL
// encryption, RC4, the export grades, and anonymous key exchange.
bool WeakCipher(uint16_t suite);

class LeafAssembler {
public:
  static constexpr uint32_t kMaxLeaf = 16 * 1024;

  enum class State {
    kNeedMore,
    // Leaf() / LeafLength() hold the leaf certificate.
    kDone,
    // No leaf to read (see above), or out of memory.
    kNone,
  };

  LeafAssembler() = default;
  ~LeafAssembler();
  LeafAssembler(const LeafAssembler &) = delete;
  LeafAssembler &operator=(const LeafAssembler &) = delete;

  // The stream continues inside a handshake record with `record_left` of
  // its bytes still to come (0: at a record header).
  void Start(uint32_t record_left) { m_record_left = record_left; }
  State Feed(const uint8_t *data, size_t length);
  State GetState() const { return m_state; }
  const uint8_t *Leaf() const { return m_state == State::kDone ? m_leaf : nullptr; }
  uint32_t LeafLength() const { return m_state == State::kDone ? m_leaf_length : 0; }
  // The leaf is no longer needed: its block goes back.
  void Release();

private:
  State Stop();

  State m_state = State::kNeedMore;
  uint8_t m_header[5] = {};
  uint8_t m_header_have = 0;
  uint32_t m_record_left = 0;
  // The message header (4), the list's length (3) and the leaf's (3).
  uint8_t m_head[10] = {};
  uint8_t m_head_have = 0;
  uint8_t *m_leaf = nullptr;
  uint32_t m_leaf_length = 0;
  uint32_t m_leaf_have = 0;
};

} // namespace kest_tls

#endif
