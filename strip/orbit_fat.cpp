#include "orbit_fat.h"

#include "morphology.h"

namespace tavrel::strip {
namespace {

// Lengths in mm.
constexpr double kFront = 20, kBelow = 10;  // of the head's middle: where the orbits begin
constexpr double kCoreDepth = 10, kSurroundings = 32;
constexpr double kBright = 1.1;  // times white matter

using Point = std::array<double, 3>;  // in voxels

/// Number of voxels, and sums over them that are exact.
struct Moments {
  std::int64_t n = 0, value = 0;
  std::array<std::int64_t, 3> place = {}, placeValue = {};
  std::array<std::array<std::int64_t, 3>, 3> places = {};
};

/// Intensities as a linear function of the place.
struct Trend {
  double mean = 0;
  Point centre = {}, slope = {};
  double at(int x, int y, int z) const {
    return mean + slope[0] * (x - centre[0]) + slope[1] * (y - centre[1]) +
           slope[2] * (z - centre[2]);
  }
};

double determinant(const std::array<Point, 3>& m) {
  return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
         m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
         m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

/// The least-squares fit to the voxels of a mask. Constant where these lie in a plane.
Trend fittedTrend(const LevelImage& image, const BitVolume& mask) {
  Moments m;
  forVoxels(mask, [&](int x, int y, int z) {
    const std::array<std::int64_t, 3> p = {x, y, z};
    const std::int64_t v = image.value(x, y, z);
    ++m.n;
    m.value += v;
    for (int d = 0; d < 3; ++d) {
      m.place[d] += p[d];
      m.placeValue[d] += p[d] * v;
      for (int e = 0; e < 3; ++e) m.places[d][e] += p[d] * p[e];
    }
  });
  Trend trend;
  if (m.n == 0) return trend;
  const double n = double(m.n);
  trend.mean = double(m.value) / n;
  std::array<Point, 3> covariance;
  Point withValue;
  for (int d = 0; d < 3; ++d) {
    trend.centre[d] = double(m.place[d]) / n;
    withValue[d] = double(m.placeValue[d]) / n - trend.centre[d] * trend.mean;
  }
  for (int d = 0; d < 3; ++d)
    for (int e = 0; e < 3; ++e)
      covariance[d][e] = double(m.places[d][e]) / n - trend.centre[d] * trend.centre[e];
  const double whole = determinant(covariance);
  if (!(whole > 1e-6)) return trend;
  for (int d = 0; d < 3; ++d) {  // Cramer's rule
    auto replaced = covariance;
    for (int e = 0; e < 3; ++e) replaced[e][d] = withValue[e];
    trend.slope[d] = determinant(replaced) / whole;
  }
  return trend;
}

/// Those of a brain's voxels that are brighter than its trend: white matter, and half of the grey
/// matter where there is much noise.
BitVolume whiteMatter(const LevelImage& image, const BitVolume& core) {
  const Trend trend = fittedTrend(image, core);
  BitVolume bright(core.size());
  forVoxels(core, [&](int x, int y, int z) {
    if (image.value(x, y, z) >= trend.at(x, y, z)) bright.set(x, y, z);
  });
  return bright;
}

/// Means over windows of white matter, carried on to their middles along the trend.
class LocalWhite {
 public:
  LocalWhite(const LevelImage& image, const BitVolume& white)
      : image_(image), trend_(fittedTrend(image, white)) {
    WindowSums windows;
    const Box all = {{0, 0, 0}, image.blocks()};
    const int reach = int(kSurroundings / (image.block() * image.grid().spacing[0]));
    windows(image.blockSums(image.withBorder(white)), image.blocks(), reach, all, values_);
    std::array<std::vector<CountedSum>, 3> sums;
    for (auto& of : sums) of.assign(voxelCount(image.blocks()), 0);
    forVoxels(white, [&](int x, int y, int z) {
      const std::size_t block = image.blockOf(x, y, z);
      const std::array<int, 3> p = {x, y, z};
      for (int d = 0; d < 3; ++d) sums[d][block] += counted(p[d]);
    });
    for (int d = 0; d < 3; ++d) windows(sums[d], image.blocks(), reach, all, places_[d]);
  }

  /// At a voxel; 0 where there is no white matter around.
  double at(int x, int y, int z) const {
    const std::size_t block = image_.blockOf(x, y, z);
    if (countOf(values_[block]) == 0) return 0;
    const std::array<int, 3> p = {x, y, z};
    double steps = 0;  // of the trend, as a share of its mean
    for (int d = 0; d < 3; ++d)
      steps += trend_.slope[d] * (p[d] - meanOf(places_[d][block])) / trend_.mean;
    return meanOf(values_[block]) * (1 + steps);
  }

 private:
  const LevelImage& image_;
  Trend trend_;
  std::vector<CountedSum> values_;
  std::array<std::vector<CountedSum>, 3> places_;
};

}  // namespace

BitVolume orbitFat(const LevelImage& image, const BitVolume& mask,
                   const std::array<double, 3>& centre) {
  const Spacing& mm = image.grid().spacing;
  BitVolume core = mask, fat(mask.size());
  erode(core, mm, kCoreDepth);
  const LocalWhite white(image, whiteMatter(image, core));
  forVoxels(without(mask, core), [&](int x, int y, int z) {
    if ((y + 0.5) * mm[1] < centre[1] + kFront || (z + 0.5) * mm[2] > centre[2] - kBelow) return;
    const double around = white.at(x, y, z);
    if (around > 0 && image.value(x, y, z) > kBright * around) fat.set(x, y, z);
  });
  return fat;
}

}  // namespace tavrel::strip
