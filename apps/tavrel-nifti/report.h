// The figures of a run as JSON.
#pragma once

#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "options.h"
#include "scan/nifti/scan.h"
#include "strip/stripping.h"

namespace tavrel::scan {

/// The report's frame: program, version and settings, with an empty list "scans".
nlohmann::ordered_json newReport(const Options& options);

/// The entry of a scan that was stripped.
nlohmann::ordered_json scanEntry(const std::string& input, const Scan& scan,
                                 const Stripped& stripped, const OutputPaths& outputs,
                                 double seconds);

/// The entry of a scan that failed.
nlohmann::ordered_json failedEntry(const std::string& input, const std::string& reason);

}  // namespace tavrel::scan
