// One scan in memory through the whole method: find the head, evolve, choose W5, finish, judge.
//
// Masks hold 1 inside and 0 outside, in the scan's own voxel order; level-set functions are
// negative inside.
#pragma once

#include <voxPipeline.h>

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "finishing.h"
#include "judge.h"
#include "resample.h"
#include "scan_view.h"

namespace tavrel::strip {

/// Which evolution moves the surface.
enum class Evolution {
  scan,  ///< that of front.h: fast, begins where the head's middle is, held near 1 mm
  exact  ///< that of `Tavrel`: on the scan's own grid, begins in the middle of the volume
};

inline constexpr char kAuto[] = "auto";
inline constexpr FinishSettings kDefaultFinish = {
    .openMm = 3, .largest = true, .closeMm = 6, .fillHoles = true};

/// What the user may set about the method.
struct StripSettings {
  Evolution evolution = Evolution::scan;
  std::optional<double> w5;  ///< weight of the outside mean; absent: chosen for the scan
  std::optional<FinishSettings> finish;  ///< absent: the evolved mask as it is
  std::optional<double> resampleMm;  ///< spacing of the grid to strip on; absent: chosen (scan) or
                                     ///< the scan's own (exact)
  bool phi = false;                  ///< keep the level-set function (exact only)
  VolumeRange volumes;               ///< that a brain may have, in mL
  int threads = 1;
};

/// One resolution of the evolution, after its end.
struct LevelRecord {
  Size size = {};
  int iterations = 0;
  double seconds = 0;
};

/// One weight that the evolution for scans has tried.
struct TrialRecord {
  double w5 = 0;
  double ml = 0;         ///< of the finished mask of the trial
  double agreement = 1;  ///< with the masks of its neighbours, 0 to 1
};

/// Told about the work while it goes on; empty functions are skipped, and they may throw.
struct StripObserver {
  Checkpoint checkpoint;  ///< may be called by several threads at once
  /// What begins now, and which share of the work is done (evolution for scans).
  std::function<void(const char* stage, double done)> onStage;
  /// Before each run of the exact evolution, whose choice of W5 may abandon a run for another.
  std::function<void(double w5)> onRun;
  std::function<void(const StepReport&)> onStep;
  std::function<void(int level, const LevelRecord&)> onLevel;
};

/// A stripped scan on its own grid.
struct Stripped {
  std::vector<char> mask;
  std::vector<float> phi;           ///< empty unless asked for
  double w5 = 0;                    ///< the weight used
  std::vector<LevelRecord> levels;  ///< of the exact evolution
  std::vector<TrialRecord> trials;  ///< of the evolution for scans
  Judgement judgement;
};

/// A scan that the method cannot work on, with the reason in one line.
class NoHead : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Values of a scan in the container of the exact evolution.
using Image = vox3DMat<double, char>;

/// The grid that the exact evolution strips a scan of this grid on.
/// @throws std::length_error if it has too many voxels
Grid exactGrid(const Grid& grid, const StripSettings& settings);

/// Runs the exact evolution; `image` is freed as soon as it is no longer needed.
/// @throws whatever the observer throws
Stripped stripExactly(std::unique_ptr<Image> image, const Grid& grid, const StripSettings& settings,
                      const StripObserver& observer = {});

/// The largest working grid that a scan of this grid and orientation may need.
/// @throws std::length_error if it has too many voxels
Grid largestWorkGrid(const ScanView& scan, const StripSettings& settings);

/// Runs the method with the evolution for scans.
/// @throws NoHead, and whatever the observer throws
Stripped stripScan(const ScanView& scan, const StripSettings& settings,
                   const StripObserver& observer = {});

}  // namespace tavrel::strip
