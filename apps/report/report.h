// The report of a cohort: an index to sort, filter and review by, and one page a scan.
//
// Everything comes from the output folder. Pages stand alone: they fetch nothing, so that they work
// from a disk, a stick or a mail; only the thumbnails of the index are files beside it.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tavrel-bids/row.h"

namespace tavrel::report {

/// What a report is about.
struct ReportInput {
  std::filesystem::path output;   ///< the folder of the derivatives
  std::vector<cohort::Row> rows;  ///< its scans, in the order that next and previous follow
  std::string version;            ///< of this program
  std::string datasetName;        ///< of the raw dataset, for headings
};

/// Writes `index.html`, and for each row its page `<scan>.html` and its thumbnail. The same input
/// gives the same bytes, and a file that holds them already is not touched. What a page lacks (a
/// picture that is gone, a damaged mask) is said on it. What a killed run has left of such files is
/// removed.
/// @throws scan::OutputError if a file cannot be written; scan::Interrupted
void writeReports(const ReportInput& input);

}  // namespace tavrel::report
