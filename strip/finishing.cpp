#include "finishing.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "distance.h"

namespace tavrel::strip {
namespace {

/// A box of a mask, with the voxels in memory of its own.
struct Crop {
  Box box;
  Size size;
  std::vector<char> voxels;
};

/// Calls f(index of the row's first voxel in the volume, index in the box) for each row of the box.
template <class F>
void forRows(const Box& box, const Size& volume, F&& f) {
  std::size_t inBox = 0;
  for (int z = box.first[2]; z < box.end[2]; ++z)
    for (int y = box.first[1]; y < box.end[1]; ++y) {
      f((std::size_t(z) * volume[1] + y) * volume[0] + box.first[0], inBox);
      inBox += std::size_t(box.end[0] - box.first[0]);
    }
}

Crop crop(std::span<const char> mask, const Size& size, const Spacing& spacing, double margin) {
  Crop result{boundingBox(mask, size), {}, {}};
  for (int d = 0; d < 3; ++d) {
    const double reach = std::min(std::ceil(margin / spacing[d]) + 1, double(size[d]));
    result.box.first[d] = std::max(0, result.box.first[d] - int(reach));
    result.box.end[d] = std::min(size[d], result.box.end[d] + int(reach));
    result.size[d] = result.box.end[d] - result.box.first[d];
  }
  result.voxels.resize(voxelCount(result.size));
  forRows(result.box, size, [&](std::size_t from, std::size_t to) {
    std::copy_n(mask.begin() + std::ptrdiff_t(from), result.size[0],
                result.voxels.begin() + std::ptrdiff_t(to));
  });
  return result;
}

void paste(const Crop& part, std::span<char> mask, const Size& size) {
  forRows(part.box, size, [&](std::size_t to, std::size_t from) {
    std::copy_n(part.voxels.begin() + std::ptrdiff_t(from), part.size[0],
                mask.begin() + std::ptrdiff_t(to));
  });
}

/// Sets `value` on all voxels within `radius` of a voxel that has it: dilation for 1, erosion for
/// 0.
void grow(Crop& part, const Spacing& spacing, double radius, char value) {
  setWithin(part.voxels, squaredDistances(part.voxels, part.size, spacing, value), radius, value);
}

/// Numbers the face-connected pieces of voxels that equal `value`, from 1 on, in the order of their
/// first voxels; other voxels get 0. Returns the number of voxels of each piece ([0] is unused).
std::vector<std::size_t> labelPieces(std::span<const char> mask, const Size& size, char value,
                                     std::vector<std::uint32_t>& labels) {
  labels.assign(mask.size(), 0);
  std::vector<std::size_t> counts(1, 0), stack;
  const std::size_t strides[3] = {1, std::size_t(size[0]), std::size_t(size[0]) * size[1]};
  for (std::size_t seed = 0; seed < mask.size(); ++seed) {
    if (mask[seed] != value || labels[seed]) continue;
    const auto label = std::uint32_t(counts.size());
    counts.push_back(0);
    labels[seed] = label;
    stack.push_back(seed);
    while (!stack.empty()) {
      const std::size_t v = stack.back();
      stack.pop_back();
      ++counts[label];
      const auto visit = [&](std::size_t n) {
        if (mask[n] != value || labels[n]) return;
        labels[n] = label;
        stack.push_back(n);
      };
      for (int d = 0; d < 3; ++d) {
        const int at = int(v / strides[d] % std::size_t(size[d]));
        if (at > 0) visit(v - strides[d]);
        if (at + 1 < size[d]) visit(v + strides[d]);
      }
    }
  }
  return counts;
}

}  // namespace

Box boundingBox(std::span<const char> mask, const Size& size) {
  Box box{size, {}};
  std::size_t v = 0;
  for (int z = 0; z < size[2]; ++z)
    for (int y = 0; y < size[1]; ++y, v += std::size_t(size[0])) {
      const auto row = mask.subspan(v, std::size_t(size[0]));
      const auto first = std::find(row.begin(), row.end(), 1);
      if (first == row.end()) continue;
      const auto last = std::find(row.rbegin(), row.rend(), 1);
      const Size low = {int(first - row.begin()), y, z};
      const Size high = {int(row.rend() - last), y + 1, z + 1};
      for (int d = 0; d < 3; ++d) {
        box.first[d] = std::min(box.first[d], low[d]);
        box.end[d] = std::max(box.end[d], high[d]);
      }
    }
  return box.empty() ? Box{} : box;
}

void openMask(std::span<char> mask, const Size& size, const Spacing& spacing, double radius,
              bool largest) {
  Crop part = crop(mask, size, spacing, radius);
  if (radius > 0) grow(part, spacing, radius, 0);
  if (largest) keepLargest(part.voxels, part.size);
  if (radius > 0) grow(part, spacing, radius, 1);
  paste(part, mask, size);
}

void closeMask(std::span<char> mask, const Size& size, const Spacing& spacing, double radius) {
  if (!(radius > 0)) return;
  Crop part = crop(mask, size, spacing, radius);
  grow(part, spacing, radius, 1);
  grow(part, spacing, radius, 0);
  paste(part, mask, size);
}

void keepLargest(std::span<char> mask, const Size& size) {
  std::vector<std::uint32_t> labels;
  const auto counts = labelPieces(mask, size, 1, labels);
  const auto largest =
      std::uint32_t(std::max_element(counts.begin(), counts.end()) - counts.begin());
  for (std::size_t v = 0; v < mask.size(); ++v) mask[v] = mask[v] && labels[v] == largest;
}

void fillHoles(std::span<char> mask, const Size& size) {
  Crop part = crop(mask, size, {1, 1, 1}, 1);
  std::vector<std::uint32_t> labels;
  const auto counts = labelPieces(part.voxels, part.size, 0, labels);
  std::vector<char> open(counts.size(), 0);
  std::size_t v = 0;
  const auto& n = part.size;
  for (int z = 0; z < n[2]; ++z)
    for (int y = 0; y < n[1]; ++y)
      for (int x = 0; x < n[0]; ++x, ++v)
        if (x == 0 || y == 0 || z == 0 || x == n[0] - 1 || y == n[1] - 1 || z == n[2] - 1)
          open[labels[v]] = 1;
  for (v = 0; v < part.voxels.size(); ++v)
    if (!part.voxels[v] && !open[labels[v]]) part.voxels[v] = 1;
  paste(part, mask, size);
}

void finishMask(std::span<char> mask, const Size& size, const Spacing& spacing,
                const FinishSettings& settings, const Checkpoint& checkpoint) {
  openMask(mask, size, spacing, settings.openMm, settings.largest);
  pass(checkpoint);
  closeMask(mask, size, spacing, settings.closeMm);
  pass(checkpoint);
  if (settings.fillHoles) fillHoles(mask, size);
}

}  // namespace tavrel::strip
