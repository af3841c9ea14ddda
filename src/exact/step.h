// The stages of one evolution step, shared by vox3DLevelSet and vox2DLevelSet.
//
// A step builds the narrow band around the zero level of Phi, re-initialises Phi there as a signed
// distance, computes the speed of the interface, extends it over the band and moves Phi by it. The
// functions here set the engines' public fields; the arithmetic is in the kernel headers.
// Phi is negative inside; coordinates and distances are in voxels of the grid being evolved.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <iostream>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "voxBand.h"
#include "voxExtension.h"
#include "voxFatal.h"
#include "voxInterface.h"
#include "voxMemory.h"
#include "voxParallel.h"
#include "voxRegionSums.h"
#include "voxSpeed.h"
#include "voxUtility.h"

namespace tavrel {

/// Uninitialised storage that only grows, so that the steps of an evolution reuse it.
template <typename T>
class Buffer {
 public:
  /// At least `count` elements; their contents are lost if the storage has to grow.
  T* need(std::size_t count) {
    if (count > capacity_ || !data_) {
      data_.reset();
      capacity_ = count + count / 4 + 1;  // pages never touched cost nothing
      data_ = newArray<T>(capacity_);
    }
    return data_.get();
  }

 private:
  std::unique_ptr<T[]> data_;
  std::size_t capacity_ = 0;
};

/// The memory behind an engine's pointers. An evolution hands the same one to the engine of every
/// step; an engine built without one owns its own.
template <typename CharMatrix, typename IntMatrix>
struct LevelSetMemory {
  std::unique_ptr<CharMatrix> label, mask_nbt;
  std::unique_ptr<IntMatrix> mask_indices;
  Buffer<int> ind, sub, links;
  Buffer<double> Phi, F, Fext, exact, usdf, sdf;
  BitGrid positive, edge, band, scratch;
  RegionSummer regions;
  std::vector<RegionSums> sums;
  bool summed = false;  ///< `sums` are those of this step
  /// Set by a caller that steps one Phi and leaves it alone in between: `positive` is still right.
  bool signsKnown = false;
  int insideChange = 0;  ///< voxels that the last step added to the inside
};

/// Where the two engines differ in building their state: axes, matrices and the guard messages.
template <int D>
struct StageRules;

template <>
struct StageRules<3> {
  template <typename Matrix>
  static Grid gridOf(const Matrix& m) {
    return {m.sizeX, m.sizeY, m.sizeZ};
  }
  template <typename Matrix>
  static std::unique_ptr<Matrix> make(Grid g) {
    return std::make_unique<Matrix>(g.X, g.Y, g.Z);
  }
  /// Guards of the index map: neither can fail while grid indices fit 32 bits.
  static void check(Grid grid, int lastIndex, int largestLink, int n_nbt) {
    if (lastIndex != grid.voxels() - 1) fatal("exception happened \n", std::cout, 1);
    if (largestLink > n_nbt + 2) {
      fatal("neighbor index wrong, exit" + std::to_string(largestLink) + "\n", std::cerr, 1);
    }
  }
};

template <>
struct StageRules<2> {
  template <typename Matrix>
  static Grid gridOf(const Matrix& m) {
    return {m.sizeX, m.sizeY, 1};
  }
  template <typename Matrix>
  static std::unique_ptr<Matrix> make(Grid g) {
    return std::make_unique<Matrix>(g.X, g.Y);
  }
  static void check(Grid, int, int, int) {}
};

/// The stages over the public fields of an engine. `Engine` has the documented fields, the constant
/// `axes` and the accessor `links()` for its neighbour table.
template <typename Engine>
class Stages {
 public:
  static constexpr int D = Engine::axes;
  using Rules = StageRules<D>;

  Stages(Engine& engine, typename Engine::Memory& memory, int threads)
      : e_(engine), m_(memory), threads_(threads) {}

  /// Sign and interface labels of every voxel. `indexMap` false leaves mask_indices for
  /// buildBand to fill, which overwrites all of it anyway.
  template <typename Matrix>
  void labelEdges(Matrix* Phi, bool indexMap) {
    const Grid grid = Rules::gridOf(*Phi);
    m_.summed = false;
    if (!std::exchange(m_.signsKnown, false)) signBits(Phi->p, grid, m_.positive, threads_);
    interfaceBits(m_.positive, m_.edge, threads_);
    e_.label = matrix(m_.label, grid);
    labelCodes(m_.positive, m_.edge, e_.label->p, threads_);
    e_.mask_indices = matrix(m_.mask_indices, grid);
    if (indexMap) sideIndices(m_.positive, 0, e_.mask_indices->p, threads_);
    const auto counts = countGroups(m_.positive, m_.edge, m_.edge, 0, grid.Z);
    e_.n_pedge = counts[positiveEdge];
    e_.n_nedge = counts[negativeEdge];
    e_.n_edge = e_.n_pedge + e_.n_nedge;
  }

  /// The band within `width` voxels of the interface: lists, index map, links, starting values.
  /// `wholeStep` leaves out those that the other stages of a step overwrite before they read them.
  template <typename Matrix>
  void buildBand(int width, Matrix* Phi, bool wholeStep) {
    const Grid grid = Rules::gridOf(*Phi);
    m_.band = m_.edge;
    dilateBox(m_.band, width, m_.scratch, threads_);
    e_.mask_nbt = matrix(m_.mask_nbt, grid);
    maskBytes(m_.band, e_.mask_nbt->p, threads_);
    listVoxels(grid);
    const auto relabel = [&](const int* ind, int count, signed char code) {
      parallelRanges(threads_, count, [&](int first, int last) {
        for (int i = first; i < last; ++i) e_.label->p[ind[i]] = static_cast<char>(code);
      });
    };
    relabel(e_.ori_ptest_ind, e_.n_ptest, 2);
    relabel(e_.ori_ntest_ind, e_.n_ntest, -2);
    linkVoxels(grid);
    fillArrays(Phi->p, wholeStep);
  }

  /// Views of the band arrays for the kernels.
  Band<D> band() const {
    return {e_.n_pedge,  e_.n_edge, e_.n_ptest,   e_.n_nbt,      e_.ori_nbt_sub, e_.links(),
            e_.Spar_Phi, e_.Spar_F, e_.Spar_Fext, e_.Spar_exact, e_.Spar_usdf,   e_.Spar_sdf};
  }

  void findEdgeExact() {
    overEdges([&](const Band<D>& b, int first, int last) { locateInterface(b, first, last); });
  }

  void findUsdf() {
    const Band<D> b = band();
    parallelFor(threads_, 2, [&](int side) { sweepDistances(b, side); });
    signSlots();
  }

  /// findUsdf(), and the region sums that findF() will need. Both depend on the labels and the edge
  /// voxels alone, and together they keep all threads busy: there are only two sides to sweep.
  template <typename Matrix>
  void findUsdfAndSums(Matrix* voldata, double w4) {
    if (threads_ <= 1 || !(w4 != 0)) return findUsdf();
    const Band<D> b = band();
    arrangeSums();
    parallelFor(threads_, 2 + m_.regions.pieces(), [&](int i) {
      if (i < 2) return sweepDistances(b, i);
      m_.regions.sumPiece(i - 2, voldata->p, e_.label->p, m_.sums);
    });
    m_.summed = true;
    signSlots();
  }

  template <typename Matrix>
  void findF(Matrix* voldata, double w1, double w3, double w4, double w5) {
    const Grid grid = Rules::gridOf(*e_.label);
    overEdges([&](const Band<D>& b, int first, int last) {
      curvatureSpeed(b, e_.mask_indices->p, grid, w1, w3, first, last);
    });
    if (!(w4 != 0)) return;
    if (!std::exchange(m_.summed, false)) {
      arrangeSums();
      parallelFor(threads_, m_.regions.pieces(),
                  [&](int i) { m_.regions.sumPiece(i, voldata->p, e_.label->p, m_.sums); });
    }
    overEdges([&](const Band<D>& b, int first, int last) {
      for (int i = first; i < last; ++i) {
        b.F[i] = withRegionTerm(b.F[i], voldata->p[e_.ori_nbt_ind[i]], m_.sums[i], w4, w5);
      }
    });
  }

  void findEdgeFext() {
    overEdges([&](const Band<D>& b, int first, int last) { extendToInterface(b, first, last); });
  }

  void calFext() { extendOverBand(band(), threads_); }

  /// Phi = signed distance - dt * extension velocity, with dt such that the fastest band voxel
  /// moves by one voxel. Counts the voxels that this adds to the inside, and keeps up the sign
  /// bits.
  template <typename Matrix>
  void substractPhi(Matrix* Phi) {
    std::atomic<int> change{0};
    double ma = 0;
    maxabs(e_.Spar_Fext, e_.n_nbt, &ma);
    const double dt = ma != 0 ? 1.0 / ma : 0.0;
    parallelRanges(threads_, e_.n_nbt, [&](int first, int last) {
      int mine = 0;
      for (int i = first; i < last; ++i) {
        const auto next = e_.Spar_sdf[i] - dt * e_.Spar_Fext[i];
        Phi->p[e_.ori_nbt_ind[i]] = next;
        mine += isInside(next) - isInside(e_.Spar_Phi[i]);
        if ((next > 0) != (e_.Spar_Phi[i] > 0)) flipSign(e_.ori_nbt_sub + 1LL * D * i);
      }
      change += mine;
    });
    m_.insideChange = change;
  }

 private:
  template <typename Matrix>
  Matrix* matrix(std::unique_ptr<Matrix>& slot, Grid grid) {
    if (!slot || Rules::gridOf(*slot) != grid) {
      slot.reset();
      slot = Rules::template make<Matrix>(grid);
    }
    return slot.get();
  }

  template <typename Kernel>
  void overEdges(Kernel&& kernel) {
    const Band<D> b = band();
    parallelRanges(threads_, e_.n_edge, [&](int first, int last) { kernel(b, first, last); });
  }

  void flipSign(const int* voxel) {
    BitGrid::Word& word = m_.positive.row(voxel[1], D == 3 ? voxel[2] : 0)[voxel[0] / 64];
    std::atomic_ref(word).fetch_xor(BitGrid::Word{1} << voxel[0] % 64, std::memory_order_relaxed);
  }

  void signSlots() {
    const Band<D> b = band();
    parallelRanges(threads_, b.n_nbt + 2,
                   [&](int first, int last) { signDistances(b, first, last); });
  }

  /// Gets the region sums of the edge voxels ready to be taken.
  void arrangeSums() {
    const std::span<const int> centres(e_.ori_nbt_ind, e_.n_edge);
    m_.sums.resize(e_.n_edge);
    m_.regions.arrange(Rules::gridOf(*e_.label), centres, threads_);
  }

  void listVoxels(Grid grid) {
    // Pieces of consecutive planes are listed independently, from counts made beforehand.
    const int pieces = threads_ <= 1 ? 1 : 4 * threads_;
    const auto plane = [&](int piece) { return static_cast<int>(1LL * grid.Z * piece / pieces); };
    std::vector<std::array<int, 4>> starts(pieces + 1);
    parallelFor(threads_, pieces, [&](int k) {
      starts[k + 1] = countGroups(m_.positive, m_.edge, m_.band, plane(k), plane(k + 1));
    });
    std::array<int, 4> counts{};
    for (const auto& piece : starts) {
      for (int g = 0; g < 4; ++g) counts[g] += piece[g];
    }
    e_.n_ptest = counts[positiveTest];
    e_.n_ntest = counts[negativeTest];
    e_.n_nbt = e_.n_edge + e_.n_ptest + e_.n_ntest;
    starts[0] = {0, e_.n_pedge, e_.n_edge, e_.n_edge + e_.n_ptest};
    for (int k = 1; k <= pieces; ++k) {
      for (int g = 0; g < 4; ++g) starts[k][g] += starts[k - 1][g];
    }
    // The four lists by group are pieces of the band list.
    e_.ori_nbt_ind = m_.ind.need(e_.n_nbt);
    e_.ori_pedge_ind = e_.ori_nbt_ind;
    e_.ori_nedge_ind = e_.ori_nbt_ind + e_.n_pedge;
    e_.ori_ptest_ind = e_.ori_nbt_ind + e_.n_edge;
    e_.ori_ntest_ind = e_.ori_ptest_ind + e_.n_ptest;
    e_.ori_nbt_sub = m_.sub.need(static_cast<std::size_t>(D) * e_.n_nbt);
    parallelFor(threads_, pieces, [&](int k) {
      listBand<D>(m_.positive, m_.edge, m_.band, plane(k), plane(k + 1), starts[k], e_.ori_nbt_ind,
                  e_.ori_nbt_sub);
    });
  }

  void linkVoxels(Grid grid) {
    int* indices = e_.mask_indices->p;
    sideIndices(m_.positive, e_.n_nbt, indices, threads_);
    parallelRanges(threads_, e_.n_nbt, [&](int first, int last) {
      for (int i = first; i < last; ++i) indices[e_.ori_nbt_ind[i]] = i;
    });
    e_.links() = m_.links.need(static_cast<std::size_t>(2 * D) * e_.n_nbt);
    std::atomic<int> largest{0};
    parallelRanges(threads_, e_.n_nbt, [&](int first, int last) {
      const int mine =
          linkNeighbours<D>(grid, indices, e_.ori_nbt_ind, e_.ori_nbt_sub, first, last, e_.links());
      for (int seen = largest; seen < mine && !largest.compare_exchange_weak(seen, mine);) {
      }
    });
    Rules::check(grid, grid.X - 1 + (grid.Y - 1) * grid.X + (grid.Z - 1) * grid.plane(), largest,
                 e_.n_nbt);
  }

  void fillArrays(const double* Phi, bool wholeStep) {
    const std::size_t n = e_.n_nbt;
    e_.Spar_Phi = m_.Phi.need(n);
    e_.Spar_F = m_.F.need(n + 1);
    e_.Spar_Fext = m_.Fext.need(n + 2);
    e_.Spar_exact = m_.exact.need(D * (n + 2));
    e_.Spar_usdf = m_.usdf.need(n + 2);
    e_.Spar_sdf = m_.sdf.need(n + 2);
    parallelRanges(threads_, e_.n_nbt, [&](int first, int last) {
      for (int i = first; i < last; ++i) e_.Spar_Phi[i] = Phi[e_.ori_nbt_ind[i]];
      const int kept = wholeStep ? std::clamp(e_.n_edge, first, last) : first;
      std::fill(e_.Spar_F + kept, e_.Spar_F + last, 0.0);
      fillUnknown(kept, last);
      if (wholeStep) return;
      std::fill(e_.Spar_Fext + first, e_.Spar_Fext + last, 0.0);
      std::fill(e_.Spar_sdf + first, e_.Spar_sdf + last, unknownDistance);
    });
    e_.Spar_F[n] = 0.0;
    e_.Spar_Fext[n] = -unknownDistance;
    e_.Spar_Fext[n + 1] = unknownDistance;
    fillUnknown(e_.n_nbt, e_.n_nbt + 2);
    std::fill_n(e_.Spar_sdf + n, 2, unknownDistance);
  }

  void fillUnknown(int first, int last) {
    std::fill(e_.Spar_exact + 1LL * D * first, e_.Spar_exact + 1LL * D * last, unknownDistance);
    std::fill(e_.Spar_usdf + first, e_.Spar_usdf + last, unknownDistance);
  }

  Engine& e_;
  typename Engine::Memory& m_;
  int threads_;
};

}  // namespace tavrel
