// Sidecars. The mask's is the record of its scan: written last, it says that the scan is done, from
// what and how.
#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "dataset.h"
#include "row.h"
#include "study.h"

namespace tavrel::cohort {

/// What tells whether the outputs of a scan are still those that would come of it.
struct Record {
  std::string version;
  nlohmann::ordered_json settings;
  std::string inputSha256, maskSha256;
  std::string madeForSha256;  ///< of the scan that a person's mask was made for; or ""
  std::string givenSha256;    ///< of the file in --masks that the mask was taken from; or ""
  bool manual = false;        ///< the mask is a person's
  Row row;                    ///< without z-scores and rating
};

/// Reads the record of a scan; nothing where there is none that can be understood.
std::optional<Record> readRecord(const std::filesystem::path& maskInfo);

/// The settings that a result depends on.
nlohmann::ordered_json settingsOf(const Study& study);

/// The text of the mask's sidecar.
/// @param mask  checksums, version, settings and manual of the record
std::string maskInfo(const Study& study, const Source& source, const scan::ScanResult& result,
                     const Record& record);

/// The text of the stripped scan's sidecar.
std::string brainInfo(const Source& source);

}  // namespace tavrel::cohort
