// Speed of the interface: pressure, curvature and the comparison with the region means.
//
// F = w1 - w3 * curvature - w4 * |I - mean inside| + w5 * |I - mean outside|; a positive speed
// grows the inside. The curvature is the divergence of the unit normal of the signed distance (2/R
// for a sphere), by central differences: S. Osher, R. Fedkiw, "Level Set Methods
// and Dynamic Implicit Surfaces", Springer 2003, ch. 1. Region means in a box around each interface
// voxel: S. Lankton, A. Tannenbaum, IEEE Trans. Image Process. 17 (2008) 2029-2039; T. Chan,
// L. Vese, IEEE Trans. Image Process. 10 (2001) 266-277. Distances are in voxels.
#pragma once

#include "detail/voxExactMath.h"

// Exact from here on.
#include <array>
#include <cmath>
#include <cstddef>

#include "band.h"
#include "region_sums.h"

namespace tavrel::exact {

/// Signed distance around an edge voxel, read through the index map at clamped coordinates. All
/// voxels of the 3 x 3 x 3 block around it have to be in the band.
class Neighbourhood {
 public:
  Neighbourhood(const Band& band, const int* indices, Grid grid, int i)
      : sdf_(band.sdf), link_(band.links(i)), at_(indices), own_(band.sdf[i]) {
    const std::array<int, 3> size{grid.X, grid.Y, grid.Z};
    const std::array<int, 3> stride{1, grid.X, grid.plane()};
    const int* c = band.coordinates(i);
    for (int j = 0; j < 3; ++j) {
      at_ += static_cast<std::ptrdiff_t>(c[j]) * stride[j];
      up_[j] = c[j] + 1 < size[j] ? stride[j] : 0;
      down_[j] = c[j] > 0 ? -stride[j] : 0;
    }
  }

  /// First, second and mixed derivatives.
  double d(int j) const { return (plus(j) - minus(j)) * 0.5; }
  double dd(int j) const { return plus(j) + minus(j) + -2 * own_; }
  double mixed(int j, int k) const {
    return (value(up_[j] + up_[k]) + value(down_[j] + down_[k]) - value(up_[j] + down_[k]) -
            value(down_[j] + up_[k])) *
           0.25;
  }

 private:
  double plus(int j) const { return sdf_[link_[2 * j]]; }
  double minus(int j) const { return sdf_[link_[2 * j + 1]]; }
  double value(std::ptrdiff_t offset) const { return sdf_[at_[offset]]; }

  const double* sdf_;
  const int* link_;
  const int* at_;
  double own_;
  std::array<int, 3> up_, down_;
};

/// |grad|^3 from its square; where the gradient vanishes a value that makes the curvature ~0.
inline double cubedNorm(double squared) {
  const double cubed = std::pow(squared, 1.5);
  return cubed == 0 ? 1e10 : cubed;
}

inline double curvature(const Neighbourhood& f) {
  const double gx = f.d(0), gy = f.d(1), gz = f.d(2);
  const double gxx = f.dd(0), gyy = f.dd(1), gzz = f.dd(2);
  const double numerator = (gyy + gzz) * (gx * gx) + (gzz + gxx) * (gy * gy) +
                           (gxx + gyy) * (gz * gz) - 2 * gx * gy * f.mixed(0, 1) -
                           2 * gx * gz * f.mixed(0, 2) - 2 * gy * gz * f.mixed(1, 2);
  return numerator / cubedNorm(gx * gx + gy * gy + gz * gz);
}

/// F = w1 - curvature * w3 at edge voxels [first, last). `indices` is the grid's index map.
inline void curvatureSpeed(const Band& band, const int* indices, Grid grid, double w1, double w3,
                           int first, int last) {
  for (int i = first; i < last; ++i) {
    band.F[i] = w1 - curvature(Neighbourhood(band, indices, grid, i)) * w3;
  }
}

/// What the region term adds to a speed F at a voxel of intensity I.
inline double withRegionTerm(double F, double I, const RegionSums& sums, double w4, double w5) {
  return F - std::abs(I - sums.negative / sums.nNegative) * w4 +
         std::abs(I - sums.positive / sums.nPositive) * w5;
}

}  // namespace tavrel::exact
