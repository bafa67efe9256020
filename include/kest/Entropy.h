// How random a run of bytes looks by its byte distribution: a histogram and
// its Shannon entropy, as a percentage of the 8 bits a byte can carry.
//
// Fixed in size, allocates nothing: put it on the stack, add bytes by
// incrementing counts[byte] and total, then ask. Both counters are 16 bits
// and wrap without a check, so a run means something up to 65,535 bytes.
#ifndef KEST_ENTROPY_H
#define KEST_ENTROPY_H

#include <kest/Export.h>
#include <stdint.h>

namespace oru {

// Turns a percentage computed in floating point into the byte the measures
// report: cut toward zero to a signed 16-bit value, low 8 bits kept, so a
// negative percentage reads as a byte above 100. A value that no 16-bit
// integer holds (not a number, infinite, out of range) gives 0.
KEST_API unsigned char PercentByte(double percent);

// Layout fixed: counts, then total.
class KEST_API Entropy {
public:
  Entropy();

  // Bits of entropy per byte of the histogram, 0.0 to 8.0; 0.0 when empty.
  double ID() const;
  // The place for a small-sample correction; deliberately 0.0 for any n.
  static double PaninskiBias(double n);
  // (ID() + PaninskiBias(total)) / 8 as a percentage: 8 bits per byte is 100.
  unsigned char Randomness() const;

  uint16_t counts[256];
  uint16_t total;
};

} // namespace oru

#endif
