// The command line of tavrel-nifti: what it accepts, what it means, what --help says.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "scan/job.h"

namespace tavrel::scan {

/// Everything that the command line sets.
struct Options {
  std::vector<std::string> inputs;
  std::string outDir;                  ///< empty: beside each input
  std::string brain, mask, phi, qc;    ///< names of single outputs; empty: the default
  std::string json;                    ///< empty: no report
  std::string fromMask;                ///< empty: the scans are stripped
  std::optional<std::int64_t> volume;  ///< of 4-D files, from 0
  StripSettings strip;
  bool force = false;
  bool strict = false;                 ///< doubtful masks are a status of their own
  bool quiet = false;
};

/// The command has nothing (more) to do: help or version were printed, or the usage was wrong.
struct ExitNow {
  int status;
};

/// Parses the arguments; help goes to standard output, complaints to standard error.
/// @throws ExitNow
Options parseOptions(int argc, char** argv);

/// One job a scan: sub-01_T1w.nii.gz gives sub-01_T1w_brain.nii.gz, _brain_mask.nii.gz and
/// _brain_qc.png beside it or in the output folder, unless single names are set. Plain .nii inputs
/// give plain .nii outputs. With a given mask there is no mask among the outputs unless it is
/// named.
std::vector<ScanJob> scanJobs(const Options& options);

}  // namespace tavrel::scan
