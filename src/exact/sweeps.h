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
#include <cstring>
#include <limits>
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
    // Local copies: the compiler must assume that writing to a byte changes any member.
    unsigned char* const stale = stale_.data();
    const unsigned first = first_, spare = last_ - first_;
    if (!stale[i - first]) return;
    stale[i - first] = 0;
    if (!relax(i)) return;
    const int* const link = band_.links(i);
#pragma GCC unroll 6
    for (int k = 0; k < 2 * D; ++k) {
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
    for (int axis = 1; axis < D; ++axis) {
      smallest = values[axis] < smallest ? values[axis] : smallest;
    }
    return smallest[1] < smallest[0] ? smallest[1] : smallest[0];
  }

  /// Number of the first neighbour with this value, which is one of them.
  static int firstEqual(const Pair* values, double value) {
    PairBits equal{};
#pragma GCC unroll 3
    for (int axis = 0; axis < D; ++axis) {
      equal |= (values[axis] == Pair{value, value}) & PairBits{1 << 2 * axis, 2 << 2 * axis};
    }
    return std::countr_zero(static_cast<unsigned>(equal[0] | equal[1]));
  }

  /// Where a voxel is.
  struct Voxel {
    Pair xy, zz;
    explicit Voxel(const int* c) : xy{double(c[0]), double(c[1])}, zz{} {
      if constexpr (D == 3) zz = Pair{double(c[2]), double(c[2])};
    }
    /// Squares of the distances to the points p and q.
    Pair squaredDistances(const double* p, const double* q) const {
      Pair a = xy - Pair{p[0], p[1]};
      Pair b = xy - Pair{q[0], q[1]};
      a *= a;
      b *= b;
      Pair squared = Pair{a[0], b[0]} + Pair{a[1], b[1]};
      if constexpr (D == 3) {
        const Pair c = zz - Pair{p[2], q[2]};
        squared += c * c;
      }
      return squared;
    }
  };

  /// Takes the nearest interface point among the neighbours', if the voxel is at least about as far
  /// from it as the nearest known neighbour. Returns whether anything changed.
  bool relax(int i) {
    const int* link = band_.links(i);
    Pair known[D], squared[D];
    for (int k = 0; k < D; ++k) {
      known[k] = Pair{band_.usdf[link[2 * k]], band_.usdf[link[2 * k + 1]]};
    }
    const double nearest = least(known);
    if (!(nearest < unknownDistance)) return false;
    const Voxel own(band_.coordinates(i));
    for (int k = 0; k < D; ++k) {
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
    changed |= before[0] | before[1];
    if constexpr (D == 3) {
      changed |= difference(point[2], source[2]);
      point[2] = source[2];
    }
    return changed != 0;
  }

  const Band<D> band_;
  int first_, last_;
  std::vector<unsigned char> stale_;  ///< 1: a neighbour changed since the last visit
  std::vector<int> rows_;             ///< first voxel of every row, then the end
  std::vector<int> planes_;           ///< first row of every plane, then the end
};

/// Unsigned distance and interface points of one side's test voxels; side 0 is the positive one.
/// The two never touch (face neighbours on different sides are edge voxels), so they may be swept
/// at the same time.
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
