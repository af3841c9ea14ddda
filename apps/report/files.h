// The files of a scan in the output folder, and what the pages read of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "scan/nifti/header.h"
#include "tavrel-bids/row.h"

namespace tavrel::report {

/// Where the files of a scan are, relative to the output folder.
struct ScanFiles {
  std::filesystem::path mask, record;     ///< derivatives; the record is the mask's sidecar
  std::filesystem::path mosaic, preview;  ///< figures
  std::filesystem::path page, thumbnail;  ///< what the report adds
};
ScanFiles filesOf(const cohort::Row& row);

/// A regular file's bytes, or nothing if it cannot be read.
std::optional<std::vector<std::byte>> readFile(const std::filesystem::path& path);

/// What the mask's sidecar tells about the scan under "Tavrel"; null without it.
nlohmann::ordered_json readRecord(const std::filesystem::path& path);

/// A mask as a page carries it: a gzipped NIfTI file of unsigned 8-bit voxels without scaling,
/// above 0 inside.
struct PageMask {
  std::vector<std::byte> file;
  scan::Size size = {};
  std::int64_t dataOffset = 0;  ///< where the voxels begin once the file is decompressed
};
/// @throws scan::ScanError if the mask cannot be read; scan::Interrupted
PageMask readMask(const std::filesystem::path& path);

}  // namespace tavrel::report
