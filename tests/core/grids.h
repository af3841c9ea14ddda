// What the tests of matrices and of the evolution share: plain grids to compare with, both
// dimensions under one name, comparison in all bits, random functions and images.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <iomanip>
#include <limits>
#include <memory>
#include <random>
#include <span>
#include <type_traits>
#include <vector>

#include "vox2DLevelSet.h"
#include "vox3DLevelSet.h"

namespace tavrel::test {

using plain::Point;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

/// A dense grid. A 2-D grid has size[2] = 1.
template <class T>
struct Grid {
  Point size{1, 1, 1};
  std::vector<T> p{};

  Grid() = default;
  explicit Grid(Point s, T value = T{})
      : size(s), p(static_cast<std::size_t>(s[0]) * s[1] * s[2], value) {}
  T& operator[](Point q) { return p[q[0] + q[1] * size[0] + q[2] * size[0] * size[1]]; }
  const T& operator[](Point q) const { return const_cast<Grid&>(*this)[q]; }
  bool operator==(const Grid&) const = default;
};

/// A grid whose voxel (x, y, z) is value(x, y, z).
template <class T = double, class F>
Grid<T> filled(Point size, F value) {
  Grid<T> g(size);
  plain::scan(size, [&](Point q) { g[q] = value(q[0], q[1], q[2]); });
  return g;
}

// ---- the documented classes ---------------------------------------------------------------------

template <int D, class T, class U>
using MatrixOf = std::conditional_t<D == 3, vox3DMat<T, U>, vox2DMat<T, U>>;
template <int D, class T = double>
using LevelSetOf = std::conditional_t<D == 3, vox3DLevelSet<T, char>, vox2DLevelSet<T, char>>;
using Image = vox3DMat<double, char>;
using Mask = vox3DMat<char, double>;
using Slice = vox2DMat<double, char>;
using MaskSlice = vox2DMat<char, double>;

template <class Matrix>
Point sizeOf(const Matrix& m) {
  if constexpr (requires { m.sizeZ; }) {
    return {m.sizeX, m.sizeY, m.sizeZ};
  } else {
    return {m.sizeX, m.sizeY, 1};
  }
}

template <class Matrix, class T>
std::unique_ptr<Matrix> toMatrix(const Grid<T>& g) {
  auto m = std::make_unique<Matrix>();
  if constexpr (requires { m->sizeZ; }) {
    m->setup(g.size[0], g.size[1], g.size[2]);
  } else {
    m->setup(g.size[0], g.size[1]);
  }
  std::copy(g.p.begin(), g.p.end(), m->p);
  return m;
}

/// The numbers that the voxels stand for.
template <class Matrix>
Grid<double> toGrid(const Matrix& m) {
  Grid<double> g(sizeOf(m));
  std::transform(m.p, m.p + g.p.size(), g.p.begin(), [](auto v) { return number(v); });
  return g;
}
/// The same of a new matrix that an operation returned, and which goes with it.
template <class Matrix>
Grid<double> toGrid(Matrix* m) {
  return toGrid(*std::unique_ptr<Matrix>(m));
}

// ---- comparison in all bits ---------------------------------------------------------------------

inline bool same(double a, double b) {
  return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b) ||
         (std::isnan(a) && std::isnan(b));
}

/// The elements of `got` against those of `wanted`; names the first that differs.
template <class T, class Range>
void expectSame(const char* field, const T* got, const Range& wanted) {
  const std::span want(wanted);
  ASSERT_TRUE(got != nullptr || want.empty()) << field << " does not exist";
  std::size_t differing = 0, first = 0;
  for (std::size_t n = want.size(); n-- > 0;) {
    if (!same(number(got[n]), number(want[n]))) ++differing, first = n;
  }
  if (differing == 0) return;
  ADD_FAILURE() << field << ": " << differing << " of " << want.size() << " differ, first ["
                << first << "] = " << std::setprecision(17) << +got[first] << " instead of "
                << +want[first];
}

// ---- random functions and images ----------------------------------------------------------------

class Random {
 public:
  explicit Random(unsigned seed) : bits_(seed) {}
  int below(int n) { return static_cast<int>(bits_() % static_cast<unsigned>(n)); }
  double between(double lo, double hi) { return lo + (hi - lo) * (bits_() / 4294967296.0); }

 private:
  std::mt19937 bits_;
};

/// A sum of waves over the grid, between about -1 and 1.
inline Grid<double> waves(Point size, Random& r) {
  double k[3][3], phase[3];
  for (int w = 0; w < 3; ++w) {
    phase[w] = r.between(0, 6);
    for (double& f : k[w]) f = r.between(-0.5, 0.5);
  }
  return filled(size, [&](int x, int y, int z) {
    double v = 0;
    for (int w = 0; w < 3; ++w)
      v += std::sin(k[w][0] * x + k[w][1] * y + k[w][2] * z + phase[w]) / 3;
    return v;
  });
}

enum FunctionKind { kBlobs, kMask, kBall, kPlane, kSpots, kTies, kNoise, kScales, kOneSided };
constexpr int kFunctions = kOneSided + 1;

inline Grid<double> randomFunction(int kind, Point size, Random& r) {
  Grid<double> g = waves(size, r);
  const double shift = r.between(-0.3, 0.3);
  const Point c{r.below(size[0]), r.below(size[1]), r.below(size[2])};
  const double radius = r.between(0.4, 9), slope = r.between(0.1, 3);
  const int axis = r.below(3);
  const int ties[] = {-2, -1, -1, 0, 0, 1, 1, 2};
  plain::scan(size, [&](Point q) {
    double& v = g[q];
    if (kind == kBlobs) v += shift;
    if (kind == kMask) v = v < shift ? -0.5 : 0.5;
    if (kind == kBall) v = std::hypot(q[0] - c[0], q[1] - c[1], q[2] - c[2]) - radius;
    if (kind == kPlane) v = (q[axis] - c[axis] - shift) * slope;
    if (kind == kSpots) v = r.below(40) == 0 ? 0.5 : -0.5;
    if (kind == kTies) v = ties[r.below(8)] * (r.below(2) ? 0.5 : -0.5);  // 0 and -0 too
    if (kind == kNoise) v = r.between(-1, 1);
    if (kind == kScales) v = r.between(-1, 1) * std::pow(10.0, r.below(17) - 8);
    if (kind == kOneSided) v += slope > 1.5 ? 2 : -2;
  });
  return g;
}

/// Voxels of images: sums that cross binades, round half-way or leave the range of tables; from
/// `kBroken` on, what goes through as the arithmetic has it.
inline double (*const kImages[])(Random&) = {
    [](Random& r) { return r.between(0, 1); },
    [](Random& r) { return r.below(256) / 255.0; },
    [](Random& r) { return double(r.below(256)); },
    [](Random& r) { return double(r.below(2)); },
    [](Random&) { return 1.0; },                // every power of two is met exactly
    [](Random& r) { return r.between(0, 4); },  // sums leave the tables at the top
    [](Random&) { return std::nextafter(1.0, 0.0); },
    // Odd multiples of half an ulp of sums in [2^e, 2^(e+1)), for small to large e; now and then.
    [](Random& r) { return std::ldexp(2 * r.below(1 << 20) + 1, r.below(12) - 53); },
    [](Random& r) { return r.below(256) / 256.0 + (r.below(9) ? 0 : std::ldexp(1, -44)); },
    // Many scales, below the last place, sparse and tiny, denormal.
    [](Random& r) { return std::ldexp(r.between(0, 1), r.below(60) - 55); },
    [](Random& r) { return r.below(30) ? std::ldexp(1, -60) : 3.0; },
    [](Random& r) { return r.below(400) ? 0 : std::ldexp(1, r.below(5) - 50); },
    [](Random& r) { return r.between(0, 1) * 1e-310; },
    // Some negative, nearly all negative, with outliers, huge.
    [](Random& r) { return r.between(-0.1, 1); },
    [](Random& r) { return r.below(4) ? -r.between(0, 1) : -0.0; },
    [](Random& r) { return r.between(0, 1) * (r.below(300) ? 1 : 1e12); },
    [](Random& r) { return r.between(0, 1) * 1e308; },
    [](Random& r) { return r.below(2000) ? 0.5 : kInfinity; },
    [](Random& r) { return r.below(2000) ? 0.5 : kNaN; },
};
constexpr int kUniform = 0, kBroken = 16;

inline Grid<double> randomImage(int kind, Point size, Random& r) {
  return filled(size, [&](int, int, int) { return kImages[kind](r); });
}

}  // namespace tavrel::test
