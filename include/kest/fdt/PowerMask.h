// The size ladders of the strings and vectors. Growth runs through capacities
// one less than a power of two (16, 31, 63, ...), so a container that grows by
// one element at a time never lands on a power of two; an explicit reserve of
// an exact power of two gets exactly that.
#ifndef KEST_FDT_POWERMASK_H
#define KEST_FDT_POWERMASK_H

#include <stddef.h>
#include <stdint.h>

namespace oru::fdt {

// x with every bit below its highest set bit set; 0 for 0.
constexpr uint32_t next_power_mask(uint32_t x) {
  x |= x >> 1;
  x |= x >> 2;
  x |= x >> 4;
  x |= x >> 8;
  x |= x >> 16;
  return x;
}

// Capacity that reserve(n) asks for, n > 0: the larger of n and the mask of
// n - 1. Counts beyond 32 bits are taken as they are.
constexpr size_t reserve_target(size_t n) {
  if (n - 1 > UINT32_MAX) {
    return n;
  }
  const size_t mask = next_power_mask(static_cast<uint32_t>(n - 1));
  return mask > n ? mask : n;
}

// Capacity for room for one more element when the block is full; 0 when the
// next step would not fit the 32-bit ladder.
constexpr size_t growth_step_target(size_t capacity) {
  if (capacity == 0) {
    return 16;
  }
  if (capacity > (static_cast<size_t>(UINT32_MAX) + 1) / 2) {
    return 0;
  }
  return next_power_mask(static_cast<uint32_t>(2 * capacity - 1));
}

// Capacity for room for `total` elements when the block holds `capacity`
// (less than total): the reserve target of total, but at least one step of
// the growth ladder, so that growing by small amounts stays on the ladder.
constexpr size_t room_target(size_t capacity, size_t total) {
  const size_t reserve = reserve_target(total);
  const size_t step = growth_step_target(capacity);
  return step > reserve ? step : reserve;
}

// Capacity that shrinking to `size` elements leaves, computed in 32 bits: the
// power of two at or above size, and 0 for size 0, where the block goes.
constexpr uint32_t shrink_target(uint32_t size) {
  return next_power_mask(size - 1u) + 1u;
}

} // namespace oru::fdt

#endif
