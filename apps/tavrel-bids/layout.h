// Where everything is in the output folder, a BIDS dataset of derivatives.
#pragma once

#include <filesystem>
#include <string>

#include "dataset.h"

namespace tavrel::cohort {

/// The files of one scan.
struct ScanFiles {
  std::filesystem::path brain, brainInfo;  ///< the stripped scan and its sidecar
  std::filesystem::path mask, maskInfo;    ///< the mask and its sidecar, the record of the scan
  std::filesystem::path mosaic;            ///< cuts with the mask's contour, for the report
  std::filesystem::path preview;           ///< the scan at reduced size, for the report
  std::filesystem::path unfinished;        ///< there from the first work on to the success
};

/// Names of the files of a scan below the output folder.
ScanFiles filesOf(const std::filesystem::path& output, const Source& source);

/// The folder of what is begun and not finished.
std::filesystem::path unfinishedFolder(const std::filesystem::path& output);

/// Ending of the records of scans: masks' sidecars.
inline constexpr char kMaskInfo[] = "_desc-brain_mask.json";
inline constexpr char kMask[] = "_desc-brain_mask.nii.gz";
inline constexpr char kTable[] = "tavrel.tsv", kTableInfo[] = "tavrel.json";

}  // namespace tavrel::cohort
