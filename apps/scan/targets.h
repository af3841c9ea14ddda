// Outputs of a run held against everything the run reads and against one another.
#pragma once

#include <filesystem>
#include <span>
#include <vector>

#include "job.h"

namespace tavrel::scan {

/// Refuses a run in which an output would replace a file that the run reads, or two outputs would
/// end up under one name. Files are compared, not names: every scan stands for the files that will
/// be opened for it, and links lead to what they lead to. To be called before anything is written.
/// @param others  further outputs of the run, each with what it is: {"report.json", "--json"}
/// @throws OutputError
void checkOutputs(std::span<const ScanJob> jobs,
                  const std::vector<std::pair<std::filesystem::path, std::string>>& others = {});

}  // namespace tavrel::scan
