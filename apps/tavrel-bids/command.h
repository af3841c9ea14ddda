// tavrel-bids: from a BIDS dataset to brains, masks, a table and a report.
#pragma once

#include "options.h"

namespace tavrel::cohort {

/// Does what the options say and returns the exit status (Status, or 128 plus the number of the
/// signal that ended the run).
int runCommand(const Options& options);

}  // namespace tavrel::cohort
