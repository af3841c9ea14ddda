// The stages of one evolution step, in two or three dimensions: what vox3DLevelSet and
// vox2DLevelSet do.
//
// Written for reading, not for speed: every sweep really sorts, every region sum starts from
// scratch. A stage works from the public fields of its object alone. Phi is negative inside;
// coordinates and distances are in voxels of the grid being evolved; a 2-D grid is one plane z = 0.
// Arithmetic is in double, evaluated from left to right, each operation rounded on its own.
//
// Interface by interpolation, extension velocities: D. Adalsteinsson, J. A. Sethian, J. Comput.
// Phys. 148 (1999) 2-22. Sweeps: H. Zhao, Math. Comp. 74 (2005) 603-627; Y.-H. R. Tsai, J. Comput.
// Phys. 178 (2002) 175-195. Curvature: S. Osher, R. Fedkiw, "Level Set Methods and Dynamic Implicit
// Surfaces", Springer 2003, ch. 1. Region means around every interface voxel: S. Lankton,
// A. Tannenbaum, IEEE Trans. Image Process. 17 (2008) 2029-2039.
#pragma once

#include "voxExactMath.h"

// The rules above hold from here on.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <string>
#include <type_traits>
#include <vector>

#include "../voxUtility.h"
#include "voxFatal.h"

namespace tavrel {
namespace plain {

using Point = std::array<int, 3>;

constexpr double kFar = 100000;  ///< a distance, or a coordinate of an interface point, not known
constexpr int kBoxSize = 10;     ///< half-width of the box of the region term

/// What tells a level-set class from its twin; specialised beside each of them:
///   axes                  2 or 3
///   Value                 the type of Phi's values
///   newMap<V>(size)       a new matrix of such a size
///   takeSizes(e, Phi)     sets the object's sizes to Phi's
///   size(e)               them
///   neighbours(e)         the neighbour table
///   dilate(mask, passes)  dilates a matrix by a box
template <class LevelSet>
struct Face;

/// Calls f(q) for every voxel of a grid, z outermost, x innermost.
template <class F>
void scan(Point size, F f) {
  for (int z = 0; z < size[2]; ++z)
    for (int y = 0; y < size[1]; ++y)
      for (int x = 0; x < size[0]; ++x) f(Point{x, y, z});
}

/// Calls f for every voxel of a box of 2 * reach + 1 voxels an axis around q, cut off at the grid.
template <class F>
void forBox(Point q, int reach, Point size, F f) {
  Point low, extent;
  for (int a = 0; a < 3; ++a) {
    low[a] = std::max(q[a] - reach, 0);
    extent[a] = std::min(q[a] + reach, size[a] - 1) - low[a] + 1;
  }
  scan(extent, [&](Point b) { f(Point{low[0] + b[0], low[1] + b[1], low[2] + b[2]}); });
}

/// Releases what a field owns. All arrays come from new[].
template <class T>
void releaseArray(T*& field) {
  delete[] field;
  clear(field);
}
template <class Matrix>
void releaseMatrix(Matrix*& field) {
  delete field;
  clear(field);
}

/// The stages over the fields of one object.
template <class LevelSet>
class Stages {
  using Face = plain::Face<LevelSet>;
  using T = typename Face::Value;
  static constexpr int D = Face::axes;
  static constexpr int K = 2 * D;  // face neighbours: +x, -x, +y, -y (, +z, -z)

 public:
  explicit Stages(LevelSet& object) : e(object) {}

  template <class Matrix>
  void labelEdges(const Matrix& Phi) {
    Face::takeSizes(e, Phi);
    e.n_pedge = e.n_nedge = 0;
    releaseMatrix(e.label);
    e.label = Face::template newMap<char>(size());
    releaseMatrix(e.mask_indices);
    e.mask_indices = Face::template newMap<int>(size());
    scan(size(), [&](Point q) {
      const bool positive = isPositive(Phi.p[index(q)]);
      bool edge = false;
      for (int k = 0; k < K; ++k) {
        if (isPositive(Phi.p[index(neighbour(q, k))]) != positive) edge = true;
      }
      e.mask_indices->p[index(q)] = positive ? 1 : 0;
      const int code = edge ? 1 : 3;
      e.label->p[index(q)] = static_cast<char>(positive ? code : -code);
      if (edge) ++(positive ? e.n_pedge : e.n_nedge);
    });
    e.n_edge = e.n_pedge + e.n_nedge;
  }

  template <class Matrix>
  void labelnbt(int bwt, const Matrix& Phi) {
    releaseMatrix(e.mask_nbt);
    e.mask_nbt = e.label->thresholding(-1, 1);
    Face::dilate(*e.mask_nbt, bwt);
    listVoxels();
    *e.mask_indices += e.n_nbt;
    for (int i = 0; i < e.n_nbt; ++i) e.mask_indices->p[e.ori_nbt_ind[i]] = i;
    linkVoxels();
    fillArrays(Phi);
  }

  void findEdgeExact() {
    for (int i = 0; i < e.n_edge; ++i) {
      const double p = e.Spar_Phi[i];
      const bool positive = i < e.n_pedge;
      int m = 0, axis[D];
      double a[D], d[D];
      for (int j = 0; j < D; ++j) {
        const double qp = e.Spar_Phi[link(i, 2 * j)], qm = e.Spar_Phi[link(i, 2 * j + 1)];
        const bool plus = positive ? qp <= qm : qm <= qp;  // ties: the + neighbour
        const double v = plus ? qp : qm;
        if (!crosses(positive, v)) continue;
        axis[m] = j;
        a[m] = p / (p - v);
        d[m] = plus ? 1 : -1;
        ++m;
      }
      T* const point = e.Spar_exact + at(D, i);
      for (int j = 0; j < D; ++j) point[j] = coordinate(i, j);
      double distance = 0;
      if (m == 1) {
        distance = a[0];
        point[axis[0]] = point[axis[0]] + a[0] * d[0];
      } else if (m > 1 && !onInterface(i)) {
        distance = distanceThrough(a, m);
        for (int c = 0; c < m; ++c)
          point[axis[c]] = point[axis[c]] + distance * distance * d[c] / a[c];
      }
      e.Spar_usdf[i] = distance;
    }
  }

  void findUsdf() {
    const int tests = e.n_nbt - e.n_edge;
    std::vector<int> keys(at(3, tests));
    for (int sweep = 0; sweep < 1 << D; ++sweep) {
      for (int r = 0; r < tests; ++r) {
        for (int a = 0; a < D; ++a) {  // the direction of x changes slowest over the sweeps
          const int sign = sweep >> (D - 1 - a) & 1 ? 1 : -1;
          keys[at(3, r) + a] = sign * coordinate(e.n_edge + r, a);
        }
      }
      triple* const order = mat2DtotripleArray(keys.data(), tests);
      std::qsort(static_cast<void*>(order), tests, sizeof(triple), comparetriple);
      for (int r = 0; r < tests; ++r) visitInSweep(e.n_edge + order[r].ind);
      DeletetripleArray(order, tests);
    }
    for (int l = 0; l < e.n_nbt + 2; ++l) {
      const bool positive =
          l < e.n_pedge || (e.n_edge <= l && l < e.n_edge + e.n_ptest) || l >= e.n_nbt;
      e.Spar_sdf[l] = positive ? e.Spar_usdf[l] : -e.Spar_usdf[l];
    }
  }

  template <class Matrix>
  void findF(const Matrix& voldata, double w1, double w3, double w4, double w5) {
    for (int i = 0; i < e.n_edge; ++i) {
      double F = w1 - curvature(i) * w3;
      if (w4 != 0) {
        double sum_p = 0, sum_n = 0, n_p = 0, n_n = 0;
        forBox(point(i), kBoxSize, size(), [&](Point q) {
          const bool positive = number(e.label->p[index(q)]) > 0;
          (positive ? sum_p : sum_n) += voldata.p[index(q)];
          (positive ? n_p : n_n) += 1;
        });
        const double I = voldata.p[e.ori_nbt_ind[i]];
        F = F - std::fabs(I - sum_n / n_n) * w4 + std::fabs(I - sum_p / n_p) * w5;
      }
      e.Spar_F[i] = F;
    }
  }

  void findEdgeFext() {
    for (int i = 0; i < e.n_edge; ++i) {
      const double sPhi_edge = e.Spar_Phi[i], own = e.Spar_F[i];
      const bool positive = i < e.n_pedge;
      int npnt = 0;
      double a[D], tpF[D], epF[D];
      for (int j = 0; j < D; ++j) {
        const int ep = link(i, 2 * j), em = link(i, 2 * j + 1);
        const double pp = e.Spar_Phi[ep], pm = e.Spar_Phi[em];
        const bool plus = positive ? pp < pm : pp > pm;  // ties: the - neighbour
        const double value = plus ? pp : pm;
        if (!crosses(positive, value)) continue;
        epF[npnt] = e.Spar_F[std::min(plus ? ep : em, e.n_edge)];
        a[npnt] = sPhi_edge / (sPhi_edge - value);
        tpF[npnt] = a[npnt] * own + (1 - a[npnt]) * epF[npnt];
        ++npnt;
      }
      if (npnt == 0) {
        e.Spar_Fext[i] = e.Spar_F[i];
      } else if (npnt == 1) {
        e.Spar_Fext[i] = e.Spar_usdf[i] * own + (1 - e.Spar_usdf[i]) * epF[0];
      } else {
        e.Spar_Fext[i] = onInterface(i) ? mean(tpF, npnt) : weighted(tpF, a, npnt);
      }
    }
  }

  template <class Matrix>
  void calFext([[maybe_unused]] double w7, [[maybe_unused]] const Matrix* tPhi) {
    for (const int j : byDistance()) extendTo(j);
    if constexpr (D == 3) {
      if (w7 != 0) {
        for (int i = 0; i < e.n_nbt; ++i)
          e.Spar_Fext[i] = (e.Spar_sdf[i] - tPhi->p[e.ori_nbt_ind[i]]) * w7 + e.Spar_Fext[i];
      }
    }
  }

  template <class Matrix>
  void substractPhi(Matrix& Phi) {
    T ma = 0;
    maxabs(e.Spar_Fext, e.n_nbt, &ma);
    const double dt = ma != 0 ? 1.0 / ma : 0;
    for (int i = 0; i < e.n_nbt; ++i) Phi.p[e.ori_nbt_ind[i]] = e.Spar_sdf[i] - dt * e.Spar_Fext[i];
  }

 private:
  Point size() const { return Face::size(e); }
  int index(Point q) const { return q[0] + q[1] * e.sizeX + q[2] * e.mxn; }
  /// Offset of entry i of a table with `columns` values an entry.
  static std::size_t at(int columns, int i) {
    return static_cast<std::size_t>(columns) * static_cast<std::size_t>(i);
  }
  int link(int i, int k) const { return Face::neighbours(e)[at(K, i) + k]; }
  int coordinate(int i, int axis) const { return e.ori_nbt_sub[at(D, i) + axis]; }
  Point point(int i) const {
    Point q{0, 0, 0};
    for (int a = 0; a < D; ++a) q[a] = coordinate(i, a);
    return q;
  }
  /// The k-th face neighbour of q, or q itself where that lies outside the grid.
  Point neighbour(Point q, int k) const {
    const int a = k / 2;
    q[a] = k % 2 == 0 ? std::min(q[a] + 1, size()[a] - 1) : std::max(q[a] - 1, 0);
    return q;
  }
  /// Whether a neighbour's value of Phi lies across the interface from an edge voxel.
  static bool crosses(bool positive, double value) { return positive ? value <= 0 : value > 0; }
  /// Whether an edge voxel has its own value of Phi on the interface: then all crossings coincide.
  bool onInterface(int i) const { return i >= e.n_pedge && e.Spar_Phi[i] == 0; }

  // ---- band -------------------------------------------------------------------------------------

  template <class V>
  static void renew(V*& field, std::size_t length) {
    releaseArray(field);
    field = new V[length];
  }

  /// Relabels the band's test voxels and lists the band in its four groups.
  void listVoxels() {
    std::vector<int> indices[4], coordinates[4];
    int position = 0;  // of the scan
    scan(size(), [&](Point q) {
      const int g = index(q);
      if constexpr (D == 3) {
        if (g != position++) fatal("exception happened \n", std::cout, 1);
      }
      const int code = number(e.label->p[g]);
      if (e.mask_nbt->p[g] == 1 && (code == 3 || code == -3))
        e.label->p[g] = static_cast<char>(code > 0 ? 2 : -2);
      const int group = groupOf(number(e.label->p[g]));
      if (group < 0) return;
      indices[group].push_back(g);
      coordinates[group].insert(coordinates[group].end(), q.begin(), q.begin() + D);
    });
    int** const lists[] = {&e.ori_pedge_ind, &e.ori_nedge_ind, &e.ori_ptest_ind, &e.ori_ntest_ind};
    int* const counts[] = {&e.n_pedge, &e.n_nedge, &e.n_ptest, &e.n_ntest};
    for (int group = 0; group < 4; ++group) {
      *counts[group] = static_cast<int>(indices[group].size());
      renew(*lists[group], indices[group].size());
      std::copy(indices[group].begin(), indices[group].end(), *lists[group]);
    }
    e.n_edge = e.n_pedge + e.n_nedge;
    e.n_nbt = e.n_edge + e.n_ptest + e.n_ntest;
    renew(e.ori_nbt_ind, at(1, e.n_nbt));
    renew(e.ori_nbt_sub, at(D, e.n_nbt));
    int *ind = e.ori_nbt_ind, *sub = e.ori_nbt_sub;
    for (int group = 0; group < 4; ++group) {
      ind = std::copy(indices[group].begin(), indices[group].end(), ind);
      sub = std::copy(coordinates[group].begin(), coordinates[group].end(), sub);
    }
  }

  /// The place of a label code's voxels in the band order; -1 outside the band.
  static int groupOf(int code) {
    constexpr int codes[] = {1, -1, 2, -2};
    for (int group = 0; group < 4; ++group)
      if (code == codes[group]) return group;
    return -1;
  }

  void linkVoxels() {
    renew(Face::neighbours(e), at(K, e.n_nbt));
    for (int i = 0; i < e.n_nbt; ++i) {
      for (int k = 0; k < K; ++k) {
        const int entry = e.mask_indices->p[index(neighbour(point(i), k))];
        Face::neighbours(e)[at(K, i) + k] = entry;
        if (k == 4 && entry > e.n_nbt + 2)
          fatal("neighbor index wrong, exit" + std::to_string(entry) + "\n", std::cerr, 1);
      }
    }
  }

  template <class Matrix>
  void fillArrays(const Matrix& Phi) {
    const int n = e.n_nbt;
    renew(e.Spar_Phi, at(1, n));
    for (int i = 0; i < n; ++i) e.Spar_Phi[i] = Phi.p[e.ori_nbt_ind[i]];
    const auto filled = [](T*& field, std::size_t length, double value) {
      renew(field, length);
      std::fill_n(field, length, static_cast<T>(value));
    };
    filled(e.Spar_F, at(1, n + 1), 0);
    filled(e.Spar_Fext, at(1, n + 2), 0);
    e.Spar_Fext[n] = -kFar;
    e.Spar_Fext[n + 1] = kFar;
    filled(e.Spar_exact, at(D, n + 2), kFar);
    filled(e.Spar_usdf, at(1, n + 2), kFar);
    filled(e.Spar_sdf, at(1, n + 2), kFar);
  }

  // ---- distance ---------------------------------------------------------------------------------

  /// Distance to the line or plane through crossings at distances a along 2 or 3 axes.
  static double distanceThrough(const double* a, int m) {
    if (D == 2 || m == 2) return a[0] * a[1] / std::sqrt(a[0] * a[0] + a[1] * a[1]);
    const double b0 = a[1] * a[2], b1 = a[2] * a[0], b2 = a[0] * a[1];
    return a[0] * a[1] * a[2] / std::sqrt(b0 * b0 + b1 * b1 + b2 * b2);
  }

  /// Takes the nearest interface point that a neighbour knows, unless the voxel would come nearer
  /// to the interface than all its neighbours are.
  void visitInSweep(int n) {
    double u[K], s[K], minu = 0, mind = 0;
    int kmin = 0;
    for (int k = 0; k < K; ++k) {
      const int other = link(n, k);
      u[k] = e.Spar_usdf[other];
      s[k] = 0;
      for (int a = 0; a < D; ++a) {
        const double t = coordinate(n, a) - static_cast<double>(e.Spar_exact[at(D, other) + a]);
        s[k] = a == 0 ? t * t : s[k] + t * t;
      }
    }
    minvandi(u, K, &minu, &kmin);
    minvandi(s, K, &mind, &kmin);
    if (!(mind + 0.0001 >= minu * minu && minu < kFar)) return;
    e.Spar_usdf[n] = std::sqrt(mind);
    for (int a = 0; a < D; ++a) e.Spar_exact[at(D, n) + a] = e.Spar_exact[at(D, link(n, kmin)) + a];
  }

  // ---- speed ------------------------------------------------------------------------------------

  /// Signed distance of the voxel next to q in the directions k and l.
  double diagonal(Point q, int k, int l) const {
    return e.Spar_sdf[e.mask_indices->p[index(neighbour(neighbour(q, k), l))]];
  }
  double mixed(Point q, int a, int b) const {
    return (diagonal(q, 2 * a, 2 * b) + diagonal(q, 2 * a + 1, 2 * b + 1) -
            diagonal(q, 2 * a, 2 * b + 1) - diagonal(q, 2 * a + 1, 2 * b)) *
           0.25;
  }

  /// Curvature of the level set of the signed distance through edge voxel i: 2/R for a sphere, 1/R
  /// for a circle.
  double curvature(int i) const {
    const Point q = point(i);
    double g[D], gg[D];
    for (int a = 0; a < D; ++a) {
      const double fp = e.Spar_sdf[link(i, 2 * a)], fm = e.Spar_sdf[link(i, 2 * a + 1)];
      g[a] = (fp - fm) * 0.5;
      gg[a] = fp + fm + -2 * static_cast<double>(e.Spar_sdf[i]);
    }
    double numerator, squares;
    if constexpr (D == 3) {
      tellOfOutside(q);
      numerator = (gg[1] + gg[2]) * (g[0] * g[0]) + (gg[2] + gg[0]) * (g[1] * g[1]) +
                  (gg[0] + gg[1]) * (g[2] * g[2]) - 2 * g[0] * g[1] * mixed(q, 0, 1) -
                  2 * g[0] * g[2] * mixed(q, 0, 2) - 2 * g[1] * g[2] * mixed(q, 1, 2);
      squares = g[0] * g[0] + g[1] * g[1] + g[2] * g[2];
    } else {
      numerator = gg[1] * (g[0] * g[0]) + gg[0] * (g[1] * g[1]) - 2 * g[0] * g[1] * mixed(q, 0, 1);
      squares = g[0] * g[0] + g[1] * g[1];
    }
    const double denominator = std::pow(squares, 1.5);
    return numerator / (denominator == 0 ? 1e10 : denominator);  // no gradient: about 0
  }

  /// A diagonal neighbour outside the band on the positive side: only with a band of width 0.
  void tellOfOutside(Point q) const {
    const int slot = e.mask_indices->p[index(neighbour(neighbour(q, 1), 5))];
    if (slot > e.n_nbt) std::cout << "ind10:" << slot << std::endl;
  }

  // ---- extension --------------------------------------------------------------------------------

  static double mean(const double* v, int count) {
    return (D == 2 || count == 2 ? v[0] + v[1] : v[0] + v[1] + v[2]) / count;
  }

  /// Speed at the foot of the perpendicular onto the line or plane through the crossings: weights
  /// are the inverse squares of their distances a.
  static double weighted(const double* F, const double* a, int count) {
    if (D == 2 || count == 2) {
      const double r = std::sqrt(a[0] * a[0] + a[1] * a[1]);
      return (F[1] * (a[0] * a[0]) + a[1] * a[1] * F[0]) / (r * r);
    }
    const double va[] = {a[2] * a[1], a[2] * a[0], a[0] * a[1]};
    const double r = std::sqrt(va[0] * va[0] + va[1] * va[1] + va[2] * va[2]);
    return (va[0] * va[0] * F[0] + va[1] * va[1] * F[1] + va[2] * va[2] * F[2]) / (r * r);
  }

  /// Band indices of the test voxels in increasing distance. Equal distances are left in the order
  /// that qsort gives them: band order with the merge sort of the C library.
  std::vector<int> byDistance() const {
    constexpr bool isFloat = std::is_same_v<T, float>;
    using Record = std::conditional_t<isFloat, OrderedPtf, OrderedPtd>;
    const int tests = e.n_nbt - e.n_edge;
    std::vector<Record> records(at(1, tests));
    for (int r = 0; r < tests; ++r) records[r].setup(e.n_edge + r, e.Spar_usdf[e.n_edge + r]);
    std::vector<int> indices;
    if (tests == 0) return indices;  // qsort wants an array even for no records
    std::qsort(records.data(), records.size(), sizeof(Record),
               isFloat ? compareOrderedPtf : compareOrderedPtd);
    for (const Record& record : records) indices.push_back(record.ind);
    return indices;
  }

  /// Extension velocity of test voxel j: the average of the values of its upwind neighbours,
  /// weighted by how much nearer to the interface each of them is.
  void extendTo(int j) {
    const double u = e.Spar_usdf[j];
    double sUsdf[D], sFext[D];
    int ind[D], npnt = 0;
    for (int a = 0; a < D; ++a) {
      const int ep = link(j, 2 * a), em = link(j, 2 * a + 1);
      const double up = e.Spar_usdf[ep], um = e.Spar_usdf[em];
      // Equal distances: the - neighbour in 3-D, the + neighbour in 2-D.
      const bool plus = D == 3 ? up < um : !(um < up);
      sUsdf[a] = plus ? up : um;
      sFext[a] = e.Spar_Fext[plus ? ep : em];
      // Upwind: strictly nearer in 3-D, at most as far in 2-D.
      if (D == 3 ? u > sUsdf[a] : u >= sUsdf[a]) ind[npnt++] = a;
    }
    if (npnt == 0) {
      e.Spar_Fext[j] = sFext[0];
    } else if (npnt == 1) {
      e.Spar_Fext[j] = sFext[ind[0]];
    } else if (npnt == 2) {
      const int a = ind[0], b = ind[1];
      if (sUsdf[a] == u && sUsdf[b] == u)  // 2-D only: no distance to weight by
        e.Spar_Fext[j] = (sFext[a] + sFext[b]) / 2;
      else
        e.Spar_Fext[j] = ((sUsdf[a] - u) * sFext[a] + (sUsdf[b] - u) * sFext[b]) /
                         (sUsdf[a] + sUsdf[b] + -2 * u);
    } else if constexpr (D == 3) {
      e.Spar_Fext[j] =
          ((sUsdf[0] - u) * sFext[0] + (sUsdf[1] - u) * sFext[1] + (sUsdf[2] - u) * sFext[2]) /
          (sUsdf[2] + sUsdf[0] + sUsdf[1] + -3 * u);
    }
  }

  LevelSet& e;
};

}  // namespace plain
}  // namespace tavrel
