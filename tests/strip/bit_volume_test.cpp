#include "strip/bit_volume.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "volumes.h"

namespace {

using namespace test_volumes;

TEST(BitVolume, IsTheMaskThatItWasMadeOfAndItsComplement) {
  std::mt19937 random(1);
  for (const int width : {1, 63, 64, 65, 127, 128, 129})
    for (const double density : {0.0, 0.3, 1.0}) {
      const Size size = {width, 3, 2};
      auto mask = randomMask(size, density, random);
      BitVolume bits(mask, size);
      EXPECT_EQ(bytes(bits), mask);
      const auto ones = std::size_t(std::count(mask.begin(), mask.end(), 1));
      EXPECT_EQ(bits.count(), ones);
      forVoxels(size,
                [&](int x, int y, int z, std::size_t v) { EXPECT_EQ(bits(x, y, z), mask[v]); });
      const BitVolume before = bits;
      bits.invert();
      EXPECT_EQ(bits.count(), mask.size() - ones) << "bits beyond the row's end are 0";
      EXPECT_EQ(countBoth(bits, before), 0u);
      EXPECT_EQ((bits |= before).count(), mask.size());
      EXPECT_EQ(bits &= before, before);
    }
}

TEST(BitVolume, RangesBoxesAndOverlapsAreThoseOfTheirVoxels) {
  const Size size = {130, 4, 3};
  for (const int first : {0, 1, 63, 64, 65, 127, 128})
    for (const int end : {1, 63, 64, 65, 128, 129, 130}) {
      BitVolume range(size);
      range.setRange(2, 1, first, end);
      const auto voxel = [&](int x, int y, int z) {
        return x >= first && x < end && y == 2 && z == 1;
      };
      EXPECT_EQ(range, maskOf(size, voxel));
      const Box box = boundingBox(range);
      EXPECT_EQ(box.empty(), first >= end);
      if (box.empty()) continue;
      EXPECT_EQ(box.first, (Size{first, 2, 1}));
      EXPECT_EQ(box.end, (Size{end, 3, 2}));
      BitVolume half(size);
      half.setRange(2, 1, first, first + 1);
      EXPECT_DOUBLE_EQ(overlap(range, half), 2.0 / (end - first + 1));
    }
  EXPECT_EQ(overlap(BitVolume(size), BitVolume(size)), 1);
  const Box large = grown({{5, 1, 1}, {120, 2, 2}}, {4, 4, 1}, size);
  EXPECT_EQ(large.first, (Size{1, 0, 0}));
  EXPECT_EQ(large.end, (Size{124, 4, 3}));
}

}  // namespace
