// The level-set engine as plain loops: the yardstick that the shipped engine is held to bit for
// bit.
//
// One narrow-band step in D = 2 or 3 dimensions, written for reading: every sweep really sorts,
// every region sum starts from scratch, nothing is shared or skipped. State has the names of the
// engine's public fields. Grids store x fastest; a 2-D grid is one slice (size[2] = 1). Phi is
// negative inside; coordinates and distances are in voxels.
// Arithmetic is evaluated from left to right; compile without contraction of a*b + c.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace tavrel::plain {

using Point = std::array<int, 3>;

/// A dense grid; the voxel q is `p[index(q)]`.
template <class T>
struct Grid {
  Point size{1, 1, 1};
  std::vector<T> p{};

  Grid() = default;
  explicit Grid(Point s, T value = T{})
      : size(s), p(static_cast<std::size_t>(s[0]) * s[1] * s[2], value) {}
  int index(Point q) const { return q[0] + q[1] * size[0] + q[2] * size[0] * size[1]; }
  /// Calls f(q) for every voxel, z outermost, x innermost.
  template <class F>
  void scan(F f) const {
    for (int z = 0; z < size[2]; ++z)
      for (int y = 0; y < size[1]; ++y)
        for (int x = 0; x < size[0]; ++x) f(Point{x, y, z});
  }
};

/// The weights of the speed that have an effect.
struct Weights {
  double w1 = 0, w3 = 0, w4 = 0, w5 = 0, w7 = 0;
};

constexpr double kFar = 100000;  // a distance, or a coordinate of an interface point, not known yet

/// A box of (2 * reach + 1) voxels an axis around q, cut off at the grid: calls f for each voxel.
template <int D, class F>
void forBox(Point q, int reach, Point size, F f) {
  Point lo = q, hi = q;
  for (int a = 0; a < D; ++a) {
    lo[a] = std::max(q[a] - reach, 0);
    hi[a] = std::min(q[a] + reach, size[a] - 1);
  }
  for (int z = lo[2]; z <= hi[2]; ++z)
    for (int y = lo[1]; y <= hi[1]; ++y)
      for (int x = lo[0]; x <= hi[0]; ++x) f(Point{x, y, z});
}

template <int D>
struct LevelSet {
  static constexpr int K = 2 * D;  // face neighbours: +x, -x, +y, -y, +z, -z

  Grid<signed char> label, mask_nbt;
  Grid<int> mask_indices;
  std::vector<int> ori_pedge_ind, ori_nedge_ind, ori_ptest_ind, ori_ntest_ind;
  std::vector<int> ori_nbt_ind, ori_nbt_sub, spar_nbt_neigh_ind;
  int n_pedge = 0, n_nedge = 0, n_ptest = 0, n_ntest = 0, n_edge = 0, n_nbt = 0;
  std::vector<double> Spar_Phi, Spar_F, Spar_Fext, Spar_exact, Spar_usdf, Spar_sdf;

  void LabelEdges(const Grid<double>& Phi) {
    label = Grid<signed char>(Phi.size);
    mask_indices = Grid<int>(Phi.size);
    Phi.scan([&](Point q) {
      const int g = Phi.index(q);
      const bool positive = Phi.p[g] > 0;
      bool edge = false;
      for (int k = 0; k < K; ++k) {
        if ((Phi.p[Phi.index(neighbour(q, k))] > 0) != positive) edge = true;
      }
      mask_indices.p[g] = positive ? 1 : 0;
      label.p[g] = positive ? (edge ? 1 : 3) : (edge ? -1 : -3);
      if (edge) ++(positive ? n_pedge : n_nedge);
    });
    n_edge = n_pedge + n_nedge;
  }

  void Labelnbt(int bwt, const Grid<double>& Phi) {
    mask_nbt = Grid<signed char>(Phi.size);
    for (std::size_t g = 0; g < label.p.size(); ++g)
      mask_nbt.p[g] = label.p[g] >= -1 && label.p[g] <= 1;
    for (int pass = 0; pass < bwt; ++pass) {
      const Grid<signed char> seeds = mask_nbt;
      seeds.scan([&](Point q) {
        if (seeds.p[seeds.index(q)] > 0)
          forBox<D>(q, 1, seeds.size, [&](Point b) { mask_nbt.p[mask_nbt.index(b)] = 1; });
      });
    }
    std::vector<int> sub[4];  // coordinates of the four groups
    label.scan([&](Point q) {
      const int g = label.index(q);
      if (mask_nbt.p[g] == 1 && label.p[g] == 3) label.p[g] = 2;
      if (mask_nbt.p[g] == 1 && label.p[g] == -3) label.p[g] = -2;
      const int group = label.p[g] == 1    ? 0
                        : label.p[g] == -1 ? 1
                        : label.p[g] == 2  ? 2
                        : label.p[g] == -2 ? 3
                                           : 4;
      if (group == 4) return;
      std::vector<int>* const lists[] = {&ori_pedge_ind, &ori_nedge_ind, &ori_ptest_ind,
                                         &ori_ntest_ind};
      lists[group]->push_back(g);
      for (int a = 0; a < D; ++a) sub[group].push_back(q[a]);
    });
    n_ptest = static_cast<int>(ori_ptest_ind.size());
    n_ntest = static_cast<int>(ori_ntest_ind.size());
    n_nbt = n_ptest + n_ntest + n_pedge + n_nedge;
    for (const auto* list : {&ori_pedge_ind, &ori_nedge_ind, &ori_ptest_ind, &ori_ntest_ind})
      ori_nbt_ind.insert(ori_nbt_ind.end(), list->begin(), list->end());
    for (const auto& s : sub) ori_nbt_sub.insert(ori_nbt_sub.end(), s.begin(), s.end());

    for (int& m : mask_indices.p) m += n_nbt;
    for (int i = 0; i < n_nbt; ++i) mask_indices.p[ori_nbt_ind[i]] = i;
    for (int i = 0; i < n_nbt; ++i) {
      for (int k = 0; k < K; ++k)
        spar_nbt_neigh_ind.push_back(mask_indices.p[label.index(neighbour(point(i), k))]);
      Spar_Phi.push_back(Phi.p[ori_nbt_ind[i]]);
    }
    Spar_F.assign(n_nbt + 1, 0.0);
    Spar_Fext.assign(n_nbt + 2, 0.0);
    Spar_Fext[n_nbt] = -kFar;
    Spar_Fext[n_nbt + 1] = kFar;
    Spar_exact.assign(D * n_nbt + 2 * D, kFar);
    Spar_usdf.assign(n_nbt + 2, kFar);
    Spar_sdf.assign(n_nbt + 2, kFar);
  }

  void sFindEdgeExact() {
    for (int i = 0; i < n_edge; ++i) {
      const double p = Spar_Phi[i];
      const bool positive = i < n_pedge;
      int m = 0;
      int axis[3];
      double a[3], d[3];
      for (int j = 0; j < D; ++j) {
        const double qp = Spar_Phi[neigh(i, 2 * j)], qm = Spar_Phi[neigh(i, 2 * j + 1)];
        const bool plus = positive ? qp <= qm : qm <= qp;  // ties: the + neighbour
        const double v = plus ? qp : qm;
        if (positive ? !(v <= 0) : !(v > 0)) continue;
        axis[m] = j;
        a[m] = p / (p - v);
        d[m] = plus ? 1 : -1;
        ++m;
      }
      double* const e = &Spar_exact[D * i];
      for (int j = 0; j < D; ++j) e[j] = ori_nbt_sub[D * i + j];
      double dist = 0;
      if (m == 1) {
        dist = a[0];
        e[axis[0]] = e[axis[0]] + a[0] * d[0];
      } else if (m > 1 && !(!positive && p == 0)) {  // a function value of 0 is on the interface
        if (m == 2) {
          dist = a[0] * a[1] / std::sqrt(a[0] * a[0] + a[1] * a[1]);
        } else {
          const double b0 = a[1] * a[2], b1 = a[2] * a[0], b2 = a[0] * a[1];
          dist = a[0] * a[1] * a[2] / std::sqrt(b0 * b0 + b1 * b1 + b2 * b2);
        }
        for (int c = 0; c < m; ++c) e[axis[c]] = e[axis[c]] + dist * dist * d[c] / a[c];
      }
      Spar_usdf[i] = dist;
    }
  }

  void sFindUsdf() {
    for (int sweep = 0; sweep < (1 << D); ++sweep) {
      int s[D];  // signs of the axes: x changes slowest over the sweeps
      for (int a = 0; a < D; ++a) s[a] = (sweep >> (D - 1 - a)) & 1 ? 1 : -1;
      std::vector<int> order;
      for (int n = n_edge; n < n_nbt; ++n) order.push_back(n);
      std::sort(order.begin(), order.end(), [&](int l, int r) {
        for (int a = 0; a < D; ++a) {
          const int kl = s[a] * ori_nbt_sub[D * l + a], kr = s[a] * ori_nbt_sub[D * r + a];
          if (kl != kr) return kl < kr;
        }
        return false;
      });
      for (int n : order) visitInSweep(n);
    }
    for (int l = 0; l < n_nbt + 2; ++l) {
      const bool positive = l < n_pedge || (n_edge <= l && l < n_edge + n_ptest) || l >= n_nbt;
      Spar_sdf[l] = positive ? Spar_usdf[l] : -Spar_usdf[l];
    }
  }

  void sFindF(const Grid<double>& voldata, const Weights& w) {
    for (int i = 0; i < n_edge; ++i) {
      Spar_F[i] = w.w1 - curvature(i) * w.w3;
      if (w.w4 == 0) continue;
      double sum_p = 0, sum_n = 0, n_p = 0, n_n = 0;
      forBox<D>(point(i), 10, label.size, [&](Point q) {
        const int g = label.index(q);
        (label.p[g] > 0 ? sum_p : sum_n) += voldata.p[g];
        (label.p[g] > 0 ? n_p : n_n) += 1;
      });
      const double I = voldata.p[ori_nbt_ind[i]];
      Spar_F[i] = Spar_F[i] - std::fabs(I - sum_n / n_n) * w.w4 + std::fabs(I - sum_p / n_p) * w.w5;
    }
  }

  void sFindEdgeFext() {
    for (int i = 0; i < n_edge; ++i) {
      const double sPhi_edge = Spar_Phi[i];
      const bool positive = i < n_pedge;
      int npnt = 0;
      double a[3], tpF[3], epF[3];
      for (int j = 0; j < D; ++j) {
        const int ep = neigh(i, 2 * j), em = neigh(i, 2 * j + 1);
        const double pp = Spar_Phi[ep], pm = Spar_Phi[em];
        const bool plus = positive ? pp < pm : pp > pm;  // ties: the - neighbour
        const double value = plus ? pp : pm;
        if (positive ? !(value <= 0) : !(value > 0)) continue;
        epF[npnt] = Spar_F[std::min(plus ? ep : em, n_edge)];
        a[npnt] = sPhi_edge / (sPhi_edge - value);
        tpF[npnt] = a[npnt] * Spar_F[i] + (1 - a[npnt]) * epF[npnt];
        ++npnt;
      }
      if (npnt == 0) {
        Spar_Fext[i] = Spar_F[i];
      } else if (npnt == 1) {
        Spar_Fext[i] = Spar_usdf[i] * Spar_F[i] + (1 - Spar_usdf[i]) * epF[0];
      } else if (!positive && sPhi_edge == 0) {  // all fractions 0: no weight differs
        Spar_Fext[i] = (npnt == 2 ? tpF[0] + tpF[1] : tpF[0] + tpF[1] + tpF[2]) / npnt;
      } else if (npnt == 2) {
        const double r = std::sqrt(a[0] * a[0] + a[1] * a[1]);
        Spar_Fext[i] = (tpF[1] * (a[0] * a[0]) + a[1] * a[1] * tpF[0]) / (r * r);
      } else {
        const double va0 = a[2] * a[1], va1 = a[2] * a[0], va2 = a[0] * a[1];
        const double r = std::sqrt(va0 * va0 + va1 * va1 + va2 * va2);
        Spar_Fext[i] = (va0 * va0 * tpF[0] + va1 * va1 * tpF[1] + va2 * va2 * tpF[2]) / (r * r);
      }
    }
  }

  void sCalFext(double w7, const Grid<double>& tPhi) {
    std::vector<int> indices;
    for (int n = n_edge; n < n_nbt; ++n) indices.push_back(n);
    std::stable_sort(indices.begin(), indices.end(), [&](int l, int r) {
      const double ul = Spar_usdf[l], ur = Spar_usdf[r];
      return std::isnan(ur) ? !std::isnan(ul) : ul < ur;  // not-a-number last
    });
    for (int j : indices) extendTo(j);
    if constexpr (D == 3) {
      if (w7 != 0) {
        for (int i = 0; i < n_nbt; ++i)
          Spar_Fext[i] = (Spar_sdf[i] - tPhi.p[ori_nbt_ind[i]]) * w7 + Spar_Fext[i];
      }
    }
  }

  void SubstractPhi(Grid<double>& Phi) const {
    double ma = 0;
    for (int i = 0; i < n_nbt; ++i) {
      const double v = std::fabs(Spar_Fext[i]);
      if (i == 0 || v > ma) ma = v;
    }
    const double dt = ma != 0 ? 1.0 / ma : 0;
    for (int i = 0; i < n_nbt; ++i) Phi.p[ori_nbt_ind[i]] = Spar_sdf[i] - dt * Spar_Fext[i];
  }

  void UpdatePhi(Grid<double>& Phi, int bwt, const Grid<double>& voldata, const Weights& w,
                 const Grid<double>& tPhi) {
    LabelEdges(Phi);
    Labelnbt(std::max(bwt, 1), Phi);
    if (n_edge == 0) return;
    sFindEdgeExact();
    sFindUsdf();
    sFindF(voldata, w);
    sFindEdgeFext();
    sCalFext(w.w7, tPhi);
    SubstractPhi(Phi);
  }

 private:
  int neigh(int i, int k) const { return spar_nbt_neigh_ind[K * i + k]; }
  Point point(int i) const {
    Point q{0, 0, 0};
    for (int a = 0; a < D; ++a) q[a] = ori_nbt_sub[D * i + a];
    return q;
  }
  /// The k-th face neighbour of q, or q itself where that lies outside the grid.
  Point neighbour(Point q, int k) const {
    const int a = k / 2;
    q[a] = k % 2 == 0 ? std::min(q[a] + 1, label.size[a] - 1) : std::max(q[a] - 1, 0);
    return q;
  }

  void visitInSweep(int n) {
    double minu = 0, mind = 0;
    int kmin = 0;
    for (int k = 0; k < K; ++k) {
      const int e = neigh(n, k);
      double s = 0;
      for (int a = 0; a < D; ++a) {
        const double t = ori_nbt_sub[D * n + a] - Spar_exact[D * e + a];
        s = a == 0 ? t * t : s + t * t;
      }
      if (k == 0 || Spar_usdf[e] < minu) minu = Spar_usdf[e];
      if (k == 0 || s < mind) {
        mind = s;
        kmin = k;
      }
    }
    if (mind + 0.0001 >= minu * minu && minu < kFar) {
      Spar_usdf[n] = std::sqrt(mind);
      for (int a = 0; a < D; ++a) Spar_exact[D * n + a] = Spar_exact[D * neigh(n, kmin) + a];
    }
  }

  /// Curvature of the level set of the signed distance through edge voxel i.
  double curvature(int i) const {
    const Point q = point(i);
    double g[3] = {}, gg[3] = {};
    for (int a = 0; a < D; ++a) {
      const double fp = Spar_sdf[neigh(i, 2 * a)], fm = Spar_sdf[neigh(i, 2 * a + 1)];
      g[a] = (fp - fm) * 0.5;
      gg[a] = fp + fm + (-2) * Spar_sdf[i];
    }
    auto diagonal = [&](int k, int l) {
      return Spar_sdf[mask_indices.p[label.index(neighbour(neighbour(q, k), l))]];
    };
    auto mixed = [&](int a, int b) {
      return (diagonal(2 * a, 2 * b) + diagonal(2 * a + 1, 2 * b + 1) - diagonal(2 * a, 2 * b + 1) -
              diagonal(2 * a + 1, 2 * b)) *
             0.25;
    };
    double numerator, squares;
    if constexpr (D == 3) {
      const double xy = mixed(0, 1), yz = mixed(1, 2), zx = mixed(0, 2);
      numerator = (gg[1] + gg[2]) * (g[0] * g[0]) + (gg[2] + gg[0]) * (g[1] * g[1]) +
                  (gg[0] + gg[1]) * (g[2] * g[2]) - 2 * g[0] * g[1] * xy - 2 * g[0] * g[2] * zx -
                  2 * g[1] * g[2] * yz;
      squares = g[0] * g[0] + g[1] * g[1] + g[2] * g[2];
    } else {
      numerator = gg[1] * (g[0] * g[0]) + gg[0] * (g[1] * g[1]) - 2 * g[0] * g[1] * mixed(0, 1);
      squares = g[0] * g[0] + g[1] * g[1];
    }
    double denominator = std::pow(squares, 1.5);
    if (denominator == 0) denominator = 1e10;
    return numerator / denominator;
  }

  /// Extension velocity of test voxel j: the upwind average of its nearer neighbours.
  void extendTo(int j) {
    const double u = Spar_usdf[j];
    double sUsdf[3], sFext[3];
    int upwind[3], npnt = 0;
    for (int a = 0; a < D; ++a) {
      const int ep = neigh(j, 2 * a), em = neigh(j, 2 * a + 1);
      const double up = Spar_usdf[ep], um = Spar_usdf[em];
      // Equal distances: the - neighbour in 3-D, the + neighbour in 2-D.
      const bool plus = D == 3 ? up < um : !(um < up);
      sUsdf[a] = plus ? up : um;
      sFext[a] = plus ? Spar_Fext[ep] : Spar_Fext[em];
      // Upwind: strictly nearer in 3-D, at most as far in 2-D.
      if (D == 3 ? u > sUsdf[a] : u >= sUsdf[a]) upwind[npnt++] = a;
    }
    if (npnt == 0) {
      Spar_Fext[j] = sFext[0];
    } else if (npnt == 1) {
      Spar_Fext[j] = sFext[upwind[0]];
    } else if (npnt == 2) {
      const int a = upwind[0], b = upwind[1];
      if (sUsdf[a] == u && sUsdf[b] == u)  // 2-D only: no distance to weight by
        Spar_Fext[j] = (sFext[a] + sFext[b]) / 2;
      else
        Spar_Fext[j] = ((sUsdf[a] - u) * sFext[a] + (sUsdf[b] - u) * sFext[b]) /
                       (sUsdf[a] + sUsdf[b] + (-2) * u);
    } else {
      Spar_Fext[j] =
          ((sUsdf[0] - u) * sFext[0] + (sUsdf[1] - u) * sFext[1] + (sUsdf[2] - u) * sFext[2]) /
          (sUsdf[2] + sUsdf[0] + sUsdf[1] + (-3) * u);
    }
  }
};

}  // namespace tavrel::plain
