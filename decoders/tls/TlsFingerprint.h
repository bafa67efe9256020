// The client fingerprint ("tls.client_fingerprint"): a short text that
// stays the same for one TLS client build whatever server it talks to, made
// from the ClientHello alone. Three parts joined by "_":
//
//   a) ten characters, in this order:
//      - "t" (TLS over TCP), or "d" for DTLS;
//      - the highest version offered, two characters: the highest entry of
//        supported_versions, GREASE and unknown values left out and TLS 1.3
//        drafts counted as 1.3, or without that extension the hello's
//        version field; 0x0304 "13", 0x0303 "12", 0x0302 "11", 0x0301
//        "10", 0x0300 "s3", DTLS 0xfefc "d3", 0xfefd "d2", 0xfeff "d1",
//        anything else "00";
//      - "d" when the hello names a server (server_name with a host name),
//        else "i";
//      - the number of cipher suites, GREASE left out, two decimal digits,
//        99 at most;
//      - the number of extensions, GREASE left out (server_name and ALPN
//        counted), two decimal digits, 99 at most;
//      - the first and the last character of the first ALPN protocol, or
//        "00" without ALPN or with an empty first protocol. When either of
//        the two bytes is not an ASCII letter or digit, the two characters
//        are instead the high hex digit of the first byte and the low hex
//        digit of the last byte.
//   b) the first 12 lowercase hex digits of the SHA-256 of the cipher
//      suites, GREASE left out, sorted ascending, each as four lowercase
//      hex digits, joined by ","; "000000000000" when there are none.
//   c) the first 12 lowercase hex digits of the SHA-256 of: the extension
//      types, GREASE, server_name (0x0000) and ALPN (0x0010) left out,
//      sorted ascending, as four hex digits joined by ","; then, when the
//      hello has signature_algorithms with at least one non-GREASE entry,
//      "_" and those algorithms in the order of the hello, four hex digits
//      joined by ",". "000000000000" when no extension is left.
//
// Example, a browser offering TLS 1.3 (tests/decoders/tls/HelloSamples.h):
// "t13d1517h2_8daaf6152771_b1ff8ab2d16f".
//
// Lists longer than the parser keeps (HelloInfo's bounds) are fingerprinted
// as kept; no real client comes near them.
#ifndef KEST_DECODERS_TLS_TLSFINGERPRINT_H
#define KEST_DECODERS_TLS_TLSFINGERPRINT_H

#include "tls/TlsHello.h"

#include <stddef.h>

namespace kest_tls {

// 10 + 1 + 12 + 1 + 12 characters and the terminating zero.
constexpr size_t kFingerprintSize = 37;

// Writes the fingerprint of a parsed ClientHello, zero-terminated.
void ClientFingerprint(const HelloInfo &client_hello, char out[kFingerprintSize]);

} // namespace kest_tls

#endif
