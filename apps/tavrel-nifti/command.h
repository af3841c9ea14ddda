// tavrel-nifti: from NIfTI scans to brains, masks and pictures.
#pragma once

#include "options.h"

namespace tavrel::scan {

/// Strips all scans of the options and returns the exit status: 0 all done, 2 some input failed,
/// 130 stopped by Ctrl-C (128 plus the number of other signals).
int runCommand(const Options& options);

}  // namespace tavrel::scan
