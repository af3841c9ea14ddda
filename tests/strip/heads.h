// Phantom heads as scans in memory.
#pragma once

#include <algorithm>

#include "phantom.h"
#include "strip/stripping.h"

namespace test_volumes {

using namespace tavrel::strip;

/// A scan in memory, and the brain that is in it.
struct TestScan {
  Grid grid;
  std::vector<float> values;
  std::vector<char> brain;
  std::optional<Orientation> orientation;

  ScanView view() const {
    return {grid, orientation, [this](std::size_t first, std::span<float> voxels) {
              std::copy_n(values.begin() + std::ptrdiff_t(first), voxels.size(), voxels.begin());
            }};
  }
};

/// The phantom's field of view of 164 x 200 x 184 mm with voxels of about so many millimetres.
inline TestScan phantomHead(double mm) {
  const Size size = {int(164 / mm), int(200 / mm), int(184 / mm)};
  const tavrel::Phantom phantom = tavrel::makePhantom(size[0], size[1], size[2]);
  TestScan scan{{size, {mm, mm, mm}}, {}, {phantom.brain.begin(), phantom.brain.end()}, {}};
  for (const double v : phantom.image) scan.values.push_back(float(std::max(0.0, v) * 1000));
  return scan;
}

/// A volume whose voxel (x, y, z) is that of another at source(x, y, z), or `beyond` for one that
/// is not in it.
template <class T, class Source>
std::vector<T> rearranged(const std::vector<T>& values, const Size& from, const Size& to, T beyond,
                          Source&& source) {
  std::vector<T> result;
  if (values.empty()) return result;
  for (int z = 0; z < to[2]; ++z)
    for (int y = 0; y < to[1]; ++y)
      for (int x = 0; x < to[0]; ++x) {
        const Size p = source(Size{x, y, z});
        bool within = true;
        for (int d = 0; d < 3; ++d) within &= p[d] >= 0 && p[d] < from[d];
        result.push_back(within ? values[(std::size_t(p[2]) * from[1] + p[1]) * from[0] + p[0]]
                                : beyond);
      }
  return result;
}

/// The scan on another grid, both values and brain rearranged.
template <class Source>
TestScan rearranged(const TestScan& scan, const Grid& to, float beyond, Source&& source) {
  return {to,
          rearranged(scan.values, scan.grid.size, to.size, beyond, source),
          rearranged(scan.brain, scan.grid.size, to.size, char(0), source),
          {}};
}

inline double dice(const std::vector<char>& a, const std::vector<char>& b) {
  std::size_t both = 0, sum = 0;
  for (std::size_t v = 0; v < a.size(); ++v)
    both += std::size_t(a[v] & b[v]), sum += std::size_t(a[v] + b[v]);
  return 2 * double(both) / double(sum);
}

inline std::string codes(const Judgement& judgement) {
  std::string result;
  for (const Flag& flag : judgement.flags) result += flag.code + " ";
  return result;
}

}  // namespace test_volumes
