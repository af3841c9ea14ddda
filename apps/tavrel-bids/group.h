// The group level: the table and the report, from the output folder alone.
#pragma once

#include <filesystem>
#include <vector>

#include "table.h"

namespace tavrel::cohort {

/// Writes tavrel.tsv, its description and the report. @returns the rows. @throws OutputError
std::vector<Row> writeGroup(const std::filesystem::path& output, const Note& note = {});

}  // namespace tavrel::cohort
