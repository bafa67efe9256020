// The flow risks an HTTP/1.x message shows by its bytes: a Host that is an
// address, credentials in clear (Basic), a client that names a tool or
// nothing, and a response body that is a program. Pure functions of the
// bytes copied out of the flow, so that they cost nothing until a message
// has the header they look at.
#ifndef KEST_DECODERS_HTTP_HTTPRISKS_H
#define KEST_DECODERS_HTTP_HTTPRISKS_H

#include <kest/kit/AddressText.h>
#include <kest/kit/TextLine.h>
#include <stdint.h>

namespace kest_http {

// The bytes of a header value looked at, at most; longer values are cut.
constexpr uint32_t kRiskValueMax = 128;

// Host is an IPv4 literal ("192.0.2.7", "192.0.2.7:8080") or a bracketed
// IPv6 literal ("[2001:db8::1]", "[::1]:80"), blanks around it allowed.
inline bool NumericHost(const char *text, uint32_t length) {
  const oru::kit::TextSpan value = oru::kit::Rest(text, length, 0);
  oru::IpAddr address;
  if (value.length > 1 && value.text[0] == '[') {
    uint32_t close = 1;
    while (close < value.length && value.text[close] != ']') {
      ++close;
    }
    return close < value.length && oru::kit::ParseIpv6(value.text + 1, close - 1, address);
  }
  uint32_t end = 0;
  while (end < value.length && value.text[end] != ':') {
    ++end;
  }
  return oru::kit::ParseIpv4(value.text, end, address);
}

// Authorization carries the Basic scheme: a user and password, base64 only.
inline bool BasicCredentials(const char *text, uint32_t length) {
  const oru::kit::TextSpan value = oru::kit::Rest(text, length, 0);
  return oru::kit::IsCommand(value.text, value.length, "Basic") && value.length > 6;
}

// User-Agent is empty, or begins with the name of a scripting tool or
// library rather than a browser's or an application's: the documented list
// below, any case, followed by "/", a blank or the end.
inline bool SuspiciousAgent(const char *text, uint32_t length) {
  static constexpr const char *kTools[] = {"curl",          "Wget",           "python-requests",
                                           "python-urllib", "Go-http-client", "libwww-perl",
                                           "PowerShell",    "WinHttp",        "Java",
                                           "okhttp",        "aiohttp",        "httpie",
                                           "nmap",          "masscan",        "zgrab",
                                           "sqlmap",        "Nikto",          nullptr};
  const oru::kit::TextSpan value = oru::kit::Rest(text, length, 0);
  if (value.length == 0) {
    return true;
  }
  for (int i = 0; kTools[i] != nullptr; ++i) {
    const uint32_t n = oru::kit::TextLength(kTools[i]);
    if (oru::kit::StartsWith(value.text, value.length, kTools[i]) &&
        (value.length == n || value.text[n] == '/' || value.text[n] == ' ')) {
      return true;
    }
  }
  return false;
}

// The first four bytes of a body are those of a program: a Windows
// executable ("MZ"), an ELF object, a Mach-O object (either byte order, 32
// or 64 bits) or a script ("#!"). Universal Mach-O files are left out:
// Java's class files begin with the same four bytes.
inline bool ExecutableMagic(const unsigned char *b) {
  if ((b[0] == 'M' && b[1] == 'Z') || (b[0] == '#' && b[1] == '!')) {
    return true;
  }
  if (b[0] == 0x7F && b[1] == 'E' && b[2] == 'L' && b[3] == 'F') {
    return true;
  }
  const uint32_t big = uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
  const uint32_t little = uint32_t{b[3]} << 24 | uint32_t{b[2]} << 16 | uint32_t{b[1]} << 8 | b[0];
  return big == 0xFEEDFACEu || big == 0xFEEDFACFu || little == 0xFEEDFACEu || little == 0xFEEDFACFu;
}

} // namespace kest_http

#endif
