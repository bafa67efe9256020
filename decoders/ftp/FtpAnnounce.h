// The data connections an FTP control connection announces:
//   client  "PORT h1,h2,h3,h4,p1,p2"          it listens there
//           "EPRT |1|192.0.2.7|6275|"         the same, IPv4 or (|2|) IPv6,
//                                            any delimiter byte
//   server  "227 Entering Passive Mode (h1,h2,h3,h4,p1,p2)"
//           "229 Entering Extended Passive Mode (|||6446|)"  no address: the
//                                            server's own
// Pure functions of a line's text, for the rules, the tests and the fuzz
// target.
#ifndef KEST_DECODERS_FTPANNOUNCE_H
#define KEST_DECODERS_FTPANNOUNCE_H

#include <kest/kit/AddressText.h>
#include <kest/kit/TextLine.h>

#include <kest/IpAddr.h>

namespace kest_decoders {

using namespace oru::kit;

struct FtpEndpoint {
  // Zero when the line gives none: the sender's address.
  oru::IpAddr addr;
  uint16_t port;
};

namespace ftp_text {

using address_text::Digit;
using address_text::Number;

// Six comma-separated numbers from `text[i]`: four address bytes, then the
// port's high and low byte.
inline bool SixNumbers(const char *text, uint32_t length, uint32_t i, FtpEndpoint &out) {
  uint32_t n[6] = {};
  for (int k = 0; k < 6; ++k) {
    if (k > 0) {
      if (i >= length || text[i] != ',') {
        return false;
      }
      ++i;
    }
    if (!Number(text, length, i, 255, n[k])) {
      return false;
    }
  }
  out.addr = oru::IpAddr::FromV4(n[0] << 24 | n[1] << 16 | n[2] << 8 | n[3]);
  out.port = static_cast<uint16_t>(n[4] << 8 | n[5]);
  return out.port != 0;
}

// The fields of "<d>family<d>address<d>port<d>" (EPRT) or "<d><d><d>port<d>"
// (the reply to EPSV), starting at `text[i]`.
inline bool Extended(const char *text, uint32_t length, uint32_t i, bool with_address,
                     FtpEndpoint &out) {
  if (i >= length || text[i] < 33 || text[i] > 126) {
    return false;
  }
  const char d = text[i++];
  uint32_t field[3] = {};
  uint32_t size[3] = {};
  for (int k = 0; k < 3; ++k) {
    field[k] = i;
    while (i < length && text[i] != d) {
      ++i;
    }
    if (i == length) {
      return false;
    }
    size[k] = i++ - field[k];
  }
  uint32_t p = field[2];
  uint32_t port = 0;
  if (!Number(text, field[2] + size[2], p, 65535, port) || p != field[2] + size[2] || port == 0) {
    return false;
  }
  out.port = static_cast<uint16_t>(port);
  out.addr = oru::IpAddr();
  if (!with_address) {
    return size[0] == 0 && size[1] == 0;
  }
  if (size[0] != 1 || (text[field[0]] != '1' && text[field[0]] != '2')) {
    return false;
  }
  return text[field[0]] == '1' ? ParseIpv4(text + field[1], size[1], out.addr)
                               : ParseIpv6(text + field[1], size[1], out.addr);
}

} // namespace ftp_text

// The end point of a client's PORT or EPRT command.
inline bool ClientAnnounce(const char *text, uint32_t length, FtpEndpoint &out) {
  if (IsCommand(text, length, "PORT")) {
    uint32_t i = 4;
    while (i < length && text[i] == ' ') {
      ++i;
    }
    return ftp_text::SixNumbers(text, length, i, out);
  }
  if (IsCommand(text, length, "EPRT")) {
    uint32_t i = 4;
    while (i < length && text[i] == ' ') {
      ++i;
    }
    return ftp_text::Extended(text, length, i, true, out);
  }
  return false;
}

// The end point of a server's 227 or 229 reply (its last line).
inline bool ServerAnnounce(const char *text, uint32_t length, FtpEndpoint &out) {
  const int code = ReplyCode(text, length);
  if (length < 4 || text[3] != ' ' || (code != 227 && code != 229)) {
    return false;
  }
  if (code == 227) {
    // The numbers need no parentheses; they start at the first digit.
    uint32_t i = 4;
    while (i < length && !ftp_text::Digit(text[i])) {
      ++i;
    }
    return ftp_text::SixNumbers(text, length, i, out);
  }
  uint32_t i = 4;
  while (i < length && text[i] != '(') {
    ++i;
  }
  return ftp_text::Extended(text, length, i + 1, false, out);
}

} // namespace kest_decoders

#endif
