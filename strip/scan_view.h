// A scan in memory as the method sees it, in the patient's axes.
//
// Anatomical order: x to the patient's left, y to the front, z to the top, x fastest. What works on
// scans is written for it alone; the scan's own order is met in two places, where voxels are read
// and where the mask is given back.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "geometry.h"
#include "parallel.h"

namespace tavrel::strip {

/// A scan whose voxels are read when they are needed.
struct ScanView {
  Grid grid;                               ///< as stored
  std::optional<Orientation> orientation;  ///< absent: the storage is taken for anatomical
  /// Fills the span with voxels as stored, from index `first` on; threads may call it at once.
  std::function<void(std::size_t first, std::span<float> voxels)> read;
};

/// The stored axes as anatomical ones.
class Axes {
 public:
  explicit Axes(const ScanView& scan)
      : stored_(scan.grid),
        to_(scan.orientation.value_or(Orientation{{0, 1, 2}, {true, true, true}})) {}

  /// The scan's grid in anatomical order.
  Grid anatomical() const {
    Grid grid;
    for (int d = 0; d < 3; ++d) {
      grid.size[d] = stored_.size[to_.axis[d]];
      grid.spacing[d] = stored_.spacing[to_.axis[d]];
    }
    return grid;
  }

  /// For each stored axis in turn calls f(stored axis, anatomical axis, ascending).
  template <class F>
  void forAxes(F&& f) const {
    for (int d = 0; d < 3; ++d) f(to_.axis[d], d, to_.ascending[d]);
  }

 private:
  Grid stored_;
  Orientation to_;
};

/// Where voxel i of each stored axis goes: offsets to add up, or -1 for what goes nowhere.
using AxisOffsets = std::array<std::vector<std::ptrdiff_t>, 3>;

/// Offsets of stored voxels in a volume in anatomical order.
/// @param place  for (anatomical axis, anatomical index) the index along that axis of the volume,
/// or
///               -1 for what lies outside of it
template <class Place>
AxisOffsets offsetsInto(const ScanView& scan, const Size& volume, Place&& place) {
  AxisOffsets offsets;
  const std::ptrdiff_t strides[3] = {1, volume[0], std::ptrdiff_t(volume[0]) * volume[1]};
  Axes(scan).forAxes([&](int stored, int axis, bool ascending) {
    const int n = scan.grid.size[stored];
    offsets[stored].resize(n);
    for (int i = 0; i < n; ++i) {
      const int at = place(axis, ascending ? i : n - 1 - i);
      offsets[stored][i] = at < 0 ? -1 : at * strides[axis];
    }
  });
  return offsets;
}

/// Calls f(offset, intensity) for every stored voxel that goes somewhere. Threads take whole runs
/// of stored planes with the same offset: what goes to one offset comes in stored order, from one
/// thread.
template <class F>
void forStoredVoxels(const ScanView& scan, const AxisOffsets& offsets, int threads, F&& f) {
  const int X = scan.grid.size[0], Y = scan.grid.size[1], Z = scan.grid.size[2];
  std::vector<int> runs;  // first plane of each
  for (int z = 0; z < Z; ++z)
    if (z == 0 || offsets[2][z] != offsets[2][z - 1]) runs.push_back(z);
  runs.push_back(Z);
  parallelRanges(threads, int(runs.size()) - 1, [&](int from, int to) {
    std::vector<float> plane(std::size_t(X) * Y);
    for (int z = runs[from]; z < runs[to]; ++z) {
      if (offsets[2][z] < 0) continue;
      scan.read(std::size_t(z) * plane.size(), plane);
      for (int y = 0; y < Y; ++y) {
        if (offsets[1][y] < 0) continue;
        const std::ptrdiff_t row = offsets[2][z] + offsets[1][y];
        const float* in = plane.data() + std::size_t(y) * X;
        for (int x = 0; x < X; ++x)
          if (offsets[0][x] >= 0) f(row + offsets[0][x], in[x]);
      }
    }
  });
}

}  // namespace tavrel::strip
