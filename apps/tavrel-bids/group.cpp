#include "group.h"

#include "derivatives.h"
#include "report/report.h"
#include "scan/report.h"

namespace tavrel::cohort {

std::vector<Row> writeGroup(const std::filesystem::path& output, const Note& note) {
  const std::vector<Row> rows = readRows(output, note);
  writeTable(output, rows);
  report::writeReports({.output = output,
                        .rows = rows,
                        .version = scan::kVersion,
                        .datasetName = outputName(output)});
  return rows;
}

}  // namespace tavrel::cohort
