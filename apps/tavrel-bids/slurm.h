// A run on a cluster with Slurm: tasks of several scans each in job arrays, and a job for the table
// and the report behind them.
#pragma once

#include <vector>

#include "options.h"

namespace tavrel::cohort {

/// Hands the scans that are not finished to the cluster, or prints what it would hand over.
/// @returns the exit status: of the run if it was waited for
/// @throws OutputError, Interrupted, std::runtime_error if the cluster takes nothing
int stripOnCluster(const Options& options, const std::vector<Source>& scans);

}  // namespace tavrel::cohort
