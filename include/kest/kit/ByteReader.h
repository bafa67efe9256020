// A bounds-checked reader over bytes in memory, for decoders that parse what
// the network sends. Every read checks what is left; a read that does not fit
// leaves the reader spent (Ok() false, nothing left, every later read 0), so a
// chain of reads needs one test at its end:
//
//   ByteReader r(data, n);
//   const uint32_t type = r.U8();
//   ByteReader body = r.Sub(r.U16());
//   if (!r.Ok()) return Verdict::kNotMine;
//
// Multi-byte numbers are big-endian (network order) by default; the *Le
// forms read little-endian.
#ifndef KEST_KIT_BYTEREADER_H
#define KEST_KIT_BYTEREADER_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace oru::kit {

// Big-endian numbers at `p`, for parsers that have checked the bounds
// themselves.
inline uint16_t LoadBe16(const uint8_t *p) {
  return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
inline uint32_t LoadBe32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

class ByteReader {
public:
  ByteReader() = default;
  ByteReader(const uint8_t *data, size_t length)
      : m_p(data), m_left(data != nullptr ? length : 0) {}
  ByteReader(const char *data, size_t length)
      : ByteReader(reinterpret_cast<const uint8_t *>(data), length) {}

  // False once a read went past the end.
  bool Ok() const { return m_ok; }
  size_t Left() const { return m_left; }
  bool Empty() const { return m_left == 0; }
  // The next byte's address; valid for Left() bytes.
  const uint8_t *Here() const { return m_p; }

  uint32_t U8() { return Take(1) ? m_p[-1] : 0; }
  uint32_t U16() { return Take(2) ? Be(m_p - 2, 2) : 0; }
  uint32_t U24() { return Take(3) ? Be(m_p - 3, 3) : 0; }
  uint32_t U32() { return Take(4) ? Be(m_p - 4, 4) : 0; }
  uint64_t U64() { return Take(8) ? Be64(m_p - 8, 8) : 0; }
  uint32_t U16Le() { return Take(2) ? Le(m_p - 2, 2) : 0; }
  uint32_t U24Le() { return Take(3) ? Le(m_p - 3, 3) : 0; }
  uint32_t U32Le() { return Take(4) ? Le(m_p - 4, 4) : 0; }
  uint64_t U64Le() { return Take(8) ? Le64(m_p - 8, 8) : 0; }
  // An unsigned number of `width` bytes (1 to 8), big- or little-endian.
  uint64_t Uint(unsigned width, bool little_endian = false) {
    if (width == 0 || width > 8 || !Take(width)) {
      Spend();
      return 0;
    }
    return little_endian ? Le64(m_p - width, width) : Be64(m_p - width, width);
  }

  // The next byte without passing it; 0 when none is left (Ok() unchanged).
  uint32_t Peek(size_t at = 0) const { return at < m_left ? m_p[at] : 0; }

  // QUIC's variable-length integer: the top two bits of the first byte give
  // the length, 1, 2, 4 or 8 bytes.
  uint64_t QuicVarint() {
    const size_t n = size_t{1} << (Peek() >> 6);
    if (!Take(n)) {
      return 0;
    }
    return Be64(m_p - n, n) & (~uint64_t{0} >> (64 - 8 * n + 2));
  }
  // Base-128 varint, lowest group first (protocol buffers, LEB128): at most
  // ten bytes; a longer one spends the reader.
  uint64_t Varint() {
    uint64_t value = 0;
    for (unsigned shift = 0; shift < 70; shift += 7) {
      if (!Take(1)) {
        return 0;
      }
      const uint8_t b = m_p[-1];
      value |= static_cast<uint64_t>(b & 0x7F) << shift;
      if ((b & 0x80) == 0) {
        return value;
      }
    }
    Spend();
    return 0;
  }

  bool Skip(size_t n) { return Take(n); }
  // Text ended by a NUL (the C strings of MySQL, PostgreSQL, MongoDB): its
  // first byte and length without the NUL, which is passed too. Without a
  // NUL, false, and nothing moves (the reader stays Ok).
  bool CString(const char *&text, uint32_t &n) {
    text = reinterpret_cast<const char *>(m_p);
    const void *end = m_left != 0 ? memchr(m_p, 0, m_left) : nullptr;
    if (end == nullptr) {
      return false;
    }
    n = static_cast<uint32_t>(static_cast<const char *>(end) - text);
    return Take(n + 1u);
  }
  // Passes `n` bytes when they equal `bytes`; otherwise moves nothing and
  // results in false (the reader stays Ok).
  bool Expect(const void *bytes, size_t n) {
    if (n > m_left) {
      return false;
    }
    const uint8_t *b = static_cast<const uint8_t *>(bytes);
    for (size_t i = 0; i < n; ++i) {
      if (m_p[i] != b[i]) {
        return false;
      }
    }
    m_p += n;
    m_left -= n;
    return true;
  }

  // A reader over the next `n` bytes, which this reader passes. Past the
  // end, both this reader and the result are spent.
  ByteReader Sub(size_t n) {
    const uint8_t *at = m_p;
    if (!Take(n)) {
      return Spent();
    }
    return ByteReader(at, n);
  }
  // A field with its length in front: `width` bytes of length (1 to 4),
  // big- or little-endian, then that many bytes.
  ByteReader Prefixed(unsigned width, bool little_endian = false) {
    const uint64_t n = Uint(width, little_endian);
    return m_ok ? Sub(static_cast<size_t>(n)) : Spent();
  }
  // What is left, as a reader; this reader is then empty.
  ByteReader Rest() { return Sub(m_left); }

  // An ASN.1 element in BER (SNMP, LDAP, Kerberos): its identifier octet in
  // `tag`, then a reader over its value. Definite lengths only, of at most
  // four bytes, and tag numbers below 31 (one identifier octet); anything
  // else spends the reader.
  ByteReader Ber(uint32_t &tag) {
    tag = U8();
    uint32_t length = U8();
    if ((tag & 0x1f) == 0x1f || length == 0x80 || length > 0x84) {
      Spend();
      return Spent();
    }
    if (length > 0x80) {
      length = static_cast<uint32_t>(Uint(length & 0x7f));
    }
    return m_ok ? Sub(length) : Spent();
  }
  // The value of the next BER element when its tag is `tag`; otherwise a
  // spent reader, and this one spent too.
  ByteReader BerTagged(uint32_t tag) {
    uint32_t got = 0;
    ByteReader value = Ber(got);
    if (got != tag) {
      Spend();
      return Spent();
    }
    return value;
  }
  // A BER INTEGER of at most eight bytes, two's complement; a longer or
  // empty one spends the reader.
  int64_t BerInt() {
    ByteReader value = BerTagged(0x02);
    if (value.Empty() || value.Left() > 8) {
      Spend();
      return 0;
    }
    int64_t n = static_cast<int8_t>(value.U8());
    while (!value.Empty()) {
      n = static_cast<int64_t>(static_cast<uint64_t>(n) << 8 | value.U8());
    }
    return n;
  }

  // Walks type-length-value records to the end: `type_width` and
  // `length_width` bytes each (1 to 4), then the value. `visit(type, value)`
  // returns false to stop. True when the records filled the bytes exactly.
  template <class Visit>
  bool Tlv(unsigned type_width, unsigned length_width, Visit &&visit, bool little_endian = false) {
    while (m_ok && m_left != 0) {
      const uint64_t type = Uint(type_width, little_endian);
      ByteReader value = Prefixed(length_width, little_endian);
      if (!m_ok) {
        return false;
      }
      if (!visit(type, value)) {
        return true;
      }
    }
    return m_ok;
  }

private:
  static ByteReader Spent() {
    ByteReader r;
    r.m_ok = false;
    return r;
  }
  void Spend() {
    m_ok = false;
    m_left = 0;
  }
  bool Take(size_t n) {
    if (!m_ok || n > m_left) {
      Spend();
      return false;
    }
    m_p += n;
    m_left -= n;
    return true;
  }
  static uint32_t Be(const uint8_t *p, size_t n) { return static_cast<uint32_t>(Be64(p, n)); }
  static uint32_t Le(const uint8_t *p, size_t n) { return static_cast<uint32_t>(Le64(p, n)); }
  static uint64_t Be64(const uint8_t *p, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) {
      v = v << 8 | p[i];
    }
    return v;
  }
  static uint64_t Le64(const uint8_t *p, size_t n) {
    uint64_t v = 0;
    for (size_t i = n; i-- > 0;) {
      v = v << 8 | p[i];
    }
    return v;
  }

  const uint8_t *m_p = nullptr;
  size_t m_left = 0;
  bool m_ok = true;
};

} // namespace oru::kit

#endif
