// A flow buffer filled from a fuzzer's bytes in pieces whose sizes the input
// chooses, each piece in an allocation of its own so that a read past a
// block's end trips AddressSanitizer.
#ifndef KEST_FUZZ_FUZZFLOW_H
#define KEST_FUZZ_FUZZFLOW_H

#include "FuzzInput.h"

#include <kest/FlowBuffer.h>
#include <stdlib.h>
#include <string.h>

namespace kest_fuzz {

class FuzzFlow {
public:
  FuzzFlow() = default;
  FuzzFlow(const FuzzFlow &) = delete;
  FuzzFlow &operator=(const FuzzFlow &) = delete;
  ~FuzzFlow() {
    flow.Reset();
    for (int i = 0; i < m_count; ++i) {
      free(m_pieces[i]);
    }
  }

  // Appends up to `max` bytes of the input as one block; false at its end.
  bool Feed(FuzzInput &in, size_t max) {
    size_t length = 0;
    const uint8_t *bytes = in.Run(max, &length);
    if (length == 0 || m_count == kPieces) {
      return false;
    }
    char *piece = static_cast<char *>(malloc(length));
    memcpy(piece, bytes, length);
    m_pieces[m_count++] = piece;
    const uint64_t at = flow.m_next_pos;
    flow.AddBlock(at, piece, static_cast<uint16_t>(length), false);
    flow.m_last_start = at;
    flow.m_next_pos = at + length;
    return true;
  }

  oru::FlowBuffer flow;

private:
  static constexpr int kPieces = 64;
  char *m_pieces[kPieces];
  int m_count = 0;
};

} // namespace kest_fuzz

#endif
