#include "xml/exact_fmod.h"

#include <cmath>
#include <limits>

double norvak_exact_fmod(double x, double y) noexcept {
  if (!std::isfinite(x) || std::isnan(y) || y == 0) return std::numeric_limits<double>::quiet_NaN();
  // Doubling is exact, and so is a difference of numbers of which one is at most twice the other.
  const double divisor = std::fabs(y);
  double remainder = std::fabs(x);
  while (remainder >= divisor) {
    double multiple = divisor;
    while (multiple + multiple <= remainder) multiple += multiple;
    remainder -= multiple;
  }
  return std::copysign(remainder, x);
}
