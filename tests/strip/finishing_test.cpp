// Distances, dilation, erosion and pieces against plain loops over all voxels.
#include "strip/finishing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include "strip/distance.h"
#include "strip/orbit_fat.h"
#include "volumes.h"

namespace {

using namespace test_volumes;

/// Squared distances by comparing every voxel with every other.
std::vector<double> plainDistances(const std::vector<char>& mask, const Size& size,
                                   const Spacing& mm, char target) {
  std::vector<double> result(mask.size(), std::numeric_limits<double>::infinity());
  forVoxels(size, [&](int a, int b, int c, std::size_t w) {
    if (mask[w] != target) return;
    forVoxels(size, [&](int x, int y, int z, std::size_t v) {
      const double dx = (x - a) * mm[0], dy = (y - b) * mm[1], dz = (z - c) * mm[2];
      result[v] = std::min(result[v], dx * dx + dy * dy + dz * dz);
    });
  });
  return result;
}

std::vector<char> plainGrow(const std::vector<char>& mask, const Size& size, const Spacing& mm,
                            double radius, char value) {
  auto result = mask;
  const auto distances = plainDistances(mask, size, mm, value);
  for (std::size_t v = 0; v < mask.size(); ++v)
    if (radius > 0 && std::sqrt(distances[v]) <= radius * (1 + 1e-9)) result[v] = value;
  return result;
}

TEST(Distance, EqualsTheNearestOfAllVoxelsOnAnyGrid) {
  std::mt19937 random(1);
  for (const Size& size : {Size{9, 8, 7}, {1, 13, 5}, {17, 1, 1}, {3, 4, 11}})
    for (const Spacing& spacing : {Spacing{1, 1, 1}, {0.9, 2.5, 1.2}, {0.3, 0.3, 4}})
      for (const double density : {0.0, 0.02, 0.3, 1.0})
        for (const char target : {0, 1}) {
          const auto mask = randomMask(size, density, random);
          const auto expected = plainDistances(mask, size, spacing, target);
          const auto found = squaredDistances(mask, size, spacing, target);
          for (std::size_t v = 0; v < mask.size(); ++v)
            if (std::isinf(expected[v]))
              EXPECT_EQ(found[v], expected[v]);
            else
              EXPECT_NEAR(found[v], expected[v], 1e-9);
        }
}

TEST(Finishing, OpeningAndClosingAreThoseOfABall) {
  struct Case {
    Size size;
    Spacing mm;
    std::vector<double> radii;
  };
  std::mt19937 random(2);
  for (const Case& c : {Case{{10, 9, 8}, {1, 1, 1}, {0, 0.5, 1, 2, 2.5, 40}},
                        {{10, 9, 8}, {0.8, 1.1, 2}, {1, 2, 2.5, 40}},
                        {{133, 4, 3}, {1, 1, 1}, {1, 3, 70}},       // rows of several words
                        {{65, 1, 1}, {0.9, 0.05, 0.05}, {0.9, 5}},  // also by distances
                        {{1, 1, 7}, {1, 1, 1.5}, {1.5, 3}}})
    for (const double radius : c.radii)
      for (const double density : {0.02, 0.1, 0.5, 0.98}) {
        const auto mask = randomMask(c.size, density, random);
        const auto grow = [&](const std::vector<char>& m, char value) {
          return plainGrow(m, c.size, c.mm, radius, value);
        };
        BitVolume opened(mask, c.size), closed = opened, rounded = opened;
        openMask(opened, c.mm, radius, false);
        closeMask(closed, c.mm, radius);
        EXPECT_EQ(bytes(opened), grow(grow(mask, 0), 1)) << c.size[0] << " radius " << radius;
        EXPECT_EQ(bytes(closed), grow(grow(mask, 1), 0)) << c.size[0] << " radius " << radius;
        // 1 mm as some converters write it, in 32 bits.
        if (c.mm != Spacing{1, 1, 1}) continue;
        closeMask(rounded, {1.0000001f, 1.0000001f, 1}, radius);
        EXPECT_EQ(rounded, closed);
      }
}

TEST(Finishing, CutsTheBridgeKeepsTheLargerBoxAndLeavesTheFieldOfViewAlone) {
  const Size size = {20, 20, 20};
  BitVolume mask = maskOf(size, [](int x, int y, int z) {  // two boxes, a thin bridge and a hole
    const bool middle = y >= 6 && y < 14 && z >= 6 && z < 14;
    return ((middle && (x < 9 || (x >= 12 && x < 18))) || (y == 10 && z == 10 && x < 18)) &&
           Size{x, y, z} != Size{4, 9, 9};
  });
  finishMask(mask, {1, 1, 1}, {.openMm = 0.5, .largest = true, .closeMm = 0, .fillHoles = true});
  EXPECT_TRUE(mask(4, 9, 9));
  finishMask(mask, {1, 1, 1}, {.openMm = 1.5, .largest = true, .closeMm = 0, .fillHoles = false});
  // The corners of a box do not survive a ball, but its face at the border of the volume does.
  EXPECT_EQ(boundingBox(mask).first, (Size{0, 6, 6}));
  EXPECT_EQ(boundingBox(mask).end, (Size{9, 14, 14}));
  EXPECT_TRUE(mask(0, 10, 10));
  for (const bool full : {false, true}) {
    const BitVolume all = maskOf(size, [&](auto...) { return full; });
    BitVolume finished = all;
    finishMask(finished, {1, 1, 1}, {.openMm = 5, .closeMm = 5});
    EXPECT_EQ(finished, all);
  }
}

/// For every voxel the first one of its piece: of voxels of the same value, joined by faces.
std::vector<std::size_t> plainPieces(const std::vector<char>& mask, const Size& size) {
  std::vector<std::size_t> piece(mask.size());
  std::iota(piece.begin(), piece.end(), std::size_t(0));
  for (bool changed = true; changed;) {
    changed = false;
    forVoxels(size, [&](int x, int y, int z, std::size_t v) {
      const Size p = {x, y, z};
      for (std::size_t d = 0, stride = 1; d < 3; stride *= std::size_t(size[d++])) {
        const std::size_t next = v + stride;
        if (p[d] + 1 == size[d] || mask[v] != mask[next] || piece[v] == piece[next]) continue;
        piece[v] = piece[next] = std::min(piece[v], piece[next]);
        changed = true;
      }
    });
  }
  return piece;
}

TEST(Finishing, KeepsTheLargestPieceAndFillsHolesLikeAFlood) {
  std::mt19937 random(3);
  for (const Size& size : {Size{9, 10, 11}, {70, 6, 5}, {128, 3, 4}, {30, 30, 1}, {5, 1, 1}})
    for (const double density : {0.0, 0.25, 0.35, 0.75, 1.0})
      for (int round = 0; round < 5; ++round) {
        const auto mask = randomMask(size, density, random);
        const auto piece = plainPieces(mask, size);
        std::vector<std::size_t> inside(mask.size(), 0);  // voxels of each piece
        std::vector<char> open(mask.size(), 0), kept = mask, filled = mask;
        forVoxels(size, [&](int x, int y, int z, std::size_t v) {
          inside[piece[v]] += mask[v] != 0;
          open[piece[v]] |= x == 0 || y == 0 || z == 0 || x == size[0] - 1 || y == size[1] - 1 ||
                            z == size[2] - 1;
        });
        const auto largest = std::max_element(inside.begin(), inside.end());
        for (std::size_t v = 0; v < mask.size(); ++v) {
          kept[v] = mask[v] && piece[v] == std::size_t(largest - inside.begin());
          filled[v] = mask[v] || !open[piece[v]];
        }
        *largest = 0;
        BitVolume largestOnly(mask, size), withoutHoles = largestOnly;
        EXPECT_EQ(keepLargest(largestOnly), *std::max_element(inside.begin(), inside.end()));
        EXPECT_EQ(bytes(largestOnly), kept);
        fillHoles(withoutHoles);
        EXPECT_EQ(bytes(withoutHoles), filled);
      }
}

TEST(OrbitFat, IsBrighterThanWhiteMatterNearItInFrontOfAndBelowTheMiddle) {
  const Grid grid = {{80, 80, 80}, {2, 2, 2}};
  const auto clump = [](double y, double z) {  // of fat at the surface
    return
        [y, z](double px, double py, double pz) { return std::hypot(px - 1, py - y, pz - z) < 5; };
  };
  const auto orbit = clump(45, -35), above = clump(45, 35), behind = clump(-45, -35);
  // White and grey matter, brighter to the back, where they are as bright as fat in front.
  const auto tissue = [](double x, double y) {
    return (2000 - 5 * y) * (std::fmod(x + 81, 16) < 8 ? 1 : 0.7);
  };
  Intensities image{grid, sampled(grid, [&](double x, double y, double z) {
                      const bool fat = orbit(x, y, z) || above(x, y, z) || behind(x, y, z);
                      return std::uint16_t(fat ? 1.3 * (2000 - 5 * y) : tissue(x, y));
                    })};
  const auto voxelsOf = [&](auto&& inside) {
    return BitVolume(sampled(grid, [&](auto... p) { return char(inside(p...)); }), grid.size);
  };
  const BitVolume mask = voxelsOf([](auto... p) { return std::hypot(p...) < 62; });
  const auto fatIn = [&](const BitVolume& m) {
    return orbitFat(LevelImage(image, 2), m, {80, 80, 80});
  };
  EXPECT_EQ(fatIn(mask), voxelsOf(orbit) &= mask);
  EXPECT_TRUE(fatIn(BitVolume(grid.size)).none());
  for (auto& value : image.values) value /= 10;
  EXPECT_EQ(fatIn(mask), voxelsOf(orbit) &= mask) << "however dark the scan is";
}

}  // namespace
