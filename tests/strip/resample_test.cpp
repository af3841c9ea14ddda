#include "strip/resample.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

namespace {

using namespace tavrel::strip;

/// f at the millimetre positions of a grid's voxels, counted from the grid's centre.
template <class F>
auto sampled(const Grid& grid, F&& f) {
  std::vector<decltype(f(0.0, 0.0, 0.0))> values;
  const auto mm = [&](int d, int i) { return (i - (grid.size[d] - 1) / 2.0) * grid.spacing[d]; };
  for (int z = 0; z < grid.size[2]; ++z)
    for (int y = 0; y < grid.size[1]; ++y)
      for (int x = 0; x < grid.size[0]; ++x) values.push_back(f(mm(0, x), mm(1, y), mm(2, z)));
  return values;
}

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
  const auto ball = [](double x, double y, double z) {
    return char(x * x + y * y + z * z < 15 * 15);
  };
  const auto found = resampleMask(sampled(coarse, ball), coarse, fine);
  const auto wanted = sampled(fine, ball);
  double both = 0, sum = 0;
  for (std::size_t v = 0; v < wanted.size(); ++v)
    both += found[v] & wanted[v], sum += found[v] + wanted[v];
  EXPECT_GT(2 * both / sum, 0.97);
  const auto count = [](const auto& mask) { return std::accumulate(mask.begin(), mask.end(), 0); };
  EXPECT_EQ(count(resampleMask(sampled(coarse, [](auto...) { return char(0); }), coarse, fine)), 0);
  EXPECT_EQ(count(resampleMask(sampled(coarse, [](auto...) { return char(1); }), coarse, fine)),
            60 * 40 * 16);
}

TEST(Resample, RefusesGridsThatAreTooLarge) {
  EXPECT_THROW(isotropicGrid({{200, 200, 200}, {10, 10, 10}}, 0.1), std::length_error);
  EXPECT_EQ(isotropicGrid({{3, 4, 5}, {0.1, 0.1, 0.1}}, 10).size, (Size{1, 1, 1}));
}

}  // namespace
