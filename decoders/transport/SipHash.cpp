#include "transport/SipHash.h"

#include <string.h>
#include <sys/random.h>
#include <time.h>

namespace kest_decoders {

namespace {

uint64_t Rotl(uint64_t x, int b) {
  return (x << b) | (x >> (64 - b));
}

struct State {
  uint64_t v0, v1, v2, v3;

  void Round() {
    v0 += v1;
    v1 = Rotl(v1, 13);
    v1 ^= v0;
    v0 = Rotl(v0, 32);
    v2 += v3;
    v3 = Rotl(v3, 16);
    v3 ^= v2;
    v0 += v3;
    v3 = Rotl(v3, 21);
    v3 ^= v0;
    v2 += v1;
    v1 = Rotl(v1, 17);
    v1 ^= v2;
    v2 = Rotl(v2, 32);
  }
  void Absorb(uint64_t m, int rounds) {
    v3 ^= m;
    for (int r = 0; r < rounds; ++r) {
      Round();
    }
    v0 ^= m;
  }
  uint64_t Finish(int rounds) {
    v2 ^= 0xFF;
    for (int r = 0; r < rounds; ++r) {
      Round();
    }
    return v0 ^ v1 ^ v2 ^ v3;
  }
};

State Start(const SipKey &key) {
  return State{key.k0 ^ 0x736f6d6570736575ull, key.k1 ^ 0x646f72616e646f6dull,
               key.k0 ^ 0x6c7967656e657261ull, key.k1 ^ 0x7465646279746573ull};
}

uint64_t Le64(const uint8_t *p) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) {
    v = v << 8 | p[i];
  }
  return v;
}

} // namespace

uint64_t SipHash(const SipKey &key, const uint8_t *data, size_t length, int c, int d) {
  State s = Start(key);
  size_t i = 0;
  for (; i + 8 <= length; i += 8) {
    s.Absorb(Le64(data + i), c);
  }
  uint64_t last = static_cast<uint64_t>(length & 0xFF) << 56;
  for (size_t j = 0; i + j < length; ++j) {
    last |= static_cast<uint64_t>(data[i + j]) << (8 * j);
  }
  s.Absorb(last, c);
  return s.Finish(d);
}

uint64_t SipHash24(const SipKey &key, const uint8_t *data, size_t length) {
  return SipHash(key, data, length, 2, 4);
}

uint64_t SipHash13(const SipKey &key, const uint64_t *words, size_t count) {
  State s = Start(key);
  for (size_t i = 0; i < count; ++i) {
    s.Absorb(words[i], 1);
  }
  s.Absorb(static_cast<uint64_t>((count * 8) & 0xFF) << 56, 1);
  return s.Finish(3);
}

SipKey RandomSipKey() {
  SipKey key{0, 0};
  if (getrandom(&key, sizeof key, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof key)) {
    return key;
  }
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  key.k0 = static_cast<uint64_t>(now.tv_nsec) * 0x9E3779B97F4A7C15ull ^
           reinterpret_cast<uintptr_t>(&key);
  key.k1 = static_cast<uint64_t>(now.tv_sec) ^ reinterpret_cast<uintptr_t>(&RandomSipKey);
  return key;
}

} // namespace kest_decoders
