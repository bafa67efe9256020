// SipHash: a keyed 64-bit hash, so that addresses an attacker chooses
// cannot pile connections into one bucket of a table whose key they do not
// know. Tables use SipHash-1-3 (one round per word, three to finish), the
// variant hash tables of general-purpose languages settled on: a per-packet
// look-up cannot afford the fourteen rounds of SipHash-2-4 on a 36-byte key.
#ifndef KEST_DECODERS_SIPHASH_H
#define KEST_DECODERS_SIPHASH_H

#include <stddef.h>
#include <stdint.h>

namespace kest_decoders {

struct SipKey {
  uint64_t k0;
  uint64_t k1;
};

// SipHash-c-d of `length` bytes.
uint64_t SipHash(const SipKey &key, const uint8_t *data, size_t length, int c, int d);
uint64_t SipHash24(const SipKey &key, const uint8_t *data, size_t length);
// SipHash-1-3 of `count` words, equal to SipHash(key, bytes, 8 * count, 1, 3)
// of their little-endian bytes, without the bytes.
uint64_t SipHash13(const SipKey &key, const uint64_t *words, size_t count);

// A key from the system's random source, or from the clock and addresses
// when that fails.
SipKey RandomSipKey();

} // namespace kest_decoders

#endif
