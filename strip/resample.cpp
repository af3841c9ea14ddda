#include "resample.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "distance.h"

namespace tavrel::strip {
namespace {

/// One output voxel along an axis as a weighted sum of input voxels first, first + 1, ...
struct Taps {
  int first;
  std::vector<double> weights;
};

std::vector<Taps> axisTaps(int fromSize, double fromSpacing, int toSize, double toSpacing) {
  const double ratio = toSpacing / fromSpacing, reach = std::max(1.0, ratio);
  std::vector<Taps> taps(static_cast<std::size_t>(toSize));
  for (int i = 0; i < toSize; ++i) {
    const double centre = (i - (toSize - 1) / 2.0) * ratio + (fromSize - 1) / 2.0;
    const int low = int(std::floor(centre - reach)) + 1, high = int(std::ceil(centre + reach)) - 1;
    const auto inside = [&](int j) { return std::clamp(j, 0, fromSize - 1); };
    Taps& tap = taps[std::size_t(i)];
    tap.first = inside(low);
    tap.weights.assign(std::size_t(inside(high) - tap.first + 1), 0.0);
    double sum = 0;
    for (int j = low; j <= high; ++j) sum += 1 - std::abs(j - centre) / reach;
    for (int j = low; j <= high; ++j)
      tap.weights[std::size_t(inside(j) - tap.first)] += (1 - std::abs(j - centre) / reach) / sum;
  }
  return taps;
}

/// Replaces axis `d` of the volume by the weighted sums.
std::vector<double> alongAxis(std::span<const double> values, const Size& size, int d,
                              const std::vector<Taps>& taps, const Checkpoint& checkpoint) {
  std::size_t stride = 1;
  for (int k = 0; k < d; ++k) stride *= std::size_t(size[k]);
  const std::size_t length = std::size_t(size[d]), outer = values.size() / (stride * length);
  std::vector<double> result(stride * taps.size() * outer, 0.0);
  double* out = result.data();
  for (std::size_t o = 0; o < outer; ++o) {
    pass(checkpoint);
    const double* base = values.data() + o * stride * length;
    for (const Taps& tap : taps) {
      for (std::size_t w = 0; w < tap.weights.size(); ++w) {
        const double* in = base + (std::size_t(tap.first) + w) * stride;
        for (std::size_t s = 0; s < stride; ++s) out[s] += tap.weights[w] * in[s];
      }
      out += stride;
    }
  }
  return result;
}

}  // namespace

Grid isotropicGrid(const Grid& grid, double mm) {
  Grid result;
  double voxels = 1;
  for (int d = 0; d < 3; ++d) {
    const double n = std::max(1.0, std::round(grid.size[d] * grid.spacing[d] / mm));
    voxels *= n + 3;
    if (voxels > std::numeric_limits<int>::max())
      throw std::length_error("would have too many voxels on the grid to strip on");
    result.size[d] = int(n);
    result.spacing[d] = mm;
  }
  return result;
}

std::vector<double> resample(std::span<const double> values, const Grid& from, const Grid& to,
                             const Checkpoint& checkpoint) {
  std::vector<double> result(values.begin(), values.end());
  Size size = from.size;
  for (int d = 0; d < 3; ++d) {
    if (from.size[d] == to.size[d] && from.spacing[d] == to.spacing[d]) continue;
    result =
        alongAxis(result, size, d,
                  axisTaps(from.size[d], from.spacing[d], to.size[d], to.spacing[d]), checkpoint);
    size[d] = to.size[d];
  }
  return result;
}

std::vector<char> resampleMask(std::span<const char> mask, const Grid& from, const Grid& to) {
  const auto toInside = squaredDistances(mask, from.size, from.spacing, 1);
  auto signedDistance = squaredDistances(mask, from.size, from.spacing, 0);
  // Far more than any distance in the volume, for masks that fill it or are empty.
  double farthest = 1;
  for (int d = 0; d < 3; ++d) farthest += from.size[d] * from.spacing[d];
  for (std::size_t v = 0; v < mask.size(); ++v)
    signedDistance[v] = std::min(farthest, std::sqrt(toInside[v])) -
                        std::min(farthest, std::sqrt(signedDistance[v]));
  const auto distances = resample(signedDistance, from, to);
  std::vector<char> result(distances.size());
  std::transform(distances.begin(), distances.end(), result.begin(),
                 [](double distance) { return char(distance < 0); });
  return result;
}

}  // namespace tavrel::strip
