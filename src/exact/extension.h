// Extension of the interface speed over the narrow band.
//
// Edge voxels interpolate the speed at their interface point; test voxels take upwind averages of
// their nearer neighbours, the discrete form of grad Fext . grad distance = 0, so that the extended
// speed is constant along the normals and Phi stays close to a signed distance.
// D. Adalsteinsson, J. A. Sethian, "The fast construction of extension velocities in level set
// methods", J. Comput. Phys. 148 (1999) 2-22.
#pragma once

#include "detail/voxExactMath.h"

// Exact from here on.
#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "band.h"
#include "crossings.h"
#include "../parallel.h"

namespace tavrel::exact {

/// Speed at the interface point of edge voxels [first, last): along each crossing axis the speed is
/// interpolated between the voxel and the neighbour across, and the crossings are weighted by the
/// inverse squares of their distances. A voxel on the interface (Phi exactly 0) with several
/// crossing axes takes the plain mean.
inline void extendToInterface(const Band& band, int first, int last) {
  for (int i = first; i < last; ++i) {
    const Crossings c = findCrossings(band, i);
    const double own = band.F[i];
    const auto across = [&](int m) {
      return band.F[std::min(band.links(i)[c.farSlot[m]], band.n_edge)];
    };
    if (c.count == 0) {
      band.Fext[i] = own;
      continue;
    }
    if (c.count == 1) {
      const double u = band.usdf[i];
      band.Fext[i] = u * own + (1 - u) * across(0);
      continue;
    }
    std::array<double, 3> speed;
    for (int m = 0; m < c.count; ++m) speed[m] = c.a[m] * own + (1 - c.a[m]) * across(m);
    if (c.count == 2) {
      const double r = std::sqrt(c.a[0] * c.a[0] + c.a[1] * c.a[1]);
      band.Fext[i] = band.Phi[i] == 0
                         ? (speed[0] + speed[1]) / 2
                         : (speed[1] * (c.a[0] * c.a[0]) + c.a[1] * c.a[1] * speed[0]) / (r * r);
    } else {
      const double v0 = c.a[2] * c.a[1];
      const double v1 = c.a[2] * c.a[0];
      const double v2 = c.a[0] * c.a[1];
      const double r = std::sqrt(v0 * v0 + v1 * v1 + v2 * v2);
      band.Fext[i] = band.Phi[i] == 0
                         ? (speed[0] + speed[1] + speed[2]) / 3
                         : (v0 * v0 * speed[0] + v1 * v1 * speed[1] + v2 * v2 * speed[2]) / (r * r);
    }
  }
}

/// Extension over one side's test voxels, a contiguous piece of the band list.
///
/// The values are those of a visit in increasing distance, equal distances in band order. No sort
/// is needed: a voxel reads only neighbours that come before it in that order, so it is enough to
/// compute each voxel after the neighbours it depends on. That happens in passes up and down the
/// list, each over the voxels that the passes before had to leave; the directions alternate, so
/// that a chain of voxels that depend on each other takes one pass for each of its turns.
class TestVoxelExtension {
 public:
  TestVoxelExtension(const Band& band, int first, int last)
      : band_(band), first_(first), done_(last - first, 0) {
    std::vector<int> waiting, still;
    for (int i = first; i < last; ++i) {
      if (!compute(i)) waiting.push_back(i);
    }
    while (!waiting.empty()) {
      still.clear();
      for (auto i = waiting.rbegin(); i != waiting.rend(); ++i) {
        if (!compute(*i)) still.push_back(*i);
      }
      waiting.swap(still);
    }
  }

 private:
  struct Axis {
    double distance;
    int neighbour;
  };

  bool isTest(int i) const {
    return static_cast<unsigned>(i - band_.n_edge) <
           static_cast<unsigned>(band_.n_nbt - band_.n_edge);
  }
  bool isDone(int i) const { return done_[i - first_]; }

  /// Whether voxel i is visited before voxel j; distances that are not numbers come last.
  bool before(int i, int j) const {
    const double a = band_.usdf[i];
    const double b = band_.usdf[j];
    if (a < b) return true;
    if (b < a) return false;
    if (std::isnan(a) != std::isnan(b)) return std::isnan(b);
    return i < j;
  }

  /// Computes voxel j and returns true, or false if it waits for a neighbour.
  bool compute(int j) {
    const double u = band_.usdf[j];
    const int* link = band_.links(j);
    std::array<Axis, 4> upwind;  // one place more, so that every axis can be written
    int count = 0;
    for (int axis = 0; axis < 3; ++axis) {
      const double plus = band_.usdf[link[2 * axis]];
      const double minus = band_.usdf[link[2 * axis + 1]];
      const int slot = 2 * axis + !(plus < minus);
      upwind[count] = {plus < minus ? plus : minus, link[slot]};
      count += u > upwind[count].distance;
    }
    if (count == 0) return computeWithoutUpwind(j);
    for (int m = 0; m < count; ++m) {
      const int neighbour = upwind[m].neighbour;
      if (isTest(neighbour) && !isDone(neighbour)) return false;
    }
    done_[j - first_] = 1;
    band_.Fext[j] = average(upwind, count, u);
    return true;
  }

  /// No axis is upwind: the value of the nearer x neighbour, whatever it is at the visit.
  bool computeWithoutUpwind(int j) {
    const int* link = band_.links(j);
    const int neighbour = link[band_.usdf[link[0]] < band_.usdf[link[1]] ? 0 : 1];
    const bool visitedLater = isTest(neighbour) && !before(neighbour, j);
    if (isTest(neighbour) && !visitedLater && !isDone(neighbour)) return false;
    done_[j - first_] = 1;
    band_.Fext[j] = visitedLater ? 0.0 : band_.Fext[neighbour];
    return true;
  }

  /// Mean of the upwind neighbours' values, weighted by how much nearer to the interface each is.
  double average(const std::array<Axis, 4>& upwind, int count, double u) const {
    const auto f = [&](int m) { return band_.Fext[upwind[m].neighbour]; };
    const auto s = [&](int m) { return upwind[m].distance; };
    if (count == 1) return f(0);
    if (count == 2) {
      return ((s(0) - u) * f(0) + (s(1) - u) * f(1)) / (s(0) + s(1) + -2 * u);
    }
    return ((s(0) - u) * f(0) + (s(1) - u) * f(1) + (s(2) - u) * f(2)) /
           (s(2) + s(0) + s(1) + -3 * u);
  }

  const Band& band_;
  int first_;
  std::vector<unsigned char> done_;
};

/// Extension velocities of all test voxels; the two sides are independent of each other.
inline void extendOverBand(const Band& band, int threads) {
  parallelFor(threads, 2, [&](int side) {
    const int middle = band.n_edge + band.n_ptest;
    TestVoxelExtension(band, side == 0 ? band.n_edge : middle, side == 0 ? middle : band.n_nbt);
  });
}

}  // namespace tavrel::exact
