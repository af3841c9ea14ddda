// The command line of tavrel-bids.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "dataset.h"
#include "pool.h"
#include "study.h"

namespace tavrel::cohort {

/// The statuses that the command ends with.
enum Status {
  kAllDone = 0,
  kSomeFailed = 1,
  kNoDataset = 16,
  kNothingMatched = 18,
  kUsage = 64,
  kCannotWrite = 73
};

/// How scans are handed to Slurm.
struct SlurmOptions {
  bool submit = false, wait = false, dryRun = false;
  std::string options;   ///< further ones for sbatch, as a shell would read them
  int scansPerTask = 0;  ///< 0: as many as take some minutes
  int jobs = 1;          ///< scans at a time in a task
  double memoryMb = 0;   ///< for the scans of a task; 0: what they need
};

struct Options {
  Study study;
  bool group = false;  ///< the level of analysis is "group", not "participant"
  Selection selection;
  std::filesystem::path scanList;  ///< names the scans, instead of the selection; or empty
  std::optional<long> task;        ///< of the list
  Limits limits;
  bool anyFolder = false;  ///< BIDS_DIR needs no dataset_description.json
  bool noGroup = false;    ///< leave table and report alone
  bool dryRun = false;
  bool quiet = false;
  SlurmOptions slurm;
  std::vector<std::string> forTasks;  ///< options that a task of a cluster gets too
};

/// The command has nothing (more) to do: help or version were printed, or the usage was wrong.
struct ExitNow {
  int status;
};

/// Parses the arguments; help goes to standard output, complaints to standard error.
/// @throws ExitNow
Options parseOptions(int argc, char** argv);

}  // namespace tavrel::cohort
