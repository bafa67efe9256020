// Text lines of the line-oriented protocols (mail, file transfer, remote
// shell banners) read out of one side's reassembled stream, and the small
// case-insensitive tests their decoders make on them.
//
// A line ends at LF; a CR before it is dropped. Its bytes are copied into a
// fixed buffer (the longest line a decoder cares about is short), so that
// the tests never read the flow's blocks beyond one call. A line longer than
// the caller's bound is reported as such, whether or not its end has come.
#ifndef KEST_KIT_TEXTLINE_H
#define KEST_KIT_TEXTLINE_H

#include <kest/FlowBuffer.h>
#include <stddef.h>
#include <stdint.h>

namespace oru::kit {

// Bytes of a line kept for the tests; the rest of a longer line is skipped.
constexpr uint32_t kLineCapacity = 512;

struct TextLine {
  char text[kLineCapacity];
  // Bytes in `text`.
  uint32_t length;
  // The line's own length without CR LF; above `length` when it was cut.
  uint32_t full;
};

enum LineRead {
  // A whole line is in `line`; `pos` is past its LF.
  LINE_READY,
  // No LF yet, and the line may still end within the bound.
  LINE_WAIT,
  // More than the bound without an LF: not a line of these protocols.
  LINE_OVERLONG,
  // `pos` lies before what the flow still holds: the place is lost.
  LINE_LOST,
};

// Copies up to `n` bytes from `pos` into `out`; the count copied (short at a
// hole or the end of the data).
inline uint32_t CopyFlow(const oru::FlowBuffer &flow, uint64_t pos, char *out, uint32_t n) {
  uint32_t done = 0;
  while (done < n) {
    unsigned long long start = 0;
    const oru::FlowBuffer::Block *block = flow.GetBlock(pos + done, start);
    if (block == nullptr || block->data == nullptr) {
      break;
    }
    const uint64_t offset = pos + done - start;
    if (offset >= block->size) {
      break;
    }
    uint64_t take = block->size - offset;
    if (take > n - done) {
      take = n - done;
    }
    for (uint64_t i = 0; i < take; ++i) {
      out[done + i] = block->data[offset + i];
    }
    done += static_cast<uint32_t>(take);
  }
  return done;
}

// The next line at `pos`, at most `bound` bytes before its LF (a CR
// included).
inline LineRead ReadLine(const oru::FlowBuffer &flow, uint64_t &pos, uint32_t bound,
                         TextLine &line) {
  if (pos < flow.Begin()) {
    return LINE_LOST;
  }
  const uint64_t end = flow.End();
  if (pos >= end) {
    return LINE_WAIT;
  }
  const uint64_t lf = flow.Find(pos, '\n', pos + bound + 1);
  if (lf >= end) {
    return end - pos > bound ? LINE_OVERLONG : LINE_WAIT;
  }
  uint64_t stop = lf;
  if (stop > pos && flow.At(stop - 1) == '\r') {
    --stop;
  }
  line.full = static_cast<uint32_t>(stop - pos);
  const uint32_t want = line.full < kLineCapacity ? line.full : kLineCapacity;
  line.length = CopyFlow(flow, pos, line.text, want);
  pos = lf + 1;
  return LINE_READY;
}

inline char Fold(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

inline uint32_t TextLength(const char *s) {
  uint32_t n = 0;
  while (s[n] != '\0') {
    ++n;
  }
  return n;
}

// `text` begins with `word`, byte for byte.
inline bool HasPrefix(const char *text, uint32_t length, const char *word) {
  uint32_t i = 0;
  while (word[i] != '\0' && i < length && text[i] == word[i]) {
    ++i;
  }
  return word[i] == '\0';
}

// The first `length` bytes of a line that has not ended yet can still begin
// with `word`, byte for byte.
inline bool MayBeginWith(const char *text, uint32_t length, const char *word) {
  for (uint32_t i = 0; i < length && word[i] != '\0'; ++i) {
    if (text[i] != word[i]) {
      return false;
    }
  }
  return true;
}

// Writes `value` in decimal into `out` (10 bytes are enough); returns the
// text's length.
inline uint32_t FormatDecimal(uint32_t value, char *out) {
  char digits[10];
  uint32_t n = 0;
  do {
    digits[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  for (uint32_t i = 0; i < n; ++i) {
    out[i] = digits[n - 1 - i];
  }
  return n;
}

// Writes UTF-16LE text of `length` bytes (an odd last byte is left) as UTF-8
// into `out`: whole characters only, at most `room` bytes. A NUL ends the
// text; a surrogate without its partner is written as U+FFFD. Returns the
// bytes written. SMB and NTLM carry their names so.
inline uint32_t Utf8FromUtf16Le(const uint8_t *in, size_t length, char *out, uint32_t room) {
  uint32_t n = 0;
  for (size_t i = 0; i + 1 < length; i += 2) {
    uint32_t c = static_cast<uint32_t>(in[i] | in[i + 1] << 8);
    if (c == 0) {
      break;
    }
    if (c >= 0xD800 && c <= 0xDBFF && i + 3 < length) {
      const uint32_t low = static_cast<uint32_t>(in[i + 2] | in[i + 3] << 8);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        i += 2;
      }
    }
    if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;
    }
    const uint32_t size = c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
    if (size > room - n) {
      break;
    }
    if (size == 1) {
      out[n++] = static_cast<char>(c);
      continue;
    }
    // The lead byte: as many high bits as bytes, then the top of the value.
    out[n++] = static_cast<char>((0xF00u >> size & 0xF0) | c >> (6 * (size - 1)));
    for (uint32_t k = size - 1; k-- > 0;) {
      out[n++] = static_cast<char>(0x80 | (c >> (6 * k) & 0x3F));
    }
  }
  return n;
}

// Every byte of `text` is printable ASCII.
inline bool Printable(const char *text, uint32_t length) {
  for (uint32_t i = 0; i < length; ++i) {
    if (text[i] < 0x20 || text[i] > 0x7E) {
      return false;
    }
  }
  return true;
}

// `text` begins with `word`, any case.
inline bool StartsWith(const char *text, uint32_t length, const char *word) {
  const uint32_t n = TextLength(word);
  if (length < n) {
    return false;
  }
  for (uint32_t i = 0; i < n; ++i) {
    if (Fold(text[i]) != Fold(word[i])) {
      return false;
    }
  }
  return true;
}

// `text` is the command `word`, any case, alone or followed by a space.
inline bool IsCommand(const char *text, uint32_t length, const char *word) {
  // Most words differ in their first letter: no need to measure them.
  if (length == 0 || Fold(text[0]) != Fold(word[0])) {
    return false;
  }
  const uint32_t n = TextLength(word);
  return StartsWith(text, length, word) && (length == n || text[n] == ' ');
}

// `text` holds `word` anywhere, any case.
inline bool Contains(const char *text, uint32_t length, const char *word) {
  const uint32_t n = TextLength(word);
  for (uint32_t at = 0; n != 0 && at + n <= length; ++at) {
    if (StartsWith(text + at, length - at, word)) {
      return true;
    }
  }
  return false;
}

// The first `length` bytes of a line that has not ended yet can still
// become the command `word` (or `word` with more behind a space).
inline bool MayOpenWith(const char *text, uint32_t length, const char *word) {
  if (length != 0 && Fold(text[0]) != Fold(word[0])) {
    return false;
  }
  const uint32_t n = TextLength(word);
  for (uint32_t i = 0; i < length && i < n; ++i) {
    if (Fold(text[i]) != Fold(word[i])) {
      return false;
    }
  }
  return length <= n || text[n] == ' ' || text[n] == '\r';
}

// Whether the first `length` bytes of a line that has not ended yet can
// still become one of the commands in `words` (null-terminated), as
// MayOpenWith.
inline bool MayOpenWithAny(const char *text, uint32_t length, const char *const *words) {
  for (int i = 0; words[i] != nullptr; ++i) {
    if (MayOpenWith(text, length, words[i])) {
      return true;
    }
  }
  return false;
}

// The index of the command in `words` (null-terminated) that the line is,
// or -1.
inline int CommandIndex(const char *text, uint32_t length, const char *const *words) {
  for (int i = 0; words[i] != nullptr; ++i) {
    if (IsCommand(text, length, words[i])) {
      return i;
    }
  }
  return -1;
}

// A reply of three digits (100 to 599) followed by the end, a space or a
// dash: the code, else -1.
inline int ReplyCode(const char *text, uint32_t length) {
  if (length < 3 || text[0] < '1' || text[0] > '5') {
    return -1;
  }
  for (uint32_t i = 1; i < 3; ++i) {
    if (text[i] < '0' || text[i] > '9') {
      return -1;
    }
  }
  if (length > 3 && text[3] != ' ' && text[3] != '-') {
    return -1;
  }
  return (text[0] - '0') * 100 + (text[1] - '0') * 10 + (text[2] - '0');
}

// The first bytes of a line can still become a reply code.
inline bool MayOpenReply(const char *text, uint32_t length) {
  for (uint32_t i = 0; i < length && i < 3; ++i) {
    if (text[i] < (i == 0 ? '1' : '0') || text[i] > (i == 0 ? '5' : '9')) {
      return false;
    }
  }
  return length <= 3 || text[3] == ' ' || text[3] == '-' || text[3] == '\r';
}

struct TextSpan {
  const char *text;
  uint32_t length;
};

// What follows the first `skip` bytes, without the spaces around it.
inline TextSpan Rest(const char *text, uint32_t length, uint32_t skip) {
  uint32_t from = skip < length ? skip : length;
  while (from < length && text[from] == ' ') {
    ++from;
  }
  uint32_t to = length;
  while (to > from && text[to - 1] == ' ') {
    --to;
  }
  return TextSpan{text + from, to - from};
}

// A protocol number and its name, for the tables decoders report from.
struct CodeName {
  uint32_t code;
  const char *name;
};

// The name `table` gives `code`, or else its decimal digits, written into
// `digits` (10 bytes are enough).
template <size_t N> TextSpan NameOrNumber(const CodeName (&table)[N], uint32_t code, char *digits) {
  for (const CodeName &known : table) {
    if (known.code == code) {
      return TextSpan{known.name, TextLength(known.name)};
    }
  }
  return TextSpan{digits, FormatDecimal(code, digits)};
}

} // namespace oru::kit

#endif
