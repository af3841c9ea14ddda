// What the engine and pipeline tests share: both dimensions under one name, comparison in all
// bits, and random volumes.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <iomanip>
#include <memory>
#include <random>
#include <vector>

#include "plain_engine.h"
#include "vox2DLevelSet.h"
#include "vox3DLevelSet.h"

namespace tavrel::test {

using plain::Grid;
using plain::Point;

/// What names the 2-D and the 3-D engine apart.
template <int D>
struct Twin;
template <>
struct Twin<3> {
  static constexpr int D = 3;
  using Engine = vox3DLevelSet<double, char>;
  using Matrix = vox3DMat<double, char>;
  static std::unique_ptr<Matrix> matrix(Point s) {
    return std::make_unique<Matrix>(s[0], s[1], s[2]);
  }
  static const int* neighbours(const Engine& e) { return e.spar_nbt_6neigh_ind; }
  static const void* unused(const Engine& e) { return e.ori_nbt_6neigh_ind; }
  static int sizeZ(const Engine& e) { return e.sizeZ; }
  static constexpr const char* destructorLine = "empty vox3DLevelSet destructed\n";
};
template <>
struct Twin<2> {
  static constexpr int D = 2;
  using Engine = vox2DLevelSet<double, char>;
  using Matrix = vox2DMat<double, char>;
  static std::unique_ptr<Matrix> matrix(Point s) { return std::make_unique<Matrix>(s[0], s[1]); }
  static const int* neighbours(const Engine& e) { return e.spar_nbt_4neigh_ind; }
  static const void* unused(const Engine& e) { return e.ori_nbt_4neigh_ind; }
  static int sizeZ(const Engine&) { return 1; }
  static constexpr const char* destructorLine = "empty vox2DLevelSet destructed\n";
};

template <int D>
auto toMatrix(const Grid<double>& g) {
  auto m = Twin<D>::matrix(g.size);
  std::copy(g.p.begin(), g.p.end(), m->p);
  return m;
}

// ---- comparison in all bits -------------------------------------------------------------------

inline bool same(double a, double b) {
  return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b) ||
         (std::isnan(a) && std::isnan(b));
}
inline bool same(int a, int b) { return a == b; }

/// The elements of `got` against those of `want`; names the first that differs.
template <class T, class U>
void expectSame(const char* field, const T* got, const std::vector<U>& want) {
  ASSERT_TRUE(got != nullptr || want.empty()) << field << " does not exist";
  std::size_t differing = 0, first = 0;
  for (std::size_t n = want.size(); n-- > 0;) {
    if (!same(static_cast<U>(got[n]), want[n])) ++differing, first = n;
  }
  if (differing == 0) return;
  ADD_FAILURE() << field << ": " << differing << " of " << want.size() << " differ, first ["
                << first << "] = " << std::setprecision(17) << +static_cast<U>(got[first])
                << " instead of " << +want[first];
}

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
  Grid<double> g(size);
  double k[3][3], phase[3];
  for (int w = 0; w < 3; ++w) {
    phase[w] = r.between(0, 6);
    for (double& f : k[w]) f = r.between(-0.5, 0.5);
  }
  g.scan([&](Point q) {
    double& v = g.p[g.index(q)];
    for (int w = 0; w < 3; ++w)
      v += std::sin(k[w][0] * q[0] + k[w][1] * q[1] + k[w][2] * q[2] + phase[w]) / 3;
  });
  return g;
}

}  // namespace tavrel::test
