// Decodes Base64 text (RFC 4648, "+" and "/") that lies in a FlowBuffer,
// reading it in place. Set the fields, ask GetDecodedLen for the room, then
// Decode. Carriage returns and newlines are skipped anywhere in the range.
// Positions are 32-bit: the first 4 GiB of a stream.
#ifndef KEST_BASE64DECODER_H
#define KEST_BASE64DECODER_H

#include <kest/Export.h>
#include <kest/FlowBuffer.h>
#include <stdint.h>

namespace oru {

// Layout fixed: flow, counted, encoded_length, start, end.
class KEST_API Base64Decoder {
public:
  Base64Decoder() : flow(nullptr), counted(false), encoded_length(0), start(0), end(0) {}
  Base64Decoder(const FlowBuffer *f, uint32_t s, uint32_t e)
      : flow(f), counted(false), encoded_length(0), start(s), end(e) {}

  // Room that Decode needs, terminator included: 3 bytes per 4 encoded ones
  // (not reduced for padding), plus 1. 0 when the encoded length (line ends
  // not counted) is no multiple of 4, or the padding is wrong ("=" four
  // bytes from the end, or more than two at the end).
  unsigned int GetDecodedLen();
  // Writes the decoded bytes and a terminating zero into `out`, which has
  // GetDecodedLen() bytes. False for a null `out`, a byte outside the
  // alphabet, or padding other than one or two "=" at the end (line ends
  // may follow); `out` is then left half written.
  bool Decode(char *out);

  const FlowBuffer *flow;
  // Whether encoded_length is known.
  bool counted;
  uint32_t encoded_length;
  // The range [start, end) of stream positions.
  uint32_t start;
  uint32_t end;
};

} // namespace oru

#endif
