// The table of a cohort, made from what is in the output folder alone.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "row.h"

namespace tavrel::cohort {

/// Told about what was not taken over, one line each; may be empty.
using Note = std::function<void(const std::string&)>;

/// A row for every scan that was done, failed, was interrupted or was handed to a cluster, in the
/// order of names, with z-scores within the cohort and the ratings of tavrel_ratings*.tsv.
std::vector<Row> readRows(const std::filesystem::path& output, const Note& note = {});

/// Writes tavrel.tsv and tavrel.json, which explains its columns. Files that are right already are
/// left alone. @throws OutputError
void writeTable(const std::filesystem::path& output, const std::vector<Row>& rows);

}  // namespace tavrel::cohort
