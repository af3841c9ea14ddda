// Lists of scans that are handed to the tasks of a cluster, kept in the logs.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "dataset.h"

namespace tavrel::cohort {

/// The name of a list in a folder of the logs.
inline constexpr char kTaskList[] = "scans.tsv";

/// The text of a list: tasks count from 1.
std::string taskList(const std::vector<std::vector<Source>>& tasks);

/// Scans of a list, or of one of its tasks. A line is a scan's path, after the number of its task
/// if there are tasks. @throws std::runtime_error naming the file
std::vector<Source> listedScans(const std::filesystem::path& list, std::optional<long> task = {});

/// The scans of all lists in the logs of an output folder.
std::vector<Source> plannedScans(const std::filesystem::path& output);

}  // namespace tavrel::cohort
