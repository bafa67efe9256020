// Addresses as text: read from the dialogues of the line protocols (FTP's
// EPRT, SDP's connection lines), and written for attributes (a DHCP lease),
// dotted IPv4 and IPv6 in its colon form. Pure functions of the bytes; each
// takes the whole span it is given.
#ifndef KEST_KIT_ADDRESSTEXT_H
#define KEST_KIT_ADDRESSTEXT_H

#include <kest/IpAddr.h>

#include <stdint.h>

namespace oru::kit {

namespace address_text {

inline bool Digit(char c) {
  return c >= '0' && c <= '9';
}

inline int HexDigit(char c) {
  if (Digit(c)) {
    return c - '0';
  }
  const char f = c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
  return f >= 'a' && f <= 'f' ? f - 'a' + 10 : -1;
}

// A decimal number of at most `max` at `text[i]`, moving `i` past it.
inline bool Number(const char *text, uint32_t length, uint32_t &i, uint32_t max, uint32_t &out) {
  const uint32_t from = i;
  uint32_t v = 0;
  while (i < length && Digit(text[i]) && i - from < 6) {
    v = v * 10u + static_cast<uint32_t>(text[i] - '0');
    ++i;
  }
  out = v;
  return i > from && v <= max;
}

} // namespace address_text

inline bool ParseIpv4(const char *text, uint32_t length, oru::IpAddr &out) {
  uint32_t i = 0;
  uint32_t value = 0;
  for (int k = 0; k < 4; ++k) {
    uint32_t part = 0;
    if ((k > 0 && (i >= length || text[i++] != '.')) ||
        !address_text::Number(text, length, i, 255, part)) {
      return false;
    }
    value = value << 8 | part;
  }
  out = oru::IpAddr::FromV4(value);
  return i == length;
}

// Eight groups of up to four hex digits, one run of them shortened to
// "::"; a dotted IPv4 tail is not taken.
inline bool ParseIpv6(const char *text, uint32_t length, oru::IpAddr &out) {
  uint16_t groups[8] = {};
  int count = 0;
  int gap = -1;
  uint32_t i = 0;
  if (length >= 2 && text[0] == ':' && text[1] == ':') {
    gap = 0;
    i = 2;
  }
  while (i < length) {
    uint32_t value = 0;
    uint32_t digits = 0;
    while (i < length && digits < 5 && address_text::HexDigit(text[i]) >= 0) {
      value = value << 4 | static_cast<uint32_t>(address_text::HexDigit(text[i++]));
      ++digits;
    }
    if (digits == 0 || digits > 4 || count == 8) {
      return false;
    }
    groups[count++] = static_cast<uint16_t>(value);
    if (i == length) {
      break;
    }
    if (text[i++] != ':') {
      return false;
    }
    if (i < length && text[i] == ':') {
      if (gap >= 0) {
        return false;
      }
      gap = count;
      ++i;
    } else if (i == length) {
      return false;
    }
  }
  if (gap < 0 ? count != 8 : count > 7) {
    return false;
  }
  uint8_t bytes[16] = {};
  const int shift = gap < 0 ? 0 : 8 - count;
  for (int k = 0; k < count; ++k) {
    const int at = gap >= 0 && k >= gap ? k + shift : k;
    bytes[2 * at] = static_cast<uint8_t>(groups[k] >> 8);
    bytes[2 * at + 1] = static_cast<uint8_t>(groups[k]);
  }
  out = oru::IpAddr::FromV6(bytes);
  return true;
}

// Writes the 4 bytes at `a` as dotted text into `out` (16 bytes are enough);
// returns the text's length.
inline uint32_t FormatIpv4(const uint8_t *a, char *out) {
  uint32_t n = 0;
  for (int i = 0; i < 4; ++i) {
    const uint32_t v = a[i];
    if (v >= 100) {
      out[n++] = static_cast<char>('0' + v / 100);
    }
    if (v >= 10) {
      out[n++] = static_cast<char>('0' + v / 10 % 10);
    }
    out[n++] = static_cast<char>('0' + v % 10);
    out[n++] = i < 3 ? '.' : '\0';
  }
  return n - 1;
}

// Writes the 16 bytes at `a` in the canonical colon form (lower case, the
// first longest run of two or more zero groups as "::"; a mapped IPv4
// address keeps the colon form too) into `out` (40 bytes are
// enough); returns the text's length.
inline uint32_t FormatIpv6(const uint8_t *a, char *out) {
  int best = -1, best_length = 1;
  for (int i = 0; i < 8;) {
    int j = i;
    while (j < 8 && a[2 * j] == 0 && a[2 * j + 1] == 0) {
      ++j;
    }
    if (j - i > best_length) {
      best = i;
      best_length = j - i;
    }
    i = j > i ? j : i + 1;
  }
  uint32_t n = 0;
  for (int i = 0; i < 8; ++i) {
    if (i == best) {
      out[n++] = ':';
      out[n++] = ':';
      i += best_length - 1;
      continue;
    }
    if (i != 0 && i != best + best_length) {
      out[n++] = ':';
    }
    const uint32_t group = static_cast<uint32_t>(a[2 * i]) << 8 | a[2 * i + 1];
    bool lead = true;
    for (int shift = 12; shift >= 0; shift -= 4) {
      const uint32_t digit = group >> shift & 15;
      if (!lead || digit != 0 || shift == 0) {
        out[n++] = "0123456789abcdef"[digit];
        lead = false;
      }
    }
  }
  out[n] = '\0';
  return n;
}

} // namespace oru::kit

#endif
