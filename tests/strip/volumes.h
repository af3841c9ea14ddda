// Small volumes for the tests of stripping in memory.
#pragma once

#include <random>
#include <vector>

#include "strip/bit_volume.h"

namespace test_volumes {

using namespace tavrel::strip;

/// Calls f(x, y, z, index) for every voxel.
template <class F>
void forVoxels(const Size& size, F&& f) {
  std::size_t v = 0;
  for (int z = 0; z < size[2]; ++z)
    for (int y = 0; y < size[1]; ++y)
      for (int x = 0; x < size[0]; ++x, ++v) f(x, y, z, v);
}

/// f at the millimetre positions of a grid's voxels, counted from the grid's centre.
template <class F>
auto sampled(const Grid& grid, F&& f) {
  std::vector<decltype(f(0.0, 0.0, 0.0))> values;
  const auto mm = [&](int d, int i) { return (i - (grid.size[d] - 1) / 2.0) * grid.spacing[d]; };
  forVoxels(grid.size, [&](int x, int y, int z, std::size_t) {
    values.push_back(f(mm(0, x), mm(1, y), mm(2, z)));
  });
  return values;
}

inline std::vector<char> randomMask(const Size& size, double density, std::mt19937& random) {
  std::vector<char> mask(voxelCount(size));
  std::bernoulli_distribution inside(density);
  for (char& voxel : mask) voxel = inside(random);
  return mask;
}

inline std::vector<char> bytes(const BitVolume& mask) {
  std::vector<char> result(voxelCount(mask.size()));
  mask.unpack(result);
  return result;
}

/// The voxels for which inside(x, y, z) holds.
template <class Inside>
BitVolume maskOf(const Size& size, Inside&& inside) {
  BitVolume mask(size);
  forVoxels(size, [&](int x, int y, int z, std::size_t) {
    if (inside(x, y, z)) mask.set(x, y, z);
  });
  return mask;
}

inline double dice(const std::vector<char>& a, const std::vector<char>& b) {
  const Size row = {int(a.size()), 1, 1};
  return overlap(BitVolume(a, row), BitVolume(b, row));
}

}  // namespace test_volumes
