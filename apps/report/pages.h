// The pages as text.
#pragma once

#include <string>

#include "report.h"

namespace tavrel::report {

std::string indexPage(const ReportInput& input);

/// The page of one row.
std::string scanPage(const ReportInput& input, std::size_t row);

}  // namespace tavrel::report
