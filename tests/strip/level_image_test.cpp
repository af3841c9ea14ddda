// Sums and filters of a level against plain loops.
#include "strip/level_image.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "volumes.h"

namespace {

using namespace test_volumes;

Intensities randomImage(const Size& size, std::mt19937& random) {
  Intensities image{{size, {1, 1.5, 2}}, {}};
  std::uniform_int_distribution<int> value(0, kFullScale);
  for (std::size_t v = 0; v < voxelCount(size); ++v)
    image.values.push_back(std::uint16_t(value(random)));
  return image;
}

constexpr Size kSizes[] = {{9, 12, 26}, {63, 3, 4}, {62, 5, 1}, {64, 1, 2}, {130, 3, 3}};

TEST(LevelImage, SumsOverWindowsAreExact) {
  std::mt19937 random(1);
  for (const Size& size : kSizes)
    for (const int block : {1, 2, 4}) {
      const Intensities image = randomImage(size, random);
      const LevelImage level(image, block);
      const BitVolume inside(randomMask(size, 0.4, random), size);
      // Of voxels with the border, blocks of which begin at its corner.
      const auto plain = [&](const Size& at, const BitVolume& mask) {
        CountedSum sum = 0;
        forVoxels(size, [&](int x, int y, int z, std::size_t v) {
          const int p[3] = {x, y, z};
          for (int d = 0; d < 3; ++d)
            if (std::abs((p[d] + 1) / block - at[d]) > level.reach()) return;
          if (mask(x, y, z)) sum += (CountedSum{image.values[v]} << kCountBits) + 1;
        });
        return sum;
      };
      const BitVolume all = maskOf(size, [](auto...) { return true; });
      const BitVolume with = level.withBorder(inside);
      EXPECT_EQ(level.withoutBorder(with), inside);
      EXPECT_EQ(level.domain(), level.withBorder(all));
      forVoxels(size, [&](int x, int y, int z, std::size_t v) {
        const auto i = std::size_t(((z + 1) * level.size()[1] + y + 1) * level.rowLength() + x + 1);
        EXPECT_EQ(level.values()[i], image.values[v]);
      });
      const auto sums = level.blockSums(with);
      const Size& blocks = level.blocks();
      Box box;
      for (int d = 0; d < 3; ++d) {
        box.first[d] = int(random() % unsigned(blocks[d]));
        box.end[d] = std::min(blocks[d], box.first[d] + 4);
      }
      std::vector<CountedSum> windows;
      WindowSums()(sums, blocks, level.reach(), box, windows);
      for (int z = box.first[2]; z < box.end[2]; ++z)
        for (int y = box.first[1]; y < box.end[1]; ++y)
          for (int x = box.first[0]; x < box.end[0]; ++x) {
            const auto b = std::size_t((z * blocks[1] + y) * blocks[0] + x);
            ASSERT_EQ(windows[b], plain({x, y, z}, inside)) << size[0] << " block " << block;
            ASSERT_EQ(level.windows()[b], plain({x, y, z}, all)) << size[0] << " block " << block;
          }
    }
}

TEST(LevelImage, FiltersTakeTheLeastOfTheVoxelsTheySpeakOf) {
  std::mt19937 random(3);
  for (const Size& size : {Size{7, 6, 5}, {3, 3, 3}, {2, 9, 4}, {70, 4, 3}, {1, 1, 1}}) {
    const Intensities image = randomImage(size, random), half = halved(image);
    Intensities filtered = image;
    minimumFilter(filtered);
    const auto at = [&](int x, int y, int z) {
      return image.values[std::size_t((z * size[1] + y) * size[0] + x)];
    };
    std::vector<std::uint16_t> least(half.values.size(), 0xffff);
    forVoxels(size, [&](int x, int y, int z, std::size_t v) {
      const bool border =
          x == 0 || y == 0 || z == 0 || x == size[0] - 1 || y == size[1] - 1 || z == size[2] - 1;
      EXPECT_EQ(filtered.values[v],
                border ? at(x, y, z)
                       : std::min({at(x - 1, y, z), at(x + 1, y, z), at(x, y - 1, z),
                                   at(x, y + 1, z), at(x, y, z - 1), at(x, y, z + 1)}));
      auto& block =
          least[std::size_t((z / 2 * half.grid.size[1] + y / 2) * half.grid.size[0] + x / 2)];
      block = std::min(block, at(x, y, z));
    });
    EXPECT_EQ(half.values, least);
    EXPECT_EQ(half.grid.spacing, (Spacing{2, 3, 4}));
  }
}

}  // namespace
