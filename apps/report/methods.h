// Words for the methods section of a paper.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tavrel-bids/row.h"

namespace tavrel::report {

/// How a mask was made.
struct Methods {
  std::string text;                     ///< sentences that refer to the literature by [1], [2] ..
  std::vector<std::string> literature;  ///< in the order of these numbers
};

/// @param record   of the scan; may be null
/// @param version  of the program, where the record has none
Methods methodsOf(const nlohmann::ordered_json& record, const cohort::Row& row,
                  const std::string& version);

}  // namespace tavrel::report
