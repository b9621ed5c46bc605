#include "xml/exact_fmod.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>

namespace {

using Limits = std::numeric_limits<double>;

// Wider numbers hold every double, so their remainder is exact. It is also another function, which
// the link leaves as it is.
double expected(double x, double y) {
  return static_cast<double>(std::fmod(static_cast<long double>(x), static_cast<long double>(y)));
}

void expect_exact(double x, double y) {
  const double found = norvak_exact_fmod(x, y);
  EXPECT_EQ(found, expected(x, y)) << x << " mod " << y;
  EXPECT_EQ(std::signbit(found), std::signbit(x)) << x << " mod " << y;
}

double any_double(std::mt19937_64& random) {
  double value = 0;
  const std::uint64_t bits = random();
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

TEST(ExactFmod, HasTheSignOfTheDividend) {
  EXPECT_EQ(norvak_exact_fmod(7, 3), 1);
  EXPECT_EQ(norvak_exact_fmod(-7, 3), -1);
  EXPECT_EQ(norvak_exact_fmod(7, -3), 1);
  EXPECT_EQ(norvak_exact_fmod(1.5, 0.5), 0);
  EXPECT_TRUE(std::signbit(norvak_exact_fmod(-6, 3)));
}

TEST(ExactFmod, IsExactAtTheLimitsOfDouble) {
  const double values[] = {Limits::denorm_min(),
                           3 * Limits::denorm_min(),
                           7 * Limits::denorm_min(),
                           Limits::min(),
                           Limits::epsilon(),
                           0.1,
                           1,
                           1 + Limits::epsilon(),
                           1e17,
                           Limits::max() / 2,
                           Limits::max()};
  for (const double x : values) {
    for (const double y : values) {
      expect_exact(x, y);
      expect_exact(-x, y);
    }
    expect_exact(0, x);
    expect_exact(-0.0, x);
    expect_exact(x, Limits::infinity());
  }
}

TEST(ExactFmod, IsExactForAnyNumbers) {
  std::mt19937_64 random(1321);
  for (int i = 0; i < 2000; ++i) {
    const double x = any_double(random);
    const double y = any_double(random);
    if (std::isfinite(x) && std::isfinite(y) && y != 0) expect_exact(x, y);
  }
}

TEST(ExactFmod, IsNotANumberWhereThereIsNoRemainder) {
  const double nan = Limits::quiet_NaN();
  EXPECT_TRUE(std::isnan(norvak_exact_fmod(1, 0)));
  EXPECT_TRUE(std::isnan(norvak_exact_fmod(0, 0)));
  EXPECT_TRUE(std::isnan(norvak_exact_fmod(Limits::infinity(), 1)));
  EXPECT_TRUE(std::isnan(norvak_exact_fmod(-Limits::infinity(), Limits::infinity())));
  EXPECT_TRUE(std::isnan(norvak_exact_fmod(nan, 1)));
  EXPECT_TRUE(std::isnan(norvak_exact_fmod(1, nan)));
}

}  // namespace
