// One scan through the stripping pipeline: grid, choice of W5, evolution, finishing.
//
// Front to the three stages of voxPipeline.h. Volumes are in the scan's own voxel order, masks hold
// 1 inside and 0 outside, level-set functions are negative inside.
#pragma once

#include <voxPipeline.h>

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "finishing.h"
#include "resample.h"

namespace tavrel::strip {

/// The defaults, chosen for the best worst case over the heads of docs/accuracy.md. The automatic
/// choice takes kUsualW5, kThinW5 where the mask of the half resolution is thin and does not leak
/// with it, and less than kUsualW5 in steps of kW5Step while the mask leaks.
inline constexpr char kDefaultW5[] = "auto";
inline constexpr double kUsualW5 = 1.0, kThinW5 = 1.1, kLeastW5 = 0.7, kW5Step = 0.1;
inline constexpr FinishSettings kDefaultFinish = {
    .openMm = 3, .largest = true, .closeMm = 6, .fillHoles = true};

/// What the user may set about the method.
struct StripSettings {
  std::optional<double> w5;  ///< weight of the outside mean; absent: chosen for the scan
  std::optional<FinishSettings> finish;  ///< absent: the evolved mask as it is
  std::optional<double> resampleMm;  ///< spacing of the grid to strip on; absent: the scan's own
  bool phi = false;                  ///< keep the level-set function
  int threads = 1;
};

/// One resolution of the evolution, after its end.
struct LevelRecord {
  Size size = {};
  int iterations = 0;
  double seconds = 0;
};

/// Told about the work while it goes on; empty functions are skipped, and they may throw.
struct StripObserver {
  Checkpoint checkpoint;
  /// Before each run of the evolution; the automatic choice of W5 may abandon a run for another.
  std::function<void(double w5)> onRun;
  std::function<void(const StepReport&)> onStep;
  std::function<void(int level, const LevelRecord&)> onLevel;
};

/// A stripped scan on its own grid.
struct Stripped {
  std::vector<char> mask;
  std::vector<float> phi;  ///< empty unless asked for; voxels of the grid stripped on
  double w5 = 0;           ///< the weight used
  bool leaks = false;      ///< the mask goes far beyond the firm part of the brain
  std::vector<LevelRecord> levels;
};

/// Values of a scan in the pipeline's own container.
using Image = vox3DMat<double, char>;

/// The grid that a scan of this grid is stripped on.
/// @throws ScanError if it has too many voxels
Grid strippingGrid(const Grid& grid, const StripSettings& settings);

/// Runs the whole method; `image` is freed as soon as it is no longer needed.
/// @throws Interrupted and whatever the observer throws
Stripped stripScan(std::unique_ptr<Image> image, const Grid& grid, const StripSettings& settings,
                   const StripObserver& observer = {});

}  // namespace tavrel::strip
