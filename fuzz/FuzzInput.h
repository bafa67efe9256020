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

  uint16_t Word() { return static_cast<uint16_t>(Byte() << 8 | Byte()); }

  // Up to `max` bytes, the count taken from the input; points into the input.
  const uint8_t *Run(size_t max, size_t *length) {
    size_t wanted = Byte();
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

  // A NUL-terminated text of up to `capacity - 1` bytes, copied into `out`.
  const char *Text(char *out, size_t capacity) {
    size_t length = 0;
    const uint8_t *run = Run(capacity - 1, &length);
    memcpy(out, run, length);
    out[length] = '\0';
    return out;
  }

private:
  const uint8_t *m_data;
  size_t m_left;
};

} // namespace kest_fuzz

#endif
