// The stripping pipeline in three stages over in-memory volumes: prepare -> evolve -> finish.
//
// Front ends (the raw-volume command, other file formats, progress bars, tests) read a volume, fill
// a voxPara, call the stages in this order and write what they like. Nothing here opens a file or
// writes to the console: progress goes to an observer, the sorting lines to a stream of the
// caller's. Nothing here ends the process either: sizes that do not belong together are reported by
// std::invalid_argument, too many voxels by std::length_error, too little memory by std::bad_alloc.
// Conventions: masks hold 1 inside the brain and 0 outside; level-set functions are negative inside
// and measured in voxels of the grid being evolved; x varies fastest, then y, then z.
#pragma once

#include "detail/voxCxx20.h"

// Nothing below is meant for less.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <limits>
#include <memory>

#include "vox2DMat.h"
#include "vox3DMat.h"
#include "voxPara.h"

/// Relative change of the inside count, the convergence test of an evolution.
///
/// Stores `newVeC->Sum()` in `lt[i]`. From the third iteration on (i > 1) returns
/// |min(lt[i-1] - lt[i-2], lt[i-1] - lt[i-3])| / lt[i-1]; at the third iteration (i = 2), where
/// lt[i-3] does not exist, the one-step change alone decides. For i = 0 and 1 there is no test and
/// the result is infinite, so that it never stops a loop. With an empty mask the result is infinite
/// or not a number.
/// @param i   iteration, counted from 0
/// @param lt  history of inside counts, at least i + 1 entries; entry i is written
double computeratio(int i, double* lt, vox3DMat<char, double>* newVeC);
/// The same test for one slice.
double computeratio(int i, double* lt, vox2DMat<char, double>* newVeC);

namespace tavrel {

/// The built-in pyramid of resolutions and what it asks of a volume.
struct Pyramid {
  static constexpr int halvings = 2;           ///< from the finest to the coarsest level
  static constexpr int levels = halvings + 1;  ///< quarter, half and whole size
  /// A level has converged when the inside count changes by less than this part of itself.
  static constexpr double threshold = 0.0002;
  static constexpr std::int64_t mostVoxels = std::numeric_limits<int>::max();

  /// A size with its padding, a multiple of 4.
  static constexpr std::int64_t padded(std::int64_t size) {
    constexpr std::int64_t multiple = std::int64_t{1} << halvings;
    return (size + multiple - 1) / multiple * multiple;
  }
  /// Whether the voxels of a volume can be counted with its padding. Sizes must not be negative; a
  /// volume without voxels fits.
  static constexpr bool fits(std::int64_t X, std::int64_t Y, std::int64_t Z) {
    if (std::min({X, Y, Z}) <= 0) return std::min({X, Y, Z}) == 0;
    std::int64_t voxels = 1;
    for (const std::int64_t size : {X, Y, Z}) {
      if (size > mostVoxels || padded(size) > mostVoxels / voxels) return false;
      voxels *= padded(size);
    }
    return true;
  }
};

/// What an observer is told after every evolution step.
struct StepReport {
  int level;      ///< 0 is the coarsest
  int levels;     ///< number of levels of the run
  int iteration;  ///< counted from 0 within the level
  double inside;  ///< voxels inside after the step, of the level's grid
  double ratio;  ///< relative change that decides convergence; infinite in the first two iterations
  int n_edge;    ///< voxels on the interface before the step
  int n_nbt;     ///< voxels in the narrow band before the step
};

/// Callbacks of an evolution; empty ones are skipped. They run on the calling thread between steps
/// and may throw to abandon the run.
struct EvolutionObserver {
  std::function<void(const StepReport&)> onStep;
  /// Called when a level has ended, with its level-set function (sizes of the level's grid).
  std::function<void(int level, vox3DMat<double, char>& Phi)> onLevel;
};

/// What the evolution works on: the prepared image and the current mask.
struct PreparedVolumes {
  std::unique_ptr<vox3DMat<double, char>> image;  ///< filtered, padded, normalised (finest grid)
  std::unique_ptr<vox3DMat<char, double>> mask;   ///< seed at the coarsest level; later the result
};

/// Fills `P` with the pipeline's own settings (three levels of at most 1000 steps, seed box 0.3 to
/// 0.7 of every axis, weights 0, 0, 0.01, 1, W5, 0, 0). The path strings are borrowed.
void setupPipeline(voxPara& P, char* inputPath, char* maskPath, char* strippedPath, int format,
                   int sizeX, int sizeY, int sizeZ, double W5);

/// First stage: six-neighbour minimum filter, zero padding, halvings by `P.dn*`, normalisation to
/// 0..1, gamma, and the box seed at the coarsest level. Voxels that are not finite count as 0.
/// There are instances for voxels of type double, float, short and unsigned char; the result
/// depends on their values alone.
/// @param input  volume of P.sizeX x P.sizeY x P.sizeZ voxels; only read
/// @param report where the sorting lines of `Normalize` go; nullptr for nowhere
template <class T>
PreparedVolumes prepare(const vox3DMat<T, char>& input, const voxPara& P,
                        std::ostream* report = nullptr);

/// Second stage: the level-set evolution over P.levels() resolutions, coarsest first, of at most
/// P.max_iter steps each (none if that is null). On return `volumes.mask` is the mask at the
/// prepared (padded) resolution. `volumes.image` is only read.
/// @param threads  worker threads, at least 1; the result is the same bytes for every count
void evolve(PreparedVolumes& volumes, const voxPara& P, const EvolutionObserver& observer = {},
            int threads = 1);

/// Between the second and the last stage, for runs that halved the image by `P.dn*`: brings the
/// mask to the input's grid and evolves each of its slices on the input's own intensities. In
/// place.
void refineSlices(vox3DMat<char, double>& mask, const vox3DMat<double, char>& input,
                  const voxPara& P);

/// Last stage: brings the mask to the input's grid if it is not there yet (it is doubled by `P.dn*`
/// and loses the padding) and dilates it once by a 3 x 3 x 3 box. In place.
void finish(vox3DMat<char, double>& mask, const voxPara& P);

}  // namespace tavrel
