#include <kest.h>
#include <kest/Entropy.h>
#include <kest/Monte.h>

namespace oru {

namespace {

constexpr double kPi = 3.141592653589793;
// 65535 squared: the quarter circle's radius is the square's side.
constexpr double kRadiusSquared = 4294836225.0;

} // namespace

Monte::Monte() : bytes{}, inside(0), total(0), index(0) {}

Monte &Monte::operator+=(const unsigned char &byte) {
  bytes[index] = byte;
  if (++index == 4) {
    index = 0;
    const double x = bytes[0] * 256.0 + bytes[1];
    const double y = bytes[2] * 256.0 + bytes[3];
    if (x * x + y * y <= kRadiusSquared) {
      ++inside;
    }
  }
  ++total;
  return *this;
}

double Monte::PI() const {
  // Before four bytes the divisor is 0: IEEE division gives NaN or infinity,
  // which is what the estimate is then.
  return inside * 4.0 / static_cast<double>(total >> 2);
}

unsigned char Monte::Randomness() const {
  return PercentByte(100.0 + -100.0 * kest_fabs(kPi - PI()) / kPi);
}

} // namespace oru
