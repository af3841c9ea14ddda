// What is odd about a scan as it was acquired or handed on.
#pragma once

#include "scan/job.h"
#include "scan/nifti/scan.h"

namespace tavrel::cohort {

/// Adds to the notices of a result: an oblique scan, transforms that disagree; and to its flags: no
/// transform at all.
void noteOddities(const scan::Scan& scan, scan::ScanResult& result);

}  // namespace tavrel::cohort
