#include "group.h"

#include "derivatives.h"
#include "report/report.h"
#include "scan/report.h"
#include "table.h"

namespace tavrel::cohort {

std::vector<Row> writeGroup(const std::filesystem::path& output) {
  const std::vector<Row> rows = readRows(output);
  writeTable(output, rows);
  report::writeReports({.output = output,
                        .rows = rows,
                        .version = scan::kVersion,
                        .datasetName = outputName(output)});
  return rows;
}

}  // namespace tavrel::cohort
