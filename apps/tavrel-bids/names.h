// Names of BIDS files: sub-01_ses-02_acq-hi_run-1_T1w.nii.gz.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavrel::cohort {

/// A file name that is none of BIDS; the text is the reason, without the name.
class NameError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The pieces of a file name.
struct Name {
  std::vector<std::pair<std::string, std::string>> entities;  ///< {"sub", "01"}, ... in order
  std::string suffix;                                         ///< "T1w"
  std::string extension;                                      ///< ".nii.gz"

  /// The value of an entity given by its short key ("acq").
  std::optional<std::string> value(std::string_view key) const;
  /// All entities: "sub-01_ses-02_acq-hi_run-1".
  std::string stem() const;
};

/// Takes a name apart. Labels may hold any printable characters, for there are datasets with more
/// than the letters and digits that BIDS allows. @throws NameError
Name parseName(const std::string& fileName);

/// Whether a file in a folder of a subject calls itself a T1-weighted scan.
bool looksLikeScan(const std::string& fileName);

/// A label without the prefix that users may write or leave out: "sub-01" and "01" give "01".
std::string withoutPrefix(const std::string& label, std::string_view prefix);

}  // namespace tavrel::cohort
