// Sizes, spacings and volumes of grids, for everything that works on a scan in memory.
//
// Volumes are stored with x fastest, then y, then z. Lengths are in millimetres.
#pragma once

#include "detail/voxCxx20.h"

// Nothing below is meant for less.
#include <array>
#include <cstddef>
#include <functional>

namespace tavrel::strip {

using Size = std::array<int, 3>;        ///< voxels along x, y, z
using Spacing = std::array<double, 3>;  ///< millimetres between voxel centres along x, y, z

/// Sizes and spacings of a grid.
struct Grid {
  Size size = {};
  Spacing spacing = {};
  bool operator==(const Grid&) const = default;
};

/// How the voxel axes lie in the patient.
struct Orientation {
  /// For the patient's axes right-to-left, posterior-to-anterior and inferior-to-superior in turn,
  /// the voxel axis (0 to 2) closest to it.
  std::array<int, 3> axis;
  /// Whether the index along that voxel axis grows to the left, the front and the top.
  std::array<bool, 3> ascending;
};

/// Number of voxels of a volume.
constexpr std::size_t voxelCount(const Size& size) {
  return std::size_t(size[0]) * std::size_t(size[1]) * std::size_t(size[2]);
}

/// Volume in mL of a number of voxels.
constexpr double millilitres(double voxels, const Spacing& spacing) {
  return voxels * spacing[0] * spacing[1] * spacing[2] / 1000;
}

/// Called several times a second by long work, which it stops by throwing; may be empty.
using Checkpoint = std::function<void()>;

inline void pass(const Checkpoint& checkpoint) {
  if (checkpoint) checkpoint();
}

}  // namespace tavrel::strip
