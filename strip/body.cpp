#include "body.h"

#include <algorithm>

#include "distance.h"
#include "finishing.h"

namespace tavrel::strip {
namespace {

// Fitted on the heads of docs/accuracy.md: from W5 0.9 on, sound masks have less than 2 % beyond
// these distances, and leaks more than 25 %.
constexpr double kBallMm = 4, kPieceReachMm = 10, kFinishedReachMm = 20;
constexpr double kMostStray = 0.05;  // of the mask
constexpr double kLeastBody = 0.85;  // of the largest piece

}  // namespace

MaskBody::MaskBody(std::vector<char> mask, const Grid& grid) : grid_(grid) {
  BitVolume body(mask, grid.size), piece = body;
  openMask(body, grid.spacing, kBallMm, true);
  keepLargest(piece);
  const std::size_t bodyVoxels = body.count(), voxels = piece.count();
  if (bodyVoxels == 0) return;
  piece.unpack(mask);
  auto bodyMask = mask;
  body.unpack(bodyMask);
  squaredDistance_ = squaredDistances(bodyMask, grid.size, grid.spacing, 1);
  std::ptrdiff_t stray = 0;
  for (std::size_t v = 0; v < mask.size(); ++v)
    stray += mask[v] && squaredDistance_[v] > kPieceReachMm * kPieceReachMm;
  leaks_ = double(stray) > kMostStray * double(voxels);
  thin_ = double(bodyVoxels) < kLeastBody * double(voxels);
}

bool MaskBody::leaks(std::span<const char> mask, const Size& size, const Size& before) const {
  if (squaredDistance_.empty()) return false;
  std::size_t voxels = 0, stray = 0, v = 0;
  for (int z = 0; z < size[2]; ++z)
    for (int y = 0; y < size[1]; ++y) {
      const std::size_t row = (std::size_t((z + before[2]) / 2) * std::size_t(grid_.size[1]) +
                               std::size_t((y + before[1]) / 2)) *
                              std::size_t(grid_.size[0]);
      for (int x = 0; x < size[0]; ++x, ++v) {
        if (!mask[v]) continue;
        ++voxels;
        stray += squaredDistance_[row + std::size_t((x + before[0]) / 2)] >
                 kFinishedReachMm * kFinishedReachMm;
      }
    }
  return double(stray) > kMostStray * double(voxels);
}

}  // namespace tavrel::strip
