// Phantom heads as scans in memory.
#pragma once

#include <algorithm>

#include "phantom.h"
#include "strip/stripping.h"
#include "volumes.h"

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

/// The scan on another grid, whose voxel (x, y, z) is the one at source({x, y, z}), or `beyond` for
/// what is not in it.
template <class Source>
TestScan rearranged(const TestScan& scan, const Grid& to, float beyond, Source&& source) {
  TestScan result{to, {}, {}, {}};
  const Size& size = scan.grid.size;
  forVoxels(to.size, [&](int x, int y, int z, std::size_t) {
    const Size p = source(Size{x, y, z});
    bool within = true;
    for (int d = 0; d < 3; ++d) within &= p[d] >= 0 && p[d] < size[d];
    const auto v = (std::size_t(p[2]) * size[1] + p[1]) * size[0] + p[0];
    result.values.push_back(within ? scan.values[v] : beyond);
    result.brain.push_back(within && scan.brain[v]);
  });
  return result;
}

/// An anatomical volume as stored.
inline TestScan storedAs(const TestScan& scan, const Orientation& o) {
  Grid grid;
  for (int d = 0; d < 3; ++d) {
    grid.size[o.axis[d]] = scan.grid.size[d];
    grid.spacing[o.axis[d]] = scan.grid.spacing[d];
  }
  TestScan result = rearranged(scan, grid, 0, [&](const Size& stored) {
    Size p;
    for (int d = 0; d < 3; ++d)
      p[d] = o.ascending[d] ? stored[o.axis[d]] : scan.grid.size[d] - 1 - stored[o.axis[d]];
    return p;
  });
  result.orientation = o;
  return result;
}

inline std::string codes(const Judgement& judgement) {
  std::string result;
  for (const Flag& flag : judgement.flags) result += flag.code + " ";
  return result;
}

}  // namespace test_volumes
