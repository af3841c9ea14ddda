// The T1-weighted scans of a BIDS dataset.
//
// Only the folders of the chosen subjects are looked into, and of those only anat: nothing is
// indexed.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "filter.h"

namespace tavrel::cohort {

/// A scan as it was found.
struct Source {
  std::string path;         ///< below the dataset: "sub-01/ses-02/anat/sub-01_ses-02_T1w.nii.gz"
  std::string participant;  ///< "sub-01"
  std::string session;      ///< "ses-02", or ""
  std::string stem;         ///< all entities; "" where there are none to be told
  std::string problem;      ///< why it cannot be stripped, known from names alone; or ""
};

/// Which scans are wanted. Empty lists take all.
struct Selection {
  std::vector<std::string> participants, sessions;  ///< labels without prefix
  Filter filter;
};

/// What stands in the dataset's description, as far as it is used.
struct DatasetInfo {
  std::string name, doi;
};

/// Why a folder is not a BIDS dataset; the text names it.
class NoDataset : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Reads dataset_description.json. @throws NoDataset if it is not there or not as it should be
DatasetInfo readDataset(const std::filesystem::path& dataset);

/// All scans that are wanted, by name. What cannot be looked into, and names that are none, are
/// among them with their problem.
/// @param unknown  receives the wanted participants ("sub-07") that have no folder
std::vector<Source> findScans(const std::filesystem::path& dataset, const Selection& wanted,
                              std::vector<std::string>& unknown);

/// The scan with this path below a dataset.
Source sourceOf(const std::string& path);

/// Marks scans whose outputs would have the same names.
void markTwins(std::vector<Source>& scans);

/// Why the content of a file is not there: data of an annex that was not fetched, a link to
/// nowhere; "" if it is there or the file itself is not.
std::string absence(const std::filesystem::path& file);

}  // namespace tavrel::cohort
