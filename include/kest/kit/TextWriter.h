// Text built piece by piece in a caller's fixed buffer, for an attribute
// that joins several parts (a certificate's subject, a DNS answer list, a
// name with escapes). The buffer always ends in a NUL, and a piece that does
// not fit is refused whole, so the text is never cut inside a piece; Mark()
// and Back() take back a group of pieces when a later one is refused.
#ifndef KEST_KIT_TEXTWRITER_H
#define KEST_KIT_TEXTWRITER_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace oru::kit {

class TextWriter {
public:
  // `out` holds `size` bytes (at least 1, for the NUL), of which the first
  // `used` are text already kept.
  TextWriter(char *out, size_t size, size_t used = 0) : m_out(out), m_size(size), m_used(used) {
    m_out[m_used] = '\0';
  }

  bool Put(char c) { return Put(&c, 1); }
  bool Put(const char *s) { return Put(s, strlen(s)); }
  bool Put(const char *s, size_t n) {
    if (n >= m_size - m_used) {
      return false;
    }
    memcpy(m_out + m_used, s, n);
    m_used += n;
    m_out[m_used] = '\0';
    return true;
  }
  bool Decimal(uint64_t v) {
    char digits[20];
    size_t n = sizeof digits;
    do {
      digits[--n] = static_cast<char>('0' + v % 10);
      v /= 10;
    } while (v != 0);
    return Put(digits + n, sizeof digits - n);
  }

  size_t Length() const { return m_used; }
  size_t Mark() const { return m_used; }
  void Back(size_t mark) {
    m_used = mark;
    m_out[m_used] = '\0';
  }

private:
  char *m_out;
  size_t m_size;
  size_t m_used;
};

} // namespace oru::kit

#endif
