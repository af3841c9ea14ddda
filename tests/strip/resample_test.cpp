#include "strip/resample.h"

#include <gtest/gtest.h>

#include <cmath>

#include "volumes.h"

namespace {

using namespace test_volumes;

TEST(Resample, KeepsConstantsEverywhereAndRampsInside) {
  const Grid from{{20, 18, 9}, {0.9, 1.1, 2.2}};
  for (const double mm : {0.5, 1.0, 2.0}) {
    const Grid to = isotropicGrid(from, mm);
    for (int d = 0; d < 3; ++d)
      EXPECT_NEAR(to.size[d] * mm, from.size[d] * from.spacing[d], mm / 2 + 1e-9);
    for (const double value : resample(sampled(from, [](auto...) { return 7.0; }), from, to))
      EXPECT_NEAR(value, 7, 1e-12);
    const auto ramp = [](double x, double y, double z) { return 3 * x - 2 * y + 5 * z + 1; };
    const auto found = resample(sampled(from, ramp), from, to), wanted = sampled(to, ramp);
    const auto inner = sampled(to, [](double x, double y, double z) {
      return std::abs(x) < 5.5 && std::abs(y) < 6 && std::abs(z) < 5.5;
    });
    double worst = 0;
    for (std::size_t v = 0; v < wanted.size(); ++v)
      worst = std::max(worst, inner[v] * std::abs(found[v] - wanted[v]));
    // Widened triangles keep a ramp only to a fraction of a voxel.
    EXPECT_LT(worst, mm < 0.9 ? 1e-9 : 0.3);
  }
}

TEST(Resample, MaskOfABallStaysABall) {
  const Grid coarse{{24, 24, 24}, {2, 2, 2}}, fine{{60, 40, 16}, {0.8, 1.2, 3}};
  const auto ball = [](auto... p) { return char(std::hypot(p...) < 15); };
  EXPECT_GT(dice(resampleMask(sampled(coarse, ball), coarse, fine), sampled(fine, ball)), 0.97);
  for (const char all : {0, 1})
    EXPECT_EQ(resampleMask(std::vector<char>(24 * 24 * 24, all), coarse, fine),
              std::vector<char>(60 * 40 * 16, all));
}

TEST(Resample, RefusesGridsThatAreTooLarge) {
  EXPECT_THROW(isotropicGrid({{200, 200, 200}, {10, 10, 10}}, 0.1), std::length_error);
  EXPECT_EQ(isotropicGrid({{3, 4, 5}, {0.1, 0.1, 0.1}}, 10).size, (Size{1, 1, 1}));
}

}  // namespace
