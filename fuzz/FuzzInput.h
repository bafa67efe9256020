// Reads a fuzzer's bytes as a script: small numbers and short byte runs, with
// zeros once the input is used up, so that every input is a whole script.
#ifndef KEST_FUZZ_FUZZINPUT_H
#define KEST_FUZZ_FUZZINPUT_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace kest_fuzz {

class FuzzInput {
public:
  FuzzInput(const uint8_t *data, size_t size) : m_data(data), m_left(size) {}

  bool empty() const { return m_left == 0; }

  uint8_t Byte() {
    if (m_left == 0) {
      return 0;
    }
    --m_left;
    return *m_data++;
  }

  // High byte first. The two reads are sequenced: the operands of | are not.
  uint16_t Word() {
    const uint8_t high = Byte();
    return static_cast<uint16_t>(high << 8 | Byte());
  }

  // Up to `max` bytes, the count taken from the input; points into the input.
  const uint8_t *Run(size_t max, size_t *length) { return Take(Byte(), max, length); }

  // The same with a two-byte count, for packets longer than 255 bytes.
  const uint8_t *LongRun(size_t max, size_t *length) { return Take(Word(), max, length); }

  // A NUL-terminated text of up to `capacity - 1` bytes, copied into `out`.
  const char *Text(char *out, size_t capacity) {
    size_t length = 0;
    const uint8_t *run = Run(capacity - 1, &length);
    memcpy(out, run, length);
    out[length] = '\0';
    return out;
  }

private:
  const uint8_t *Take(size_t wanted, size_t max, size_t *length) {
    if (wanted > max) {
      wanted = max;
    }
    if (wanted > m_left) {
      wanted = m_left;
    }
    const uint8_t *start = m_data;
    m_data += wanted;
    m_left -= wanted;
    *length = wanted;
    return start;
  }

  const uint8_t *m_data;
  size_t m_left;
};

} // namespace kest_fuzz

#endif
