// What the TLS and DTLS decoders report of a client's hello, of a server's
// leaf certificate and of the versions and suite the hellos settle on: the
// attributes (both decoders' Specs list them in HelloAttribute's order, the
// certificate's last in CertificateAttribute's) and the TLS risks of
// kest/kit/Risks.h.
#ifndef KEST_DECODERS_TLS_CERTIFICATEREPORT_H
#define KEST_DECODERS_TLS_CERTIFICATEREPORT_H

#include "tls/Certificate.h"
#include "tls/TlsFingerprint.h"
#include "tls/TlsHello.h"

#include <kest.h>
#include <kest/Clock.h>
#include <kest/kit/Risks.h>
#include <kest/kit/Services.h>

namespace kest_tls {

// In this order in a Spec; kCertificate is the first of the certificate's.
enum HelloAttribute { kServerName, kAlpn, kVersion, kFingerprint, kCertificate };
enum CertificateAttribute { kSubject, kIssuer, kNotBefore, kNotAfter, kSan, kCertificateCount };

// The connection's time in seconds since 1970. When the host sets the clock
// from its packets (a capture's times), the packet's time; a clock that the
// library keeps itself holds only a running count of milliseconds, so the
// host's wall clock is asked then, once per certificate. -1 when there is
// none.
inline int64_t CertificateClock() {
  constexpr uint64_t kYear2000 = 946684800000ull;
  constexpr uint64_t kYear2200 = 7258118400000ull;
  const uint64_t ms = oru::now();
  if (ms >= kYear2000 && ms < kYear2200) {
    return static_cast<int64_t>(ms / 1000);
  }
  struct timeval tv = {0, 0};
  if (kest_gettimeofday == nullptr || kest_gettimeofday(&tv, nullptr) != 0) {
    return -1;
  }
  return tv.tv_sec;
}

// The risks either hello may show, each raised once: `raised` is the
// connection's set (oru::kit::RiskBit).
inline void HelloRisks(const HelloInfo &hello, uint16_t version, uint32_t &raised) {
  if (ObsoleteVersion(version)) {
    oru::kit::RaiseOnce(raised, oru::kit::Risk::kObsoleteTls);
  }
  if (hello.type == kServerHello && hello.cipher_count != 0 && WeakCipher(hello.ciphers[0])) {
    oru::kit::RaiseOnce(raised, oru::kit::Risk::kWeakCipher);
  }
}

// The version a ClientHello offers at most.
inline uint16_t OfferedVersion(const HelloInfo &client_hello) {
  return client_hello.supported_version != 0 ? client_hello.supported_version
                                             : client_hello.legacy_version;
}

// Reports a client's hello: its risks into `raised`, the server name (to
// the service catalogue too), the offered ALPN list, and the fingerprint
// when someone listens to it.
template <class S> void ReportClientHello(S &s, const HelloInfo &hello, uint32_t &raised) {
  HelloRisks(hello, OfferedVersion(hello), raised);
  if (hello.has_server_name) {
    oru::kit::PublishServerName(s, kServerName, hello.server_name, hello.server_name_length,
                                oru::SERVICE_SOURCE_SNI);
  }
  if (hello.has_alpn) {
    s.Publish(kAlpn, hello.alpn, hello.alpn_length);
  }
  if (s.registration().Id(kFingerprint) > 0) {
    char fingerprint[kFingerprintSize];
    ClientFingerprint(hello, fingerprint);
    s.Publish(kFingerprint, fingerprint);
  }
}

// Whether anyone listens to what the leaf certificate gives (its attributes
// from Spec attribute `first` on, or the flow risks): a certificate nobody
// asks about is neither kept nor read.
template <class S> bool CertificateWanted(const S &s, int first) {
  for (int i = 0; i < kCertificateCount; ++i) {
    if (s.registration().Id(first + i) > 0) {
      return true;
    }
  }
  return oru::kit::RisksWanted(s);
}

// Reports a server's hello: the version it settles on (DTLS's own numbers
// with `dtls`) and its risks into `raised`. Returns whether the leaf
// certificate is to be read: the version sends it in clear (TLS up to 1.2,
// DTLS 1.0 and 1.2) and someone listens to what it gives.
template <class S>
bool ReportServerHello(S &s, const HelloInfo &hello, uint32_t &raised, bool dtls) {
  const uint16_t chosen = NegotiatedVersion(hello);
  const char *version = dtls ? DtlsVersionText(chosen) : VersionText(chosen);
  if (version != nullptr) {
    s.Publish(kVersion, version);
  }
  HelloRisks(hello, chosen, raised);
  const bool clear =
      dtls ? chosen == 0xfeff || chosen == 0xfefd : chosen >= 0x0300 && chosen <= 0x0303;
  return clear && CertificateWanted(s, kCertificate);
}

// Reads the leaf and reports it from Spec attribute `first` on.
// `server_name` is the client's (null when it sent none).
template <class S>
void ReportCertificate(S &s, int first, const uint8_t *der, size_t length, CertificateInfo &cert,
                       const char *server_name, size_t server_name_length) {
  if (ReadCertificate(der, length, cert) != CertificateStatus::kOk) {
    return;
  }
  s.Publish(first + kSubject, cert.subject, cert.subject_length);
  s.Publish(first + kIssuer, cert.issuer, cert.issuer_length);
  s.Publish(first + kNotBefore, cert.not_before);
  s.Publish(first + kNotAfter, cert.not_after);
  if (cert.san_length != 0) {
    s.Publish(first + kSan, cert.san, cert.san_length);
  }
  if (SelfSigned(cert)) {
    oru::kit::Raise(s, oru::kit::Risk::kSelfSignedCertificate);
  }
  const int64_t now = CertificateClock();
  if (now >= 0 && (now < cert.not_before_sec || now > cert.not_after_sec)) {
    oru::kit::Raise(s, oru::kit::Risk::kCertificateOutOfDate);
  }
  if (server_name != nullptr && !NameCovered(cert, server_name, server_name_length)) {
    oru::kit::Raise(s, oru::kit::Risk::kCertificateNameMismatch);
  }
}

} // namespace kest_tls

#endif
