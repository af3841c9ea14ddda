// One scan of a cohort: taken, held against what is there, stripped, noted.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "dataset.h"
#include "study.h"

namespace tavrel::cohort {

/// What came of a scan.
struct Outcome {
  enum class Kind {
    done,      ///< stripped now
    finished,  ///< was done already, from the same input and in the same way
    claimed,   ///< another process works on it
    failed
  };
  Kind kind = Kind::failed;
  std::string text;                  ///< figures, or the reason
  std::vector<std::string> notices;  ///< for people, one line each
};

/// Strips a scan unless it is finished, and keeps the record of it. A mask that a person has
/// changed stays as it is, and the other outputs are made from it.
/// @throws Interrupted
Outcome stripOne(const Study& study, const Source& source);

/// The mask of a scan in the folder of --masks, or an empty path.
std::filesystem::path givenMask(const Study& study, const Source& source);

/// Whether stripOne() would find nothing to do.
bool isFinished(const Study& study, const Source& source);

/// Notes that a scan failed whose process did not live to do so.
void noteFailure(const Study& study, const Source& source, const std::string& reason);

}  // namespace tavrel::cohort
