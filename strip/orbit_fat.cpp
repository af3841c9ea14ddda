#include "orbit_fat.h"

#include <algorithm>

#include "morphology.h"

namespace tavrel::strip {
namespace {

// Lengths in mm.
constexpr double kFront = 20, kBelow = 10;  // of the head's middle: where the orbits begin
constexpr double kCoreDepth = 10, kSurroundings = 32;
constexpr int kBright = 11, kOfMean = 10;  // fat is brighter than 11/10 of white matter

/// Index of voxel (x, y, z), where the image's border does not count.
std::size_t indexIn(const LevelImage& image, int x, int y, int z) {
  return (std::size_t(z + 1) * image.size()[1] + y + 1) * image.rowLength() + x + 1;
}

/// The brighter half of the voxels deep inside a brain: white matter.
BitVolume whiteMatter(const LevelImage& image, const BitVolume& core) {
  BitVolume bright(core.size());
  std::vector<std::uint16_t> values;
  forVoxels(core, [&](int x, int y, int z) {
    values.push_back(image.values()[indexIn(image, x, y, z)]);
  });
  if (values.empty()) return bright;
  const auto middle = values.begin() + std::ptrdiff_t(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  forVoxels(core, [&](int x, int y, int z) {
    if (image.values()[indexIn(image, x, y, z)] >= *middle) bright.set(x, y, z);
  });
  return bright;
}

}  // namespace

BitVolume orbitFat(const LevelImage& image, const BitVolume& mask,
                   const std::array<double, 3>& centre) {
  const Spacing& mm = image.grid().spacing;
  const Size& blocks = image.blocks();
  const int block = image.block();
  BitVolume core = mask, fat(mask.size());
  erode(core, mm, kCoreDepth);
  std::vector<CountedSum> means;
  WindowSums()(image.blockSums(image.withBorder(whiteMatter(image, core))), blocks,
               int(kSurroundings / (block * mm[0])), {{0, 0, 0}, blocks}, means);
  forVoxels(without(mask, core), [&](int x, int y, int z) {
    if ((y + 0.5) * mm[1] < centre[1] + kFront || (z + 0.5) * mm[2] > centre[2] - kBelow) return;
    const CountedSum mean =
        means[(std::size_t((z + 1) / block) * blocks[1] + (y + 1) / block) * blocks[0] +
              (x + 1) / block];
    const auto number = mean & ((CountedSum{1} << kCountBits) - 1), sum = mean >> kCountBits;
    if (kOfMean * number * image.values()[indexIn(image, x, y, z)] > kBright * sum)
      fat.set(x, y, z);
  });
  return fat;
}

}  // namespace tavrel::strip
