// The output folder as a BIDS dataset of derivatives.
#pragma once

#include <filesystem>
#include <string>

#include "dataset.h"

namespace tavrel::cohort {

/// Refuses an output folder that is the dataset, or is or lies in the folder of a subject.
/// @throws std::invalid_argument
void checkPlaces(const std::filesystem::path& dataset, const std::filesystem::path& output);

/// Makes the folder and the files that describe it: dataset_description.json, .bidsignore,
/// descriptions.tsv, README. What users have added there stays.
/// @throws OutputError, also if the folder holds another dataset
void prepareOutput(const std::filesystem::path& dataset, const std::filesystem::path& output,
                   const DatasetInfo& info);

/// The name that an output folder's description gives to the dataset.
std::string outputName(const std::filesystem::path& output);

}  // namespace tavrel::cohort
