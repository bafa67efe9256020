// SipHash-2-4: a keyed 64-bit hash, so that addresses an attacker chooses
// cannot pile connections into one bucket of a table whose key they do not
// know.
#ifndef KEST_DECODERS_SIPHASH_H
#define KEST_DECODERS_SIPHASH_H

#include <stddef.h>
#include <stdint.h>

namespace kest_decoders {

struct SipKey {
  uint64_t k0;
  uint64_t k1;
};

uint64_t SipHash24(const SipKey &key, const uint8_t *data, size_t length);

// A key from the system's random source, or from the clock and addresses
// when that fails.
SipKey RandomSipKey();

} // namespace kest_decoders

#endif
