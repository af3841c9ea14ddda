// One scan from its file to its outputs, for whoever strips many: a plain value in, a plain value
// out, so that a thread, a forked process or a task of a cluster can run it.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "nifti/header.h"
#include "strip/stripping.h"

namespace tavrel::scan {

struct Scan;
class PendingFile;

/// Where the outputs of one scan go. Empty paths are not written.
struct OutputPaths {
  std::filesystem::path brain, mask, phi, qc;
  /// Those that are written.
  std::vector<std::filesystem::path> all() const;
};

/// What is to be done with one scan.
struct ScanJob {
  std::string input;                   ///< the scan, as its user names it
  std::optional<std::int64_t> volume;  ///< of a 4-D file, from 0
  std::string fromMask;  ///< mask on the scan's grid to use as it is; empty: the scan is stripped
  OutputPaths outputs;   ///< in folders that exist; phi is not for jobs with fromMask
  StripSettings strip;   ///< `strip.phi` is set by whether outputs.phi is
  bool force = false;    ///< replace outputs that exist
};

/// What came of a job. Where it is not done, the fields after `notices` hold what was known when it
/// failed.
struct ScanResult {
  bool done = false;
  std::string reason;                ///< why not, in one line without the scan's name
  std::vector<std::string> notices;  ///< oddities that were worked around, one line each
  std::vector<Flag> flags;           ///< empty: nothing seems wrong with the mask
  double confidence = 1;             ///< in the mask, 0 to 1
  Size size = {};                    ///< voxels of the scan
  Spacing spacing = {};              ///< millimetres
  std::size_t voxels = 0;            ///< inside the mask
  double volumeMl = 0;               ///< of the mask
  Box box;                           ///< around the mask
  double w5 = std::numeric_limits<double>::quiet_NaN();  ///< the weight used; NaN for a given mask
  std::vector<LevelRecord> levels;                       ///< of the exact evolution
  std::vector<TrialRecord> trials;                       ///< of the evolution for scans
  std::string sha256;         ///< of the file with the header, hexadecimal
  std::string imageSha256;    ///< of the second file of a pair, otherwise empty
  mode_t permissions = 0666;  ///< of the scan's files
  double seconds = 0;         ///< from the call to the return
};

/// Told about a job while it goes on; empty functions are skipped. They are called on the thread
/// that runs the job and may throw Interrupted.
struct JobObserver {
  std::function<void(const std::string& stage)> onStage;    ///< "reading", "writing"
  std::function<void(const std::string& notice)> onNotice;  ///< as ScanResult::notices
  std::function<void(const Grid& grid)> onGrid;             ///< what the scan is stripped on
  /// When all outputs are written and none is in place yet: may add files that belong with them,
  /// and throw an exception to have none of them.
  std::function<void(const Scan& scan, const ScanResult& result, std::vector<PendingFile>& files)>
      onWritten;
  StripObserver strip;
};

/// Strips one scan and writes its outputs, all or none. Prints nothing, never ends the process and
/// answers signals where catchSignals() has been called.
/// @throws Interrupted and nothing else
ScanResult stripFile(const ScanJob& job, const JobObserver& observer = {});

/// Bytes of memory that stripFile() needs for a head with this header, known before anything is
/// allocated.
/// @throws std::length_error if the grid to strip on would have 2^31 voxels or more
std::uint64_t memoryNeed(const Header& header, const StripSettings& settings);

}  // namespace tavrel::scan
