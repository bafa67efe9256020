// A bounded reader of bencoded values (BitTorrent's DHT messages, tracker
// answers): integers "i<digits>e", strings "<length>:<bytes>", lists
// "l...e" and dictionaries "d...e" whose keys are strings.
//
// Nothing is copied and nothing is kept: a value is a ByteReader over its
// encoding, a string a ByteReader over its bytes. Every read is bounded:
// nesting to kMaxDepth levels, kMaxItems values per walk, string lengths of
// at most seven digits, integers of at most nineteen; anything beyond, or
// anything that is not bencode (a leading zero, "-0", a key that is not a
// string, a value cut short), spends the reader, as ByteReader does for a
// read past its end. Key order is not checked: clients that send keys out
// of order are still read.
#ifndef KEST_DECODERS_BITTORRENT_BENCODE_H
#define KEST_DECODERS_BITTORRENT_BENCODE_H

#include <kest/kit/ByteReader.h>

#include <stddef.h>
#include <stdint.h>

namespace kest_bittorrent {

using oru::kit::ByteReader;

class Bencode {
public:
  static constexpr int kMaxDepth = 16;
  static constexpr uint32_t kMaxItems = 1024;

  // The next value's encoding, passed in `r`; a spent reader (and `r`
  // spent) when it is not one well-formed value within the limits.
  static ByteReader Value(ByteReader &r) {
    uint32_t items = 0;
    const uint8_t *start = r.Here();
    const size_t left = r.Left();
    if (!Pass(r, 0, items)) {
      r.Skip(r.Left() + 1);
      return Spent();
    }
    ByteReader whole(start, left);
    return whole.Sub(left - r.Left());
  }

  // The bytes of the string at `r`, passed; spent when there is none.
  static ByteReader String(ByteReader &r) {
    uint64_t n = 0;
    if (!Digits(r, ':', 7, n)) {
      return Spent();
    }
    return r.Sub(static_cast<size_t>(n));
  }

  // The integer at `r`, passed; false (and `r` spent) when there is none.
  static bool Integer(ByteReader &r, int64_t &value) {
    if (r.Peek() != 'i') {
      r.Skip(r.Left() + 1);
      return false;
    }
    r.Skip(1);
    const bool negative = r.Peek() == '-';
    if (negative) {
      r.Skip(1);
    }
    uint64_t n = 0;
    if (!Digits(r, 'e', 19, n) || (negative && n == 0)) {
      return false;
    }
    value = negative ? -static_cast<int64_t>(n) : static_cast<int64_t>(n);
    return true;
  }

  // Whether `value` (an encoding) is the string `text` of `n` bytes.
  static bool IsString(ByteReader value, const char *text, size_t n) {
    ByteReader s = String(value);
    return s.Ok() && value.Empty() && s.Left() == n && s.Expect(text, n);
  }

  // The entries of a dictionary, given its whole encoding:
  //   Dict d(value); ByteReader key, item;
  //   while (d.Next(key, item)) { ... }
  //   d.Ok() afterwards: the dictionary was whole and well-formed.
  class Dict {
  public:
    explicit Dict(ByteReader encoding) : m_r(encoding) { m_ok = m_r.Peek() == 'd' && m_r.Skip(1); }
    // The next key (its bytes) and value (its encoding); false at the end
    // or at the first fault.
    bool Next(ByteReader &key, ByteReader &value) {
      if (!m_ok || m_r.Peek() == 'e' || ++m_count > kMaxItems) {
        m_ok = m_ok && m_r.Peek() == 'e' && m_r.Left() == 1;
        return false;
      }
      key = String(m_r);
      value = Value(m_r);
      m_ok = key.Ok() && value.Ok();
      return m_ok;
    }
    bool Ok() const { return m_ok; }

  private:
    ByteReader m_r;
    uint32_t m_count = 0;
    bool m_ok;
  };

  // The value of `name` in the dictionary `encoding`, the first of that
  // key; spent when the key is absent or the dictionary is malformed up to
  // it.
  static ByteReader Find(ByteReader encoding, const char *name, size_t n) {
    Dict d(encoding);
    ByteReader key;
    ByteReader value;
    while (d.Next(key, value)) {
      if (key.Left() == n && key.Expect(name, n)) {
        return value;
      }
    }
    return Spent();
  }

private:
  static ByteReader Spent() {
    ByteReader r;
    r.Skip(1);
    return r;
  }

  // A decimal number of 1 to `most` digits ended by `end`, without a
  // leading zero; false with `r` spent otherwise.
  static bool Digits(ByteReader &r, uint8_t end, int most, uint64_t &n) {
    n = 0;
    int count = 0;
    while (r.Ok() && r.Peek() >= '0' && r.Peek() <= '9' && r.Left() != 0) {
      if (count == most || (count == 1 && n == 0)) {
        break;
      }
      n = n * 10 + (r.U8() - '0');
      ++count;
    }
    if (count == 0 || count > most || r.Peek() != end || r.Left() == 0) {
      r.Skip(r.Left() + 1);
      return false;
    }
    r.Skip(1);
    return true;
  }

  static bool Pass(ByteReader &r, int depth, uint32_t &items) {
    if (++items > kMaxItems || depth >= kMaxDepth || !r.Ok()) {
      return false;
    }
    const uint32_t c = r.Peek();
    if (c == 'i') {
      int64_t ignored = 0;
      return Integer(r, ignored);
    }
    if (c >= '0' && c <= '9') {
      return String(r).Ok();
    }
    if (c != 'l' && c != 'd') {
      return false;
    }
    r.Skip(1);
    while (r.Ok() && r.Left() != 0 && r.Peek() != 'e') {
      if (c == 'd' && !String(r).Ok()) {
        return false;
      }
      if (!Pass(r, depth + 1, items)) {
        return false;
      }
    }
    return r.Skip(1) && r.Ok();
  }
};

} // namespace kest_bittorrent

#endif
