#include "strip/finishing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "strip/distance.h"

namespace {

using namespace tavrel::strip;

std::vector<char> randomMask(const Size& size, double density, std::mt19937& random) {
  std::vector<char> mask(voxelCount(size));
  std::bernoulli_distribution inside(density);
  for (char& voxel : mask) voxel = inside(random);
  return mask;
}

/// Calls f(x, y, z, index) for every voxel.
template <class F>
void forVoxels(const Size& size, F&& f) {
  std::size_t v = 0;
  for (int z = 0; z < size[2]; ++z)
    for (int y = 0; y < size[1]; ++y)
      for (int x = 0; x < size[0]; ++x, ++v) f(x, y, z, v);
}

/// Squared distances by comparing every voxel with every other.
std::vector<double> plainDistances(const std::vector<char>& mask, const Size& size,
                                   const Spacing& mm, char target) {
  std::vector<double> result(mask.size(), std::numeric_limits<double>::infinity());
  forVoxels(size, [&](int x, int y, int z, std::size_t v) {
    forVoxels(size, [&](int a, int b, int c, std::size_t w) {
      if (mask[w] != target) return;
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
    if (std::sqrt(distances[v]) <= radius * (1 + 1e-9)) result[v] = value;
  return result;
}

TEST(Distance, EqualsTheNearestOfAllVoxelsOnAnyGrid) {
  std::mt19937 random(1);
  const Spacing spacings[] = {{1, 1, 1}, {0.9, 2.5, 1.2}, {0.3, 0.3, 4}};
  const Size sizes[] = {{9, 8, 7}, {1, 13, 5}, {17, 1, 1}, {3, 4, 11}};
  for (const Size& size : sizes)
    for (const Spacing& spacing : spacings)
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
  std::mt19937 random(2);
  const Size size = {10, 9, 8};
  for (const Spacing& mm : {Spacing{1, 1, 1}, Spacing{0.8, 1.1, 2}})
    for (const double radius : {0.5, 1.0, 2.0, 2.5, 40.0})
      for (const double density : {0.1, 0.5, 0.9}) {
        const auto mask = randomMask(size, density, random);
        auto opened = mask, closed = mask;
        openMask(opened, size, mm, radius, false);
        closeMask(closed, size, mm, radius);
        EXPECT_EQ(opened, plainGrow(plainGrow(mask, size, mm, radius, 0), size, mm, radius, 1));
        EXPECT_EQ(closed, plainGrow(plainGrow(mask, size, mm, radius, 1), size, mm, radius, 0));
        // 1 mm as some converters write it, in 32 bits.
        if (mm[0] != 1) continue;
        closed = mask;
        closeMask(closed, size, {1.0000001f, 1.0000001f, 1}, radius);
        EXPECT_EQ(closed, plainGrow(plainGrow(mask, size, mm, radius, 1), size, mm, radius, 0));
      }
}

/// Two boxes in a volume of 20^3, joined by a bridge one voxel thick.
std::vector<char> twoBoxes(const Size& size) {
  std::vector<char> mask(voxelCount(size));
  forVoxels(size, [&](int x, int y, int z, std::size_t v) {
    const bool middle = y >= 6 && y < 14 && z >= 6 && z < 14;
    mask[v] = (middle && (x < 9 || (x >= 12 && x < 18))) || (y == 10 && z == 10 && x < 18);
  });
  return mask;
}

TEST(Finishing, CutsTheBridgeKeepsTheLargerBoxAndLeavesTheFieldOfViewAlone) {
  const Size size = {20, 20, 20};
  auto mask = twoBoxes(size);
  finishMask(mask, size, {1, 1, 1},
             {.openMm = 1.5, .largest = true, .closeMm = 0, .fillHoles = false});
  // The corners of a box do not survive a ball, but its face at the border of the volume does.
  EXPECT_EQ(boundingBox(mask, size).first, (Size{0, 6, 6}));
  EXPECT_EQ(boundingBox(mask, size).end, (Size{9, 14, 14}));
  EXPECT_TRUE(mask[0 + 20 * 10 + 400 * 10]);

  auto whole = std::vector<char>(voxelCount(size), 1);
  finishMask(whole, size, {1, 1, 1}, {.openMm = 5, .closeMm = 5});
  EXPECT_EQ(whole, std::vector<char>(voxelCount(size), 1));
  auto nothing = std::vector<char>(voxelCount(size), 0);
  finishMask(nothing, size, {1, 1, 1}, {.openMm = 5, .closeMm = 5});
  EXPECT_EQ(nothing, std::vector<char>(voxelCount(size), 0));
  EXPECT_TRUE(boundingBox(nothing, size).empty());
}

TEST(Finishing, FillsOnlyWhatIsEnclosed) {
  const Size size = {12, 11, 10};
  std::vector<char> shell(voxelCount(size)), solid(voxelCount(size));
  forVoxels(size, [&](int x, int y, int z, std::size_t v) {
    const auto within = [&](int m) {
      return x >= m && x < 12 - m && y >= m && y < 11 - m && z >= m && z < 10 - m;
    };
    solid[v] = within(2);
    shell[v] = within(2) && !within(3);
  });
  auto filled = shell;
  fillHoles(filled, size);
  EXPECT_EQ(filled, solid);
  shell[5 + 12 * 5 + 132 * 2] = 0;  // a leak to the outside
  auto open = shell;
  fillHoles(open, size);
  EXPECT_EQ(open, shell);
}

TEST(Finishing, KeepsTheLargestOfRandomPieces) {
  std::mt19937 random(3);
  const Size size = {9, 10, 11};
  for (int round = 0; round < 20; ++round) {
    const auto mask = randomMask(size, 0.25, random);
    auto kept = mask;
    keepLargest(kept, size);
    // Flood from the first kept voxel: it must reach all kept voxels, and no neighbour was dropped.
    const auto neighbours = [&](std::size_t v, auto&& f) {
      const int x = int(v % 9), y = int(v / 9 % 10), z = int(v / 90);
      if (x > 0) f(v - 1);
      if (x < 8) f(v + 1);
      if (y > 0) f(v - 9);
      if (y < 9) f(v + 9);
      if (z > 0) f(v - 90);
      if (z < 10) f(v + 90);
    };
    const auto flood = [&](std::size_t seed) {
      std::vector<char> seen(mask.size(), 0);
      std::vector<std::size_t> queue = {seed};
      seen[seed] = 1;
      for (std::size_t at = 0; at < queue.size(); ++at)
        neighbours(queue[at], [&](std::size_t n) {
          if (mask[n] && !seen[n]) seen[n] = 1, queue.push_back(n);
        });
      return seen;
    };
    std::vector<char> best(mask.size(), 0);
    std::ptrdiff_t most = 0;
    for (std::size_t v = 0; v < mask.size(); ++v)
      if (mask[v])
        if (const auto piece = flood(v); std::count(piece.begin(), piece.end(), 1) > most)
          most = std::count(piece.begin(), piece.end(), 1), best = piece;
    EXPECT_EQ(kept, best);
  }
}

}  // namespace
