#include <kest.h>
#include <kest/Entropy.h>

namespace oru {

namespace {

constexpr double kLn2 = 0.6931471805599453;

} // namespace

unsigned char PercentByte(double percent) {
  // Truncation to an integer is only defined for values that fit; NaN fails
  // both comparisons.
  if (!(percent > -32769.0 && percent < 32768.0)) {
    return 0;
  }
  return static_cast<unsigned char>(static_cast<int16_t>(percent));
}

Entropy::Entropy() : counts{}, total(0) {}

double Entropy::ID() const {
  double h = 0.0;
  for (int value = 0; value < 256; ++value) {
    if (counts[value] != 0) {
      const double p = static_cast<double>(counts[value]) / static_cast<double>(total);
      h += kest_log(1.0 / p) / kLn2 * p;
    }
  }
  return h;
}

double Entropy::PaninskiBias(double /*n*/) {
  return 0.0;
}

unsigned char Entropy::Randomness() const {
  return PercentByte((ID() + PaninskiBias(total)) * 0.125 * 100.0);
}

} // namespace oru
