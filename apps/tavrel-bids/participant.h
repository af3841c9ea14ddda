// The participant level on this machine: every scan in a process of its own.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "options.h"

namespace tavrel::cohort {

/// What is known of a scan before it is read.
struct Estimate {
  scan::Size size = {};      ///< voxels
  std::uint64_t memory = 0;  ///< bytes that stripping it takes
};

/// Nothing if the header of the scan cannot be read.
std::optional<Estimate> estimate(const Study& study, const Source& source);

/// Strips all scans that are not finished.
/// @returns how many failed
/// @throws Interrupted
std::size_t stripAll(const Options& options, const std::vector<Source>& scans);

/// Those of the scans that are not finished.
std::vector<Source> missing(const Options& options, const std::vector<Source>& scans);

}  // namespace tavrel::cohort
