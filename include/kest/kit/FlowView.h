// Views over one side's reassembled bytes (oru::FlowBuffer) that read across
// its blocks.
//
// FlowSpan gives `length` bytes from a position in one piece: in place when
// one block holds them, copied into the caller's scratch otherwise.
//
// FlowTail reads the bytes from a position to the flow's end in place when
// one block holds them.
//
// FlowBytes reads a flow's bytes one position at a time, looking a block up only when
// the position leaves the block read last: a byte-wise scan costs one tree
// search per block instead of one per byte. Reads give what
// oru::FlowBuffer::At gives, DUMMY_VAL where no block covers the position.
//
// LineCursor reads a first line on it for the sniffers of the message
// protocols (HTTP, SIP, RTSP, SSDP), which judge a line as it grows.
#ifndef KEST_KIT_FLOWVIEW_H
#define KEST_KIT_FLOWVIEW_H

#include <kest.h>
#include <kest/FlowBuffer.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace oru::kit {

// The `length` bytes at `pos` of `flow` in one piece: in place when one block
// holds them, else copied into `scratch` (room for `scratch_size` bytes).
// Null across a hole, before the flow's begin, or when scratch is too small.
inline const uint8_t *FlowSpan(const oru::FlowBuffer &flow, uint64_t pos, size_t length,
                               uint8_t *scratch, size_t scratch_size) {
  unsigned long long start = 0;
  const oru::FlowBuffer::Block *block = flow.GetBlock(pos, start);
  if (block != nullptr && block->data != nullptr && pos + length <= start + block->size) {
    return reinterpret_cast<const uint8_t *>(block->data + (pos - start));
  }
  if (scratch == nullptr || length > scratch_size) {
    return nullptr;
  }
  size_t done = 0;
  while (done < length) {
    block = flow.GetBlock(pos + done, start);
    if (block == nullptr || block->data == nullptr) {
      return nullptr;
    }
    const size_t offset = static_cast<size_t>(pos + done - start);
    size_t n = block->size - offset;
    if (n > length - done) {
      n = length - done;
    }
    kest_memcpy(scratch + done, block->data + offset, n);
    done += n;
  }
  return scratch;
}

// The bytes of a flow from a position to its end, read in place when one
// block holds them all (as a message's head mostly lies) and no other block
// starts among them. Then At, Find and Compare answer exactly as the flow's
// own do for positions from there on, without a block look-up a call;
// otherwise Whole() is false and the flow itself is to be read.
class FlowTail {
public:
  FlowTail(const oru::FlowBuffer &flow, uint64_t pos) : m_end(flow.End()) {
    unsigned long long start = 0;
    unsigned long long last = 0;
    const oru::FlowBuffer::Block *block = pos < m_end ? flow.GetBlock(pos, start) : nullptr;
    if (block != nullptr && block->data != nullptr && start + block->size == m_end &&
        flow.GetBlock(m_end - 1, last) == block) {
      m_data = block->data;
      m_origin = start;
    }
  }

  bool Whole() const { return m_data != nullptr; }
  uint64_t End() const { return m_end; }
  char At(uint64_t pos) const { return m_data[pos - m_origin]; }
  // The first `byte` from `pos` up to `limit` (cut to the end), or End().
  uint64_t Find(uint64_t pos, char byte, uint64_t limit) const {
    if (limit > m_end) {
      limit = m_end;
    }
    if (pos >= limit) {
      return m_end;
    }
    const void *hit = memchr(m_data + (pos - m_origin), byte, limit - pos);
    return hit != nullptr
               ? m_origin + static_cast<uint64_t>(static_cast<const char *>(hit) - m_data)
               : m_end;
  }
  // The first `text` (`len` bytes, at least 1) lying wholly from `pos` up to
  // `limit` (cut to the end), or End().
  uint64_t Find(uint64_t pos, const char *text, unsigned int len, uint64_t limit) const {
    if (limit > m_end) {
      limit = m_end;
    }
    while (pos + len <= limit) {
      const uint64_t found = Find(pos, text[0], limit);
      if (found == m_end || found + len > limit) {
        break;
      }
      if (Compare(found, text, len) == 0) {
        return found;
      }
      pos = found + 1;
    }
    return m_end;
  }
  // 0 when the `len` bytes at `pos` are `text`; else not 0 (-1 past the end).
  int Compare(uint64_t pos, const char *text, unsigned int len) const {
    if (pos + len > m_end) {
      return -1;
    }
    return kest_memcmp(m_data + (pos - m_origin), text, len);
  }

private:
  const char *m_data = nullptr;
  uint64_t m_origin = 0;
  uint64_t m_end;
};

class FlowBytes {
public:
  explicit FlowBytes(const oru::FlowBuffer &flow) : m_flow(&flow) {}

  char At(uint64_t pos) {
    // Below m_start the difference wraps and is above any block's size.
    if (pos - m_start >= m_size) {
      unsigned long long start = 0;
      const oru::FlowBuffer::Block *block = m_flow->GetBlock(pos, start);
      if (block == nullptr || block->data == nullptr) {
        return oru::FlowBuffer::DUMMY_VAL;
      }
      m_data = block->data;
      m_start = start;
      m_size = block->size;
    }
    return m_data[pos - m_start];
  }

  // The bytes from `pos` to the end of the block that holds it, their count
  // in `n`; null where no bytes are kept (then At gives the filler byte).
  const char *Run(uint64_t pos, uint64_t &n) {
    if (pos - m_start >= m_size) {
      At(pos);
      if (pos - m_start >= m_size) {
        n = 0;
        return nullptr;
      }
    }
    n = m_size - (pos - m_start);
    return m_data + (pos - m_start);
  }

  const oru::FlowBuffer &Flow() const { return *m_flow; }

private:
  const oru::FlowBuffer *m_flow;
  const char *m_data = nullptr;
  uint64_t m_start = 0;
  uint64_t m_size = 0;
};

// How one reading of a growing line went: it may still match (kMore), it
// did, or it cannot.
enum class Match { kMore, kYes, kNo };

// Reads the bytes of a line in order, up to the data's end or the length
// limit, whichever comes first.
class LineCursor {
public:
  LineCursor(const oru::FlowBuffer &flow, uint64_t from, uint64_t end, uint64_t limit)
      : m_bytes(flow), m_pos(from), m_end(end < limit ? end : limit), m_limited(end >= limit) {}

  bool AtEnd() const { return m_pos >= m_end; }
  unsigned char Peek() { return static_cast<unsigned char>(m_bytes.At(m_pos)); }
  void Skip() { ++m_pos; }
  // Passes over visible bytes (above the blank, not DEL; UTF-8 included) to
  // the first other byte or the end, a block at a time; how many.
  size_t SkipVisible() {
    const uint64_t from = m_pos;
    while (m_pos < m_end) {
      uint64_t n = 0;
      const char *run = m_bytes.Run(m_pos, n);
      if (run == nullptr) {
        if (Stops(Peek())) {
          break;
        }
        Skip();
        continue;
      }
      if (n > m_end - m_pos) {
        n = m_end - m_pos;
      }
      uint64_t i = 0;
      // Eight bytes at a time while none of them stops the run (a long
      // target's bytes), then byte by byte to the one that does.
      constexpr uint64_t kOnes = 0x0101010101010101ull;
      constexpr uint64_t kHighs = 0x8080808080808080ull;
      while (i + 8 <= n) {
        uint64_t word;
        memcpy(&word, run + i, 8);
        // A byte below 0x21, or one equal to 0x7f, in the word.
        const uint64_t del = word ^ (kOnes * 0x7f);
        if ((((word - kOnes * 0x21) & ~word) | ((del - kOnes) & ~del)) & kHighs) {
          break;
        }
        i += 8;
      }
      while (i < n && !Stops(static_cast<unsigned char>(run[i]))) {
        ++i;
      }
      m_pos += i;
      if (i < n) {
        break;
      }
    }
    return static_cast<size_t>(m_pos - from);
  }
  // Running out of bytes: more may come, unless the limit cut the line.
  Match OutOfBytes() const { return m_limited ? Match::kNo : Match::kMore; }

  // The next bytes against `text`: kYes when all were equal, kMore when the
  // data ended first with all equal so far.
  Match Literal(const char *text, size_t n) {
    for (size_t i = 0; i < n; ++i) {
      if (AtEnd()) {
        return OutOfBytes();
      }
      if (Peek() != static_cast<unsigned char>(text[i])) {
        return Match::kNo;
      }
      Skip();
    }
    return Match::kYes;
  }

  Match Digits(int n) {
    for (int i = 0; i < n; ++i) {
      if (AtEnd()) {
        return OutOfBytes();
      }
      if (Peek() < '0' || Peek() > '9') {
        return Match::kNo;
      }
      Skip();
    }
    return Match::kYes;
  }

  // "\r\n" or a bare "\n".
  Match LineEnd() {
    if (AtEnd()) {
      return OutOfBytes();
    }
    if (Peek() == '\n') {
      Skip();
      return Match::kYes;
    }
    return Literal("\r\n", 2);
  }

  // Visible text up to the line's end; tabs allowed, other controls not.
  Match Rest() {
    while (!AtEnd()) {
      const unsigned char b = Peek();
      if (b == '\r' || b == '\n') {
        return LineEnd();
      }
      if ((b < 0x20 && b != '\t') || b == 0x7f) {
        return Match::kNo;
      }
      Skip();
    }
    return OutOfBytes();
  }

private:
  // Blanks, controls and DEL end a run of visible bytes.
  static bool Stops(unsigned char b) { return b <= 0x20 || b == 0x7f; }

  FlowBytes m_bytes;
  uint64_t m_pos;
  uint64_t m_end;
  bool m_limited;
};

} // namespace oru::kit

#endif
