// The TLS hello parser and record assembler. The first input byte picks the
// piece size the stream is fed in; the rest is one side's stream. Checks:
// no crash, no read outside the input; the assembler's message is the same
// whether fed whole or in pieces; whatever parses yields a fingerprint of
// fixed shape. The bytes are also handed to ParseHello as one message.
#include "tls/TlsFingerprint.h"
#include "tls/TlsHello.h"

#include <kest_host.h>
#include <stdlib.h>
#include <string.h>

namespace {

void Check(const uint8_t *message, size_t length) {
  static kest_tls::HelloInfo hello;
  if (kest_tls::ParseHello(message, length, hello) != kest_tls::ParseStatus::kOk) {
    return;
  }
  if (hello.server_name[hello.server_name_length] != '\0' ||
      hello.alpn[hello.alpn_length] != '\0') {
    abort();
  }
  char fingerprint[kest_tls::kFingerprintSize];
  kest_tls::ClientFingerprint(hello, fingerprint);
  if (strlen(fingerprint) != kest_tls::kFingerprintSize - 1) {
    abort();
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool hooks = (kest_host_use_libc(), true);
  (void)hooks;
  if (size == 0) {
    return 0;
  }
  const size_t piece = data[0] % 32 + 1;
  const uint8_t *stream = data + 1;
  const size_t length = size - 1;
  Check(stream, length);

  kest_tls::HelloAssembler whole;
  whole.Feed(stream, length);
  kest_tls::HelloAssembler pieces;
  for (size_t i = 0; i < length; i += piece) {
    pieces.Feed(stream + i, piece < length - i ? piece : length - i);
  }
  if (whole.GetState() != pieces.GetState() || whole.MessageLength() != pieces.MessageLength() ||
      (whole.Message() != nullptr &&
       memcmp(whole.Message(), pieces.Message(), whole.MessageLength()) != 0)) {
    abort();
  }
  if (whole.Message() != nullptr) {
    Check(whole.Message(), whole.MessageLength());
  }
  return 0;
}
