// Signed distance in the narrow band.
//
// Gauss-Seidel sweeps in the eight diagonal orders carry the interface points of the edge voxels
// outward to the test voxels, each taking the nearest point known to its neighbours (closest-point
// fast sweeping): H. Zhao, Math. Comp. 74 (2005) 603-627; Y.-H. R. Tsai, J. Comput. Phys. 178
// (2002) 175-195. Distances are in voxels, positive outside and negative inside.
#pragma once

#include "detail/voxExactMath.h"

// Exact from here on.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "band.h"

namespace tavrel::exact {

/// Sweeps over one side's test voxels: a contiguous piece of the band list in grid order.
///
/// A voxel's update depends on its face neighbours alone, so any order of visits that keeps every
/// pair of face neighbours in the same relative order gives the same bits: plane by plane, row by
/// row, each in the direction of its axis. A voxel none of whose neighbours changed since its last
/// visit would get the same answer again and is not visited.
class Sweeps {
 public:
  Sweeps(const Band& band, int first, int last)
      : band_(band), first_(first), last_(last), stale_(last - first + 1, 1) {
    for (int i = first; i < last; ++i) {
      const int* now = band.coordinates(i);
      const int* before = i > first ? band.coordinates(i - 1) : nullptr;
      const bool newPlane = !before || now[2] != before[2];
      if (newPlane) planes_.push_back(static_cast<int>(rows_.size()));
      if (newPlane || now[1] != before[1]) rows_.push_back(i);
    }
    planes_.push_back(static_cast<int>(rows_.size()));
    rows_.push_back(last);
  }

  /// All eight sweeps; the x direction changes slowest, that of z fastest.
  void run() {
    for (int directions = 0; directions < 8; ++directions) {
      sweep(directions & 4, directions & 2, directions & 1);
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
    // Local copies: the compiler must assume that writing to a byte changes any member.
    unsigned char* const stale = stale_.data();
    const unsigned first = first_, spare = last_ - first_;
    if (!stale[i - first]) return;
    stale[i - first] = 0;
    if (!relax(i)) return;
    const int* const link = band_.links(i);
#pragma GCC unroll 6
    for (int k = 0; k < 6; ++k) {
      // Neighbours on other lists are marked in a spare place at the end.
      stale[std::min(link[k] - first, spare)] = 1;
    }
  }

  /// One value for each of the two neighbours along an axis. Which neighbour has the least is
  /// unpredictable, so it is found without branches.
  typedef double Pair [[gnu::vector_size(16)]];
  typedef std::int64_t PairBits [[gnu::vector_size(16)]];

  /// The least value; none that is not a number, save the first.
  static double least(const Pair* values) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    Pair smallest{values[0][0], values[0][1] < infinity ? values[0][1] : infinity};
#pragma GCC unroll 2
    for (int axis = 1; axis < 3; ++axis) {
      smallest = values[axis] < smallest ? values[axis] : smallest;
    }
    return smallest[1] < smallest[0] ? smallest[1] : smallest[0];
  }

  /// Number of the first neighbour with this value, which is one of them.
  static int firstEqual(const Pair* values, double value) {
    PairBits equal{};
#pragma GCC unroll 3
    for (int axis = 0; axis < 3; ++axis) {
      equal |= (values[axis] == Pair{value, value}) & PairBits{1 << 2 * axis, 2 << 2 * axis};
    }
    return std::countr_zero(static_cast<unsigned>(equal[0] | equal[1]));
  }

  /// Where a voxel is.
  struct Voxel {
    Pair xy, zz;
    explicit Voxel(const int* c) : xy{double(c[0]), double(c[1])}, zz{double(c[2]), double(c[2])} {}
    /// Squares of the distances to the points p and q.
    Pair squaredDistances(const double* p, const double* q) const {
      Pair a = xy - Pair{p[0], p[1]};
      Pair b = xy - Pair{q[0], q[1]};
      a *= a;
      b *= b;
      const Pair c = zz - Pair{p[2], q[2]};
      return Pair{a[0], b[0]} + Pair{a[1], b[1]} + c * c;
    }
  };

  /// Takes the nearest interface point among the neighbours', if the voxel is at least about as far
  /// from it as the nearest known neighbour. Returns whether anything changed.
  bool relax(int i) {
    const int* link = band_.links(i);
    Pair known[3], squared[3];
    for (int k = 0; k < 3; ++k) {
      known[k] = Pair{band_.usdf[link[2 * k]], band_.usdf[link[2 * k + 1]]};
    }
    const double nearest = least(known);
    if (!(nearest < unknownDistance)) return false;
    const Voxel own(band_.coordinates(i));
    for (int k = 0; k < 3; ++k) {
      squared[k] = own.squaredDistances(band_.point(link[2 * k]), band_.point(link[2 * k + 1]));
    }
    const double best = least(squared);
    if (!(best + 0.0001 >= nearest * nearest)) return false;
    return assign(i, std::sqrt(best), band_.point(link[firstEqual(squared, best)]));
  }

  /// Gives a voxel a distance and the interface point at `source`; returns whether that changes a
  /// bit. x and y go in one store, since the next voxel may read them in one load.
  bool assign(int i, double distance, const double* source) {
    const auto difference = [](double a, double b) {
      return std::bit_cast<std::uint64_t>(a) ^ std::bit_cast<std::uint64_t>(b);
    };
    double* point = band_.point(i);
    std::uint64_t changed = difference(band_.usdf[i], distance);
    band_.usdf[i] = distance;
    PairBits before, after;
    std::memcpy(&before, point, sizeof before);
    std::memcpy(&after, source, sizeof after);
    std::memcpy(point, &after, sizeof after);
    before ^= after;
    changed |= before[0] | before[1] | difference(point[2], source[2]);
    point[2] = source[2];
    return changed != 0;
  }

  const Band band_;
  int first_, last_;
  std::vector<unsigned char> stale_;  ///< 1: a neighbour changed since the last visit
  std::vector<int> rows_;             ///< first voxel of every row, then the end
  std::vector<int> planes_;           ///< first row of every plane, then the end
};

/// Unsigned distance and interface points of one side's test voxels; side 0 is the positive one.
/// The two never touch (face neighbours on different sides are edge voxels), so they may be swept
/// at the same time.
inline void sweepDistances(const Band& band, int side) {
  const int middle = band.n_edge + band.n_ptest;
  Sweeps(band, side == 0 ? band.n_edge : middle, side == 0 ? middle : band.n_nbt).run();
}

/// Gives the distances of slots [first, last) their sign; 0 on the negative side becomes -0.
inline void signDistances(const Band& band, int first, int last) {
  for (int i = first; i < last; ++i) {
    const bool positive =
        i < band.n_pedge || i >= band.n_nbt || (i >= band.n_edge && i < band.n_edge + band.n_ptest);
    band.sdf[i] = positive ? band.usdf[i] : -band.usdf[i];
  }
}

}  // namespace tavrel::exact
