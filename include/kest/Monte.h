// How random a run of bytes looks by a Monte Carlo estimate of pi: each four
// bytes make a point (two big-endian 16-bit coordinates) in a square of side
// 65535, and the share of points inside the quarter circle tends to pi/4 for
// uniform data. Randomness() says how close the estimate lands, as a
// percentage.
//
// Fixed in size, allocates nothing. `total` is 16 bits and wraps.
#ifndef KEST_MONTE_H
#define KEST_MONTE_H

#include <kest/Export.h>
#include <stdint.h>

namespace oru {

// Layout fixed: bytes, inside, total, index.
class KEST_API Monte {
public:
  Monte();

  // Adds a byte; every fourth completes a point.
  Monte &operator+=(const unsigned char &byte);
  // The estimate: inside * 4 / (total >> 2). Before the first point the
  // divisor is 0 and the result is whatever the division gives (not a
  // number or infinite).
  double PI() const;
  // 100 - 100 * |pi - PI()| / pi as a byte (PercentByte in Entropy.h): an
  // estimate off by more than pi reads above 100, one that is not a number
  // reads 0.
  unsigned char Randomness() const;

  unsigned char bytes[4];
  uint16_t inside;
  uint16_t total;
  uint32_t index;
};

} // namespace oru

#endif
