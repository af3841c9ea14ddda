// The stripping pipeline in three stages over in-memory volumes: prepare -> evolve -> finish.
//
// Front ends (the raw-volume command, other file formats, progress bars, tests) read a volume, fill
// a voxPara, call the three stages in this order and write what they like. Nothing here knows the
// console or a file: progress goes to an observer.
// Conventions: masks hold 1 inside the brain and 0 outside; level-set functions are negative inside
// and measured in voxels of the grid being evolved; x varies fastest, then y, then z.
#pragma once

#include <functional>
#include <iosfwd>
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

/// Second stage: the level-set evolution over P.seg_dn + 1 resolutions, coarsest first. On return
/// `volumes.mask` is the mask at the prepared (padded) resolution. `volumes.image` is only read.
/// @param threads  worker threads, at least 1; the result is the same bytes for every count
void evolve(PreparedVolumes& volumes, const voxPara& P, const EvolutionObserver& observer = {},
            int threads = 1);

/// Last stage: doubles the mask back by `P.dn*`, removes the padding, refines it slice by slice if
/// any of `P.dnX`, `P.dnY`, `P.dnZ` is positive, and dilates it once by a 3 x 3 x 3 box. In place;
/// on return `mask` has the input's sizes.
void finish(vox3DMat<char, double>& mask, vox3DMat<double, char>& input, const voxPara& P);

}  // namespace tavrel
