// Words for the methods section of a paper.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tavrel-bids/row.h"

namespace tavrel::report {

/// How the mask was made, in sentences with references to literatureItems().
/// @param record   of the scan; may be null
/// @param version  of the program, where the record has none
std::string methodsText(const nlohmann::ordered_json& record, const cohort::Row& row,
                        const std::string& version);

/// The literature of the method as items of an HTML list.
std::string literatureItems();

}  // namespace tavrel::report
