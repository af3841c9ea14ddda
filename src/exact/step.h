// One level of an evolution: a level-set function on a grid, moved step by step.
//
// A step builds the narrow band around the zero level of Phi, re-initialises Phi there as a signed
// distance, computes the speed of the interface, extends it over the band and moves Phi by it, so
// that the fastest band voxel moves by one voxel. It leaves the bits that the plain stages of
// vox3DLevelSet leave. Phi is negative inside; distances are in voxels of the grid being evolved.
//
// The sides and the index map belong to the level: they are made from Phi at its beginning and kept
// up by advance(), so that no step looks at the whole volume for them. The band and the sums belong
// to one step, which hands them from stage to stage.
#pragma once

#include "detail/voxExactMath.h"

// Exact from here on.
#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <span>
#include <vector>

#include "band.h"
#include "crossings.h"
#include "curvature.h"
#include "detail/voxValues.h"
#include "extension.h"
#include "grid.h"
#include "memory.h"
#include "../parallel.h"
#include "region_sums.h"
#include "signs.h"
#include "sweeps.h"
#include "voxUtility.h"

namespace tavrel::exact {

/// The weights of the speed that have an effect: pressure, curvature, inside and outside mean, and
/// the coupling of the new function to the one before the step.
struct Weights {
  double w1 = 0, w3 = 0, w4 = 0, w5 = 0, w7 = 0;
};

/// What a step did.
struct StepResult {
  int n_edge = 0;        ///< interface voxels before the step; without any, nothing was done
  int n_nbt = 0;         ///< voxels of the band
  int insideChange = 0;  ///< voxels that the step added to the inside
};

/// Memory that steps use one after another. What it holds means nothing between them.
struct Workspace {
  Buffer<int> ind, sub, links;
  Buffer<double> Phi, F, Fext, exact, usdf, sdf;
  RegionSummer regions;
  std::vector<RegionSums> sums;
};

class Level {
 public:
  /// Borrows Phi and the image, one value a voxel each, and the memory. While the level lives,
  /// nothing else may write to Phi.
  /// @param width  of the band, at least 1
  Level(double* Phi, const double* image, Grid grid, Workspace& memory, int threads = 1,
        int width = 2)
      : Phi_(Phi),
        image_(image),
        grid_(grid),
        memory_(memory),
        threads_(threads),
        width_(width),
        side_(std::make_unique_for_overwrite<char[]>(voxels())),
        indices_(std::make_unique_for_overwrite<int[]>(voxels())) {
    signBits(Phi, grid, positive_, threads);
    parallelRanges(threads, grid.voxels(), [&](int first, int last) {
      for (int g = first; g < last; ++g) setSide(g, isPositive(Phi_[g]));
    });
  }

  StepResult step(const Weights& w) {
    const Band band = findBand();
    if (band.n_edge == 0) return {};
    findEdgePoints(band);
    const std::span<const RegionSums> sums = findDistances(band, w.w4 != 0);
    findSpeed(band, w, sums);
    extendSpeed(band, w.w7);
    return {band.n_edge, band.n_nbt, advance(band)};
  }

  // The stages of a step, in their order.

  /// The band with its lists, links, values of Phi, and what stands for the voxels outside it.
  /// Other values that the stages below write before they read them are not set.
  Band findBand() {
    interfaceBits(positive_, edge_, threads_);
    band_ = edge_;
    dilateBox(band_, width_, scratch_, threads_);
    Band band = listVoxels();
    linkVoxels(band);
    fillArrays(band);
    return band;
  }

  /// Nearest interface point and distance of the edge voxels.
  void findEdgePoints(const Band& band) const {
    overEdges(band, [&](int first, int last) { locateInterface(band, first, last); });
  }

  /// Distances of the test voxels, the signed distance of every slot and, if they are wanted, the
  /// region sums of the edge voxels. The sums depend on the sides alone, and the two together keep
  /// all threads busy: there are only two sides to sweep.
  std::span<const RegionSums> findDistances(const Band& band, bool wantSums) const {
    if (wantSums) arrangeSums(band);
    parallelFor(threads_, 2 + (wantSums ? memory_.regions.pieces() : 0), [&](int i) {
      if (i < 2) return sweepDistances(band, i);
      memory_.regions.sumPiece(i - 2, image_, side_.get(), memory_.sums);
    });
    parallelRanges(threads_, band.n_nbt + 2,
                   [&](int first, int last) { signDistances(band, first, last); });
    return memory_.sums;
  }

  /// Speed of the edge voxels; the region term only if w4 is not 0.
  void findSpeed(const Band& band, const Weights& w, std::span<const RegionSums> sums) const {
    overEdges(band, [&](int first, int last) {
      curvatureSpeed(band, indices_.get(), grid_, w.w1, w.w3, first, last);
      if (!(w.w4 != 0)) return;
      for (int i = first; i < last; ++i) {
        band.F[i] = withRegionTerm(band.F[i], image_[band.ind[i]], sums[i], w.w4, w.w5);
      }
    });
  }

  /// Extension velocities of the whole band.
  void extendSpeed(const Band& band, double w7) const {
    overEdges(band, [&](int first, int last) { extendToInterface(band, first, last); });
    extendOverBand(band, threads_);
    if (!(w7 != 0)) return;
    for (int i = 0; i < band.n_nbt; ++i) {
      band.Fext[i] = (band.sdf[i] - band.Phi[i]) * w7 + band.Fext[i];
    }
  }

  /// Phi = signed distance - dt * extension velocity, with dt such that the fastest band voxel
  /// moves by one voxel. Returns how many voxels that adds to the inside. The band's links are of
  /// no use afterwards.
  int advance(const Band& band) {
    double ma = 0;
    maxabs(band.Fext, band.n_nbt, &ma);
    const double dt = ma != 0 ? 1.0 / ma : 0.0;
    std::atomic<int> change{0};
    parallelRanges(threads_, band.n_nbt, [&](int first, int last) {
      int mine = 0;
      for (int i = first; i < last; ++i) {
        const int g = band.ind[i];
        const double next = band.sdf[i] - dt * band.Fext[i], before = band.Phi[i];
        Phi_[g] = next;
        setSide(g, isPositive(next));
        if (isPositive(next) != isPositive(before)) flipSign(band.coordinates(i));
        mine += isInside(next) - isInside(before);
      }
      change += mine;
    });
    return change;
  }

  /// 1 at voxels of the positive side, -1 at those of the negative one.
  std::span<const char> sides() const { return {side_.get(), voxels()}; }
  /// The band index of every voxel, or the value of Outside that stands for its side.
  std::span<const int> indices() const { return {indices_.get(), voxels()}; }

 private:
  std::size_t voxels() const { return static_cast<std::size_t>(grid_.voxels()); }

  void setSide(int g, bool positive) {
    side_[g] = static_cast<char>(positive ? 1 : -1);
    indices_[g] = positive ? positiveSide : negativeSide;
  }

  void flipSign(const int* voxel) {
    BitGrid::Word& word = positive_.row(voxel[1], voxel[2])[voxel[0] / 64];
    std::atomic_ref(word).fetch_xor(BitGrid::Word{1} << voxel[0] % 64, std::memory_order_relaxed);
  }

  template <typename Kernel>
  void overEdges(const Band& band, Kernel&& kernel) const {
    parallelRanges(threads_, band.n_edge, kernel);
  }

  void arrangeSums(const Band& band) const {
    memory_.sums.resize(band.n_edge);
    memory_.regions.arrange(grid_, {band.ind, memory_.sums.size()}, threads_);
  }

  Band listVoxels() {
    // Pieces of consecutive planes are listed independently, from counts made beforehand.
    const int pieces = threads_ <= 1 ? 1 : 4 * threads_;
    const auto plane = [&](int piece) { return static_cast<int>(1LL * grid_.Z * piece / pieces); };
    std::vector<std::array<int, 4>> starts(pieces + 1);
    parallelFor(threads_, pieces, [&](int k) {
      starts[k + 1] = countGroups(positive_, edge_, band_, plane(k), plane(k + 1));
    });
    std::array<int, 4> counts{};
    for (const auto& piece : starts) {
      for (int g = 0; g < 4; ++g) counts[g] += piece[g];
    }
    Band band;
    band.n_pedge = counts[positiveEdge];
    band.n_edge = band.n_pedge + counts[negativeEdge];
    band.n_ptest = counts[positiveTest];
    band.n_nbt = band.n_edge + band.n_ptest + counts[negativeTest];
    starts[0] = {0, band.n_pedge, band.n_edge, band.n_edge + band.n_ptest};
    for (int k = 1; k <= pieces; ++k) {
      for (int g = 0; g < 4; ++g) starts[k][g] += starts[k - 1][g];
    }
    int* const ind = memory_.ind.need(band.n_nbt);
    int* const sub = memory_.sub.need(3 * static_cast<std::size_t>(band.n_nbt));
    parallelFor(threads_, pieces, [&](int k) {
      listBand(positive_, edge_, band_, plane(k), plane(k + 1), starts[k], ind, sub);
    });
    band.ind = ind;
    band.sub = sub;
    return band;
  }

  void linkVoxels(Band& band) {
    parallelRanges(threads_, band.n_nbt, [&](int first, int last) {
      for (int i = first; i < last; ++i) indices_[band.ind[i]] = i;
    });
    int* const links = memory_.links.need(6 * static_cast<std::size_t>(band.n_nbt));
    parallelRanges(threads_, band.n_nbt, [&](int first, int last) {
      linkNeighbours(grid_, indices_.get(), band, first, last, links);
    });
    band.neighbours = links;
  }

  void fillArrays(Band& band) const {
    const std::size_t n = band.n_nbt;
    double* const Phi = memory_.Phi.need(n);
    band.Phi = Phi;
    band.F = memory_.F.need(n + 1);
    band.Fext = memory_.Fext.need(n + 2);
    band.exact = memory_.exact.need(3 * (n + 2));
    band.usdf = memory_.usdf.need(n + 2);
    band.sdf = memory_.sdf.need(n + 2);
    parallelRanges(threads_, band.n_nbt, [&](int first, int last) {
      for (int i = first; i < last; ++i) Phi[i] = Phi_[band.ind[i]];
      const int tests = std::clamp(band.n_edge, first, last);
      std::fill(band.F + tests, band.F + last, 0.0);
      fillUnknown(band, tests, last);
    });
    band.F[n] = 0.0;
    band.Fext[n] = -unknownDistance;
    band.Fext[n + 1] = unknownDistance;
    fillUnknown(band, band.n_nbt, band.n_nbt + 2);
  }

  static void fillUnknown(const Band& band, int first, int last) {
    std::fill(band.point(first), band.point(last), unknownDistance);
    std::fill(band.usdf + first, band.usdf + last, unknownDistance);
  }

  double* const Phi_;
  const double* const image_;
  const Grid grid_;
  Workspace& memory_;
  const int threads_, width_;
  BitGrid positive_;  // kept up by advance()
  const std::unique_ptr<char[]> side_;
  const std::unique_ptr<int[]> indices_;
  BitGrid edge_, band_, scratch_;  // of the present step
};

}  // namespace tavrel::exact
