// The HTTP/2 decoder's HPACK reader on any bytes: header blocks decoded one
// after the other on one context, each from a copy of exactly its size so
// that a read past it shows, then the Huffman decoder alone on the last
// block with little room. Every field it gives fits its scratch, and the
// dynamic table keeps within its bounds.
//
// Input: header blocks, each a run with a two-byte length.
#include "FuzzInput.h"
#include "http2/Hpack.h"

#include <kest_host.h>
#include <new>
#include <stdlib.h>
#include <string.h>

namespace {

using kest_http2::HpackDecoder;

void Check(void *, const kest_http2::HpackField &field) {
  if (field.name_length > HpackDecoder::kMaxString ||
      field.value_length > HpackDecoder::kMaxString) {
    abort();
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool hooks = (kest_host_use_libc(), true);
  (void)hooks;
  HpackDecoder *decoder = static_cast<HpackDecoder *>(calloc(1, sizeof(HpackDecoder)));
  HpackDecoder::Scratch *scratch =
      static_cast<HpackDecoder::Scratch *>(malloc(sizeof(HpackDecoder::Scratch)));
  if (decoder == nullptr || scratch == nullptr) {
    free(decoder);
    free(scratch);
    return 0;
  }
  new (decoder) HpackDecoder();
  kest_fuzz::FuzzInput in(data, size);
  uint8_t *copy = nullptr;
  size_t length = 0;
  while (!in.empty()) {
    const uint8_t *block = in.LongRun(0xffff, &length);
    free(copy);
    copy = static_cast<uint8_t *>(malloc(length == 0 ? 1 : length));
    if (copy == nullptr) {
      break;
    }
    memcpy(copy, block, length);
    const bool ok = decoder->Block(copy, length, *scratch, Check, nullptr);
    // Every entry counts 32 beyond its bytes: a measure below that has lost
    // track of what the table holds.
    if (ok == decoder->Broken() || decoder->Size() > HpackDecoder::kTableBytes ||
        decoder->Entries() > HpackDecoder::kMaxEntries ||
        decoder->Size() < 32 * decoder->Entries()) {
      abort();
    }
  }
  if (copy != nullptr) {
    uint8_t room[16];
    const long n = HpackDecoder::Huffman(copy, length, room, sizeof room);
    if (n > static_cast<long>(sizeof room)) {
      abort();
    }
  }
  free(copy);
  free(decoder);
  free(scratch);
  return 0;
}
