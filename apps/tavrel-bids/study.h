// What a run does with every scan alike.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "scan/job.h"

namespace tavrel::cohort {

struct Study {
  std::filesystem::path dataset, output;
  scan::StripSettings strip;
  std::optional<std::int64_t> volume;  ///< of 4-D scans, from 0
  std::filesystem::path masks;         ///< folder of masks to use instead of stripping; or empty
  bool force = false;                  ///< also what is finished
  std::string command;                 ///< that does the same, without the choice of scans
};

}  // namespace tavrel::cohort
