// The figures of a run as JSON.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "job.h"

namespace tavrel::scan {

inline constexpr char kVersion[] = TAVREL_VERSION;

/// The report's frame: program, version and settings, with an empty list "scans".
nlohmann::ordered_json newReport(const std::string& program, const StripSettings& settings,
                                 std::optional<std::int64_t> volume = {});

/// The entry of one scan, whether it is done or not.
nlohmann::ordered_json reportEntry(const ScanJob& job, const ScanResult& result);

/// The report as the text of a file.
std::string reportText(const nlohmann::ordered_json& report);

}  // namespace tavrel::scan
