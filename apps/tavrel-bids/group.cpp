#include "group.h"

#include "table.h"

namespace tavrel::cohort {

std::vector<Row> writeGroup(const std::filesystem::path& output) {
  const std::vector<Row> rows = readRows(output);
  writeTable(output, rows);
  return rows;
}

}  // namespace tavrel::cohort
