// The DNS message reader on any bytes: no read outside them, and whatever it
// reports is whole text within its buffers. A message it takes for DNS must
// have the header it checked.
#include "dns/DnsMessage.h"

#include <stdlib.h>
#include <string.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // A block of exactly the input's size, so that a read past the end is one
  // past the block.
  uint8_t *copy = static_cast<uint8_t *>(malloc(size != 0 ? size : 1));
  if (copy == nullptr) {
    return 0;
  }
  if (size != 0) {
    memcpy(copy, data, size);
  }
  static kest_dns::Summary summary;
  const kest_dns::Verdict verdict = kest_dns::Parse(copy, size, summary);
  if (summary.query_length >= sizeof summary.query ||
      summary.answers_length >= sizeof summary.answers ||
      strlen(summary.query) != summary.query_length ||
      strlen(summary.answers) != summary.answers_length ||
      (verdict != kest_dns::Verdict::kNotDns &&
       (size < kest_dns::kHeaderSize || !kest_dns::PlausibleStart(copy, size, size)))) {
    abort();
  }
  // Every question it kept reads back as a whole name.
  static char name[kest_dns::kNameText];
  for (unsigned i = 0; verdict != kest_dns::Verdict::kNotDns && i < summary.question_count; ++i) {
    const size_t n = kest_dns::QuestionName(copy, size, summary.questions[i], name, sizeof name);
    if (n == 0 || n >= sizeof name || strlen(name) != n) {
      abort();
    }
  }
  // The header check alone, as a stream waiting for the rest of a message
  // does it.
  const size_t length = size >= 2 ? static_cast<size_t>(copy[0] << 8 | copy[1]) : 0;
  if (size >= 2) {
    kest_dns::PlausibleStart(copy + 2, size - 2, length);
  }
  char word[16];
  kest_dns::FormatType(static_cast<uint16_t>(length), word, sizeof word);
  kest_dns::FormatRcode(static_cast<uint16_t>(length & 0xFFF), word, sizeof word);
  free(copy);
  return 0;
}
