// SHA-256 (FIPS 180-4), small and self-contained: the fingerprint of a
// ClientHello hashes short lists of numbers, and the SDK offers only MD5.
// No allocation; a context lives wherever the caller puts it.
#ifndef KEST_DECODERS_TLS_SHA256_H
#define KEST_DECODERS_TLS_SHA256_H

#include <stddef.h>
#include <stdint.h>

namespace kest_tls {

class Sha256 {
public:
  static constexpr size_t kDigestSize = 32;

  Sha256() { Reset(); }
  void Reset();
  void Update(const void *data, size_t length);
  // Writes the digest; the context must be Reset before it is used again.
  void Final(uint8_t digest[kDigestSize]);

  // One call for a whole message.
  static void Hash(const void *data, size_t length, uint8_t digest[kDigestSize]);

private:
  void Block(const uint8_t *block);

  uint32_t m_state[8];
  uint64_t m_bits;
  uint8_t m_buffer[64];
  size_t m_used;
};

} // namespace kest_tls

#endif
