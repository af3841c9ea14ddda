// Interface points and signed distance in the narrow band.
//
// Edge voxels get the point of the interface nearest to them from linear interpolation of Phi along
// the grid axes; Gauss-Seidel sweeps in the 2^D diagonal orders carry these points outward to the
// test voxels, each taking the nearest point known to its neighbours (closest-point fast sweeping).
// Distances and coordinates are in voxels; the distance is positive outside, negative inside.
// Sweeping: H. Zhao, Math. Comp. 74 (2005) 603-627; Y.-H. R. Tsai, J. Comput. Phys. 178 (2002)
// 175-195. Points by interpolation: D. Adalsteinsson, J. A. Sethian, J. Comput. Phys. 148 (1999).
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

#include "voxExactMath.h"
#include "voxParallel.h"

namespace tavrel {

/// Stands for a distance or coordinate that is not known (yet).
inline constexpr double unknownDistance = 100000;

/// Views of the band arrays of an engine over D axes. Band order: positive edge, negative edge,
/// positive test, negative test voxels; slots n_nbt and n_nbt + 1 stand for voxels outside the band
/// on the negative and the positive side.
template <int D>
struct Band {
  int n_pedge, n_edge, n_ptest, n_nbt;
  const int* sub;         ///< D coordinates a voxel
  const int* neighbours;  ///< 2*D band indices a voxel: +x, -x, +y, -y (, +z, -z)
  const double* Phi;      ///< n_nbt values
  double* F;              ///< speed, n_nbt + 1
  double* Fext;           ///< extension velocity, n_nbt + 2
  double* exact;          ///< interface point, D coordinates a slot, n_nbt + 2 slots
  double* usdf;           ///< unsigned distance, n_nbt + 2
  double* sdf;            ///< signed distance, n_nbt + 2

  const int* links(int i) const { return neighbours + static_cast<std::size_t>(2 * D) * i; }
  const int* coordinates(int i) const { return sub + static_cast<std::size_t>(D) * i; }
  double* point(int i) const { return exact + static_cast<std::size_t>(D) * i; }
};

/// Where the grid lines through an edge voxel cross the interface.
template <int D>
struct Crossings {
  int count = 0;                ///< axes that cross, in increasing order
  std::array<int, D> axis;      ///< which axis
  std::array<int, D> nearSlot;  ///< neighbour slot towards the crossing; the + one on equal values
  std::array<int, D> farSlot;   ///< the same, but the - one on equal values
  std::array<double, D> a;      ///< distance to the crossing along the axis, 0 to 1
};

template <int D>
Crossings<D> findCrossings(const Band<D>& band, int i) {
  Crossings<D> found;
  const int* link = band.links(i);
  const double p = band.Phi[i];
  const bool positive = i < band.n_pedge;
  for (int j = 0; j < D; ++j) {
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
template <int D>
void locateInterface(const Band<D>& band, int first, int last) {
  for (int i = first; i < last; ++i) {
    const Crossings<D> c = findCrossings(band, i);
    double* point = band.point(i);
    for (int j = 0; j < D; ++j) point[j] = band.coordinates(i)[j];
    double distance = 0;
    if (c.count == 1) {
      distance = c.a[0];
    } else if (c.count == 2) {
      distance = c.a[0] * c.a[1] / std::sqrt(c.a[0] * c.a[0] + c.a[1] * c.a[1]);
    } else if (D == 3 && c.count == 3) {
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

/// Sweeps over one side's test voxels: a contiguous piece of the band list in grid order.
///
/// A voxel's update depends on its face neighbours alone, so any order of visits that keeps every
/// pair of face neighbours in the same relative order gives the same bits: plane by plane, row by
/// row, each in the direction of its axis. A voxel none of whose neighbours changed since its last
/// visit would get the same answer again and is not visited.
template <int D>
class Sweeps {
 public:
  Sweeps(const Band<D>& band, int first, int last)
      : band_(band), first_(first), last_(last), stale_(last - first + 1, 1) {
    for (int i = first; i < last; ++i) {
      const int* now = band.coordinates(i);
      const int* before = i > first ? band.coordinates(i - 1) : nullptr;
      const bool newPlane = !before || (D == 3 && now[D - 1] != before[D - 1]);
      if (newPlane) planes_.push_back(static_cast<int>(rows_.size()));
      if (newPlane || now[1] != before[1]) rows_.push_back(i);
    }
    planes_.push_back(static_cast<int>(rows_.size()));
    rows_.push_back(last);
  }

  /// All 2^D sweeps; the x direction changes slowest, the last axis fastest.
  void run() {
    for (int directions = 0; directions < 1 << D; ++directions) {
      const bool xUp = directions >> (D - 1) & 1;
      const bool yUp = directions >> (D - 2) & 1;
      const bool zUp = D == 3 ? directions & 1 : true;
      sweep(xUp, yUp, zUp);
    }
  }

 private:
  void sweep(bool xUp, bool yUp, bool zUp) {
    const int planes = static_cast<int>(planes_.size()) - 1;
    for (int k = 0; k < planes; ++k) {
      const int plane = zUp ? k : planes - 1 - k;
      const int begin = planes_[plane];
      const int end = planes_[plane + 1];
      for (int j = 0; j < end - begin; ++j) {
        const int row = yUp ? begin + j : end - 1 - j;
        if (xUp) {
          for (int i = rows_[row]; i < rows_[row + 1]; ++i) visit(i);
        } else {
          for (int i = rows_[row + 1] - 1; i >= rows_[row]; --i) visit(i);
        }
      }
    }
  }

  void visit(int i) {
    if (!stale_[i - first_]) return;
    stale_[i - first_] = 0;
    if (!relax(i)) return;
#pragma GCC unroll 6
    for (int k = 0; k < 2 * D; ++k) {
      // Neighbours on other lists are marked in a spare place at the end.
      const unsigned neighbour = band_.links(i)[k] - first_;
      stale_[std::min(neighbour, static_cast<unsigned>(last_ - first_))] = 1;
    }
  }

  /// Takes the nearest interface point among the neighbours', if the voxel is at least about as far
  /// from it as the nearest known neighbour. Returns whether anything changed.
  bool relax(int i) {
    const int* link = band_.links(i);
    double nearest = band_.usdf[link[0]];
#pragma GCC unroll 6
    for (int k = 1; k < 2 * D; ++k) {
      const double u = band_.usdf[link[k]];
      nearest = u < nearest ? u : nearest;
    }
    if (!(nearest < unknownDistance)) return false;
    // Which neighbour wins is unpredictable, so it is found without branches.
    const int* own = band_.coordinates(i);
    double best = squaredDistance(own, band_.point(link[0]));
    int winner = link[0];
#pragma GCC unroll 6
    for (int k = 1; k < 2 * D; ++k) {
      const double squared = squaredDistance(own, band_.point(link[k]));
      const bool nearer = squared < best;
      winner ^= (winner ^ link[k]) & -int{nearer};
      best = nearer ? squared : best;
    }
    if (!(best + 0.0001 >= nearest * nearest)) return false;
    return assign(i, std::sqrt(best), band_.point(winner));
  }

  static double squaredDistance(const int* voxel, const double* point) {
    double squared = (voxel[0] - point[0]) * (voxel[0] - point[0]);
#pragma GCC unroll 2
    for (int j = 1; j < D; ++j) squared += (voxel[j] - point[j]) * (voxel[j] - point[j]);
    return squared;
  }

  bool assign(int i, double distance, const double* source) {
    const auto differs = [](double a, double b) {
      return std::bit_cast<std::uint64_t>(a) != std::bit_cast<std::uint64_t>(b);
    };
    double* point = band_.point(i);
    bool changed = differs(band_.usdf[i], distance);
    band_.usdf[i] = distance;
    for (int j = 0; j < D; ++j) {
      changed |= differs(point[j], source[j]);
      point[j] = source[j];
    }
    return changed;
  }

  const Band<D>& band_;
  int first_, last_;
  std::vector<unsigned char> stale_;  ///< 1: a neighbour changed since the last visit
  std::vector<int> rows_;             ///< first voxel of every row, then the end
  std::vector<int> planes_;           ///< first row of every plane, then the end
};

/// Unsigned distance and interface points of one side's test voxels; side 0 is the positive one. The
/// two never touch (face neighbours on different sides are edge voxels), so they may be swept at the
/// same time.
template <int D>
void sweepDistances(const Band<D>& band, int side) {
  const int middle = band.n_edge + band.n_ptest;
  Sweeps<D>(band, side == 0 ? band.n_edge : middle, side == 0 ? middle : band.n_nbt).run();
}

/// Gives the distances of slots [first, last) their sign; 0 on the negative side becomes -0.
template <int D>
void signDistances(const Band<D>& band, int first, int last) {
  for (int i = first; i < last; ++i) {
    const bool positive =
        i < band.n_pedge || i >= band.n_nbt || (i >= band.n_edge && i < band.n_edge + band.n_ptest);
    band.sdf[i] = positive ? band.usdf[i] : -band.usdf[i];
  }
}

}  // namespace tavrel
