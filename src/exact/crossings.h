// Where the interface crosses the grid lines through an edge voxel, and the point of it nearest to
// the voxel, from linear interpolation of Phi along the axes: D. Adalsteinsson, J. A. Sethian,
// J. Comput. Phys. 148 (1999) 2-22. Distances and coordinates are in voxels.
#pragma once

#include "detail/voxExactMath.h"

// Exact from here on.
#include <array>
#include <cmath>

#include "band.h"

namespace tavrel::exact {

/// Where the grid lines through an edge voxel cross the interface.
struct Crossings {
  int count = 0;                ///< axes that cross, in increasing order
  std::array<int, 3> axis;      ///< which axis
  std::array<int, 3> nearSlot;  ///< neighbour slot towards the crossing; the + one on equal values
  std::array<int, 3> farSlot;   ///< the same, but the - one on equal values
  std::array<double, 3> a;      ///< distance to the crossing along the axis, 0 to 1
};

inline Crossings findCrossings(const Band& band, int i) {
  Crossings found;
  const int* link = band.links(i);
  const double p = band.Phi[i];
  const bool positive = i < band.n_pedge;
  for (int j = 0; j < 3; ++j) {
    const double plus = band.Phi[link[2 * j]];
    const double minus = band.Phi[link[2 * j + 1]];
    const bool takePlus = positive ? plus <= minus : minus <= plus;
    const double v = takePlus ? plus : minus;
    if (!(positive ? v <= 0 : v > 0)) continue;
    const int m = found.count++;
    found.axis[m] = j;
    found.nearSlot[m] = takePlus ? 2 * j : 2 * j + 1;
    found.farSlot[m] = takePlus && plus != minus ? 2 * j : 2 * j + 1;
    found.a[m] = p / (p - v);
  }
  return found;
}

/// Interface point and distance of edge voxels [first, last): the foot of the perpendicular onto
/// the line or plane through the crossings. A voxel on the interface (Phi exactly 0) with several
/// crossing axes is its own interface point at distance 0.
inline void locateInterface(const Band& band, int first, int last) {
  for (int i = first; i < last; ++i) {
    const Crossings c = findCrossings(band, i);
    double* point = band.point(i);
    for (int j = 0; j < 3; ++j) point[j] = band.coordinates(i)[j];
    double distance = 0;
    if (c.count == 1) {
      distance = c.a[0];
    } else if (c.count == 2) {
      distance = c.a[0] * c.a[1] / std::sqrt(c.a[0] * c.a[0] + c.a[1] * c.a[1]);
    } else if (c.count == 3) {
      const double b0 = c.a[1] * c.a[2];
      const double b1 = c.a[2] * c.a[0];
      const double b2 = c.a[0] * c.a[1];
      distance = c.a[0] * c.a[1] * c.a[2] / std::sqrt(b0 * b0 + b1 * b1 + b2 * b2);
    }
    if (c.count > 1 && band.Phi[i] == 0) {
      distance = 0;
    } else {
      for (int m = 0; m < c.count; ++m) {
        const double direction = c.nearSlot[m] % 2 == 0 ? 1 : -1;
        point[c.axis[m]] +=
            c.count == 1 ? c.a[0] * direction : distance * distance * direction / c.a[m];
      }
    }
    band.usdf[i] = distance;
  }
}

}  // namespace tavrel::exact
