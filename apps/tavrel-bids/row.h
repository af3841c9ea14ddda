// One scan of a cohort as its table tells it.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavrel::cohort {

/// A row of tavrel.tsv; what is not known is empty.
struct Row {
  std::string participant;           ///< "sub-01"
  std::string session;               ///< "ses-02", or "" for none
  std::string scan;                  ///< all entities: "sub-01_ses-02_acq-hi_run-1"
  std::string status;                ///< "done" or "failed"
  std::string reason;                ///< why it failed
  bool manual = false;               ///< the mask was made or changed by a person
  std::optional<double> volumeMl;    ///< of the mask
  std::optional<double> w5;          ///< the weight used; absent for a given mask
  std::optional<double> confidence;  ///< in the mask, 0 to 1
  std::vector<std::pair<std::string, std::string>> flags;  ///< code and text of each doubt
  std::optional<double> zVolume;  ///< standard deviations from the cohort's mean volume
  std::optional<double> seconds;  ///< that the scan took
  std::optional<double> peakMemoryMb;
  std::string maskSha256;  ///< of the mask that is there
  std::string rating;      ///< "pass", "fail" or "maybe", or "", of that mask
  std::string former;      ///< the same of another mask of this scan, where that was rated
  std::string comment;     ///< of whoever rated it
};

}  // namespace tavrel::cohort
