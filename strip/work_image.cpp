#include "work_image.h"

#include <algorithm>
#include <cmath>

#include "resample.h"

namespace tavrel::strip {
namespace {

// Grids that are interpolated have cubes of 1 mm, or of 2 mm where no axis is finer than kCoarseMm.
constexpr double kUsualMm = 1, kLargeMm = 2, kCoarseMm = 1.75;
// Voxels that are taken as they are differ from that by these factors at most.
constexpr double kFiner = 0.65, kCoarser = 1.15, kMostAnisotropic = 1.6;

bool near(const Spacing& spacing, double mm) {
  const auto [least, most] = std::minmax_element(spacing.begin(), spacing.end());
  return *least >= kFiner * mm && *most <= kCoarser * mm && *most <= kMostAnisotropic * *least;
}

/// Where an index of one grid lies between two of another.
struct Between {
  int low, high;
  float share;  // of the high one
};

Between between(double position, int size) {
  const double held = std::clamp(position, 0.0, double(size - 1));
  const int low = int(held);
  return {low, std::min(low + 1, size - 1), float(held - low)};
}

std::vector<Between> axisBetween(int toSize, double ratio, int fromSize) {
  std::vector<Between> result(toSize);
  for (int i = 0; i < toSize; ++i) result[i] = between((i + 0.5) * ratio - 0.5, fromSize);
  return result;
}

/// Calls f(y, z, row of interpolated values) for every row of `to`, whose corner is that of `from`.
template <class T, class F>
void interpolateRows(const std::vector<T>& values, const Size& from,
                     const std::array<std::vector<Between>, 3>& at, int threads, F&& f) {
  const std::size_t X = std::size_t(from[0]), plane = X * from[1];
  const auto interpolate = [&](int y, int z, std::vector<float>& joined, std::vector<float>& row) {
    const auto [z0, z1, c] = at[2][z];
    const auto [y0, y1, b] = at[1][y];
    const T* v00 = values.data() + z0 * plane + y0 * X;
    const T* v10 = values.data() + z0 * plane + y1 * X;
    const T* v01 = values.data() + z1 * plane + y0 * X;
    const T* v11 = values.data() + z1 * plane + y1 * X;
    const float w00 = (1 - b) * (1 - c), w10 = b * (1 - c), w01 = (1 - b) * c, w11 = b * c;
    for (std::size_t x = 0; x < X; ++x)
      joined[x] =
          w00 * float(v00[x]) + w10 * float(v10[x]) + w01 * float(v01[x]) + w11 * float(v11[x]);
    for (std::size_t x = 0; x < row.size(); ++x) {
      const auto& [low, high, share] = at[0][x];
      row[x] = joined[low] + share * (joined[high] - joined[low]);
    }
  };
  parallelRanges(threads, int(at[2].size()), [&](int first, int end) {
    std::vector<float> joined(X), row(at[0].size());
    for (int z = first; z < end; ++z)
      for (int y = 0; y < int(at[1].size()); ++y) {
        interpolate(y, z, joined, row);
        f(y, z, row);
      }
  });
}

}  // namespace

WorkGrid::WorkGrid(const ScanView& scan, const Box& box, std::optional<double> mm)
    : box_(box), scan_(Axes(scan).anatomical()) {
  const double finest = *std::min_element(scan_.spacing.begin(), scan_.spacing.end());
  const double target = mm.value_or(finest < kCoarseMm ? kUsualMm : kLargeMm);
  for (int d = 0; d < 3; ++d) {
    factor_[d] = std::max(1, int(kCoarser * target / scan_.spacing[d]));
    joined_.size[d] = (box.end[d] - box.first[d] + factor_[d] - 1) / factor_[d];
    joined_.spacing[d] = scan_.spacing[d] * factor_[d];
  }
  work_ = !mm && near(joined_.spacing, target) ? joined_ : isotropicGrid(joined_, target);
}

std::array<double, 3> WorkGrid::fromScan(const std::array<double, 3>& mm) const {
  std::array<double, 3> result;
  for (int d = 0; d < 3; ++d) result[d] = mm[d] - box_.first[d] * scan_.spacing[d];
  return result;
}

Intensities WorkGrid::image(const ScanView& scan, double low, double high, int threads) const {
  const double scale = kFullScale / (high - low);
  const auto level = [&](double value) {
    return std::uint16_t(std::clamp((value - low) * scale, 0.0, double(kFullScale)) + 0.5);
  };
  const auto offsets = offsetsInto(scan, joined_.size, [&](int axis, int i) {
    return i < box_.first[axis] || i >= box_.end[axis] ? -1
                                                       : (i - box_.first[axis]) / factor_[axis];
  });
  Intensities result{work_, std::vector<std::uint16_t>(voxelCount(work_.size))};
  const bool single = factor_ == Size{1, 1, 1};
  if (single && !interpolated()) {
    forStoredVoxels(scan, offsets, threads, [&](std::ptrdiff_t voxel, float value) {
      result.values[voxel] = level(std::isfinite(value) ? value : low);
    });
    return result;
  }
  // Joined and interpolated before the clamping, so that an edge keeps its place.
  std::vector<float> joined(voxelCount(joined_.size), 0), counts(single ? 0 : joined.size(), 0);
  forStoredVoxels(scan, offsets, threads, [&](std::ptrdiff_t voxel, float value) {
    joined[voxel] += std::isfinite(value) ? value : float(low);
    if (!single) ++counts[voxel];
  });
  for (std::size_t v = 0; v < counts.size(); ++v) joined[v] /= counts[v];
  std::array<std::vector<Between>, 3> at;
  for (int d = 0; d < 3; ++d)
    at[d] = axisBetween(work_.size[d], work_.spacing[d] / joined_.spacing[d], joined_.size[d]);
  interpolateRows(joined, joined_.size, at, threads,
                  [&](int y, int z, const std::vector<float>& row) {
                    const auto out = (std::ptrdiff_t(z) * work_.size[1] + y) * work_.size[0];
                    std::transform(row.begin(), row.end(), result.values.begin() + out, level);
                  });
  return result;
}

FieldOfViewCut WorkGrid::cut(const BitVolume& mask) const {
  std::array<std::array<std::size_t, 2>, 3> voxels{};  // per axis: at its begin, at its end
  const Size& size = work_.size;
  for (int z = 0; z < size[2]; ++z)
    for (int y = 0; y < size[1]; ++y) {
      std::size_t inRow = 0;
      for (const auto word : mask.row(y, z)) inRow += std::size_t(std::popcount(word));
      voxels[0][0] += mask(0, y, z);
      voxels[0][1] += mask(size[0] - 1, y, z);
      for (int side = 0; side < 2; ++side) {
        if (y == side * (size[1] - 1)) voxels[1][side] += inRow;
        if (z == side * (size[2] - 1)) voxels[2][side] += inRow;
      }
    }
  FieldOfViewCut cut;
  for (int d = 0; d < 3; ++d)
    for (int side = 0; side < 2; ++side) {
      if (side == 0 ? box_.first[d] > 0 : box_.end[d] < scan_.size[d]) continue;
      const double cm2 =
          double(voxels[d][side]) * work_.spacing[(d + 1) % 3] * work_.spacing[(d + 2) % 3] / 100;
      (d == 2 && side == 0 ? cut.below : cut.elsewhere) += cm2;
    }
  return cut;
}

std::vector<char> WorkGrid::toScan(const ScanView& scan, const BitVolume& mask, int threads) const {
  std::vector<char> result(voxelCount(scan.grid.size), 0);
  // Strides of the scan's storage along the anatomical axes.
  std::array<std::vector<std::ptrdiff_t>, 3> stored;
  Axes(scan).forAxes([&](int axis, int d, bool ascending) {
    const int n = scan.grid.size[axis];
    std::ptrdiff_t stride = 1;
    for (int k = 0; k < axis; ++k) stride *= scan.grid.size[k];
    for (int i = box_.first[d]; i < box_.end[d]; ++i)
      stored[d].push_back((ascending ? i : n - 1 - i) * stride);
  });
  if (factor_ == Size{1, 1, 1} && !interpolated()) {
    parallelRanges(threads, work_.size[2], [&](int first, int end) {
      for (int z = first; z < end; ++z)
        for (int y = 0; y < work_.size[1]; ++y) {
          char* out = result.data() + stored[1][y] + stored[2][z];
          for (int w = 0; w < mask.wordsInRow(); ++w)
            forBits(mask.row(y, z)[w], w * BitVolume::kBits, [&](int x) { out[stored[0][x]] = 1; });
        }
    });
    return result;
  }
  std::vector<char> voxels(voxelCount(work_.size));
  mask.unpack(voxels);
  std::array<std::vector<Between>, 3> at;
  for (int d = 0; d < 3; ++d)
    at[d] = axisBetween(int(stored[d].size()), scan_.spacing[d] / work_.spacing[d], work_.size[d]);
  interpolateRows(voxels, work_.size, at, threads,
                  [&](int y, int z, const std::vector<float>& row) {
                    char* out = result.data() + stored[1][y] + stored[2][z];
                    for (std::size_t x = 0; x < row.size(); ++x) out[stored[0][x]] = row[x] >= 0.5f;
                  });
  return result;
}

}  // namespace tavrel::strip
