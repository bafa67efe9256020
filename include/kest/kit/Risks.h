// Flow risks: facts about a connection that a security-minded user wants
// flagged (passwords in clear, obsolete TLS, a certificate out of date, a
// protocol on another protocol's port). A decoder that sees one raises it,
// and the host receives it as one value of the attribute "flow.risks": the
// risk's name below. A connection with several risks gets several values; a
// decoder raises a given risk at most once per connection (its State
// remembers). Nothing is raised, and nothing costs, on connections that
// show none.
//
// A kit decoder lists kRiskAttribute among its Spec's borrowed attributes
// (the attributes it reports, which its tests and fuzz target listen to)
// and calls Raise(session, risk). Code outside a Session (an inspector of
// its own) calls RaiseOnActive while the connection is the thread's active
// one.
#ifndef KEST_KIT_RISKS_H
#define KEST_KIT_RISKS_H

#include <kest/AttributeMgr.h>
#include <kest/kit/Decoder.h>

#include <stddef.h>
#include <stdint.h>

namespace oru::kit {

constexpr const char *kRiskAttribute = "flow.risks";

// The documented set; the README gives each one's exact rule. Names are
// stable: hosts match on them.
enum class Risk : uint8_t {
  kClearTextCredentials,    // "clear_text_credentials"
  kObsoleteTls,             // "obsolete_tls"
  kWeakCipher,              // "weak_cipher"
  kSelfSignedCertificate,   // "self_signed_certificate"
  kCertificateOutOfDate,    // "certificate_out_of_date"
  kCertificateNameMismatch, // "certificate_name_mismatch"
  kProtocolOnOtherPort,     // "known_protocol_on_other_port"
  kUnknownOnKnownPort,      // "unknown_protocol_on_known_port"
  kHttpNumericHost,         // "http_numeric_host"
  kHttpExecutable,          // "http_executable_download"
  kSuspiciousUserAgent,     // "suspicious_user_agent"
  kDnsGeneratedName,        // "dns_generated_name"
  kDnsTunnel,               // "dns_tunnel"
  kDnsOtherPort,            // "dns_other_port"
  kOneDirection,            // "one_direction"
  kHttpMalformedRequest,    // "http_malformed_request"
  kCount
};

constexpr const char *RiskName(Risk risk) {
  constexpr const char *kNames[] = {"clear_text_credentials",
                                    "obsolete_tls",
                                    "weak_cipher",
                                    "self_signed_certificate",
                                    "certificate_out_of_date",
                                    "certificate_name_mismatch",
                                    "known_protocol_on_other_port",
                                    "unknown_protocol_on_known_port",
                                    "http_numeric_host",
                                    "http_executable_download",
                                    "suspicious_user_agent",
                                    "dns_generated_name",
                                    "dns_tunnel",
                                    "dns_other_port",
                                    "one_direction",
                                    "http_malformed_request"};
  static_assert(sizeof kNames / sizeof kNames[0] == static_cast<size_t>(Risk::kCount));
  return static_cast<size_t>(risk) < static_cast<size_t>(Risk::kCount)
             ? kNames[static_cast<size_t>(risk)]
             : "";
}

namespace risk_detail {
constexpr bool Same(const char *a, const char *b) {
  while (*a != 0 && *a == *b) {
    ++a;
    ++b;
  }
  return *a == *b;
}
// The index of "flow.risks" among the Spec's attributes, borrowed ones
// included; -1 when it is not listed.
constexpr int IndexIn(const Spec &spec) {
  for (int i = 0; i < spec.AttributeCount() + spec.BorrowedCount(); ++i) {
    if (Same(spec.AttributeName(i), kRiskAttribute)) {
      return i;
    }
  }
  return -1;
}
} // namespace risk_detail

// The thread's identifier of "flow.risks" (0 while nobody listens): the
// thread registers the name itself at its start, so that risks raised at a
// connection's end still reach the host after the plug-ins that raise them
// are gone; reading its cell costs a load, where a look-up of the name
// would cost a search.
inline int RiskId() {
  return static_cast<int>(oru::ThreadWord(oru::Conn::l_flow_risks));
}

// Whether anyone listens to the flow risks on this thread: work done only
// to raise one may be passed over otherwise.
inline bool RisksWantedOnThread() {
  return RiskId() > 0;
}
template <class D> bool RisksWanted(const Session<D> &) {
  return RisksWantedOnThread();
}

// Raises `risk` on the thread's active connection.
inline void RaiseOnActive(Risk risk) {
  const char *name = RiskName(risk);
  size_t length = 0;
  while (name[length] != 0) {
    ++length;
  }
  PublishAttribute(RiskId(), name, length);
}

// The bit of a risk in a connection's set of risks raised (1 << Risk).
constexpr uint32_t RiskBit(Risk risk) {
  return uint32_t{1} << static_cast<unsigned>(risk);
}

// Raises `risk` on the thread's active connection unless `raised`, the
// connection's set, holds it already: each risk once per connection.
inline void RaiseOnce(uint32_t &raised, Risk risk) {
  if ((raised & RiskBit(risk)) == 0) {
    raised |= RiskBit(risk);
    RaiseOnActive(risk);
  }
}

// Raises `risk` on the session's connection (the thread's active one).
template <class D> void Raise(Session<D> &, Risk risk) {
  static_assert(risk_detail::IndexIn(D::kSpec) >= 0,
                "list oru::kit::kRiskAttribute among the Spec's borrowed attributes");
  RaiseOnActive(risk);
}

} // namespace oru::kit

#endif
