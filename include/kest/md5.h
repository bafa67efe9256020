// The MD5 message digest (RFC 1321), offered to plug-ins with its customary
// three-call interface. The library itself does not use it.
#ifndef KEST_MD5_H
#define KEST_MD5_H

#include <kest/Export.h>
#include <stddef.h>
#include <stdint.h>

#define MD5_DIGEST_LENGTH 16

namespace oru {

struct MD5_CTX {
  uint32_t state[4];
  // Message length in bits, modulo 2^64: low word first.
  uint32_t count[2];
  // Bytes of the current, not yet complete 64-byte block.
  unsigned char buffer[64];
};

// Each returns 1, or 0 for a null context (or null digest).
KEST_API int MD5_Init(MD5_CTX *ctx);
KEST_API int MD5_Update(MD5_CTX *ctx, const void *data, size_t len);
// Writes the 16-byte digest and wipes the context; start again with MD5_Init.
KEST_API int MD5_Final(unsigned char md[MD5_DIGEST_LENGTH], MD5_CTX *ctx);

} // namespace oru

#endif
