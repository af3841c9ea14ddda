#include "task_list.h"

#include <fstream>
#include <stdexcept>

#include "scan/format.h"

namespace tavrel::cohort {

namespace fs = std::filesystem;

std::string taskList(const std::vector<std::vector<Source>>& tasks) {
  std::string list;
  for (std::size_t task = 0; task < tasks.size(); ++task)
    for (const Source& source : tasks[task]) list += scan::text(task + 1, '\t', source.path, '\n');
  return list;
}

std::vector<Source> listedScans(const fs::path& list, std::optional<long> task) {
  std::ifstream in(list);
  if (!in) throw std::runtime_error(list.string() + " cannot be read");
  std::vector<Source> scans;
  for (std::string line; std::getline(in, line);) {
    if (line.ends_with('\r')) line.pop_back();
    const auto tab = line.find('\t');
    const std::string path = tab == std::string::npos ? line : line.substr(tab + 1);
    if (path.empty() || (task && line.substr(0, tab) != std::to_string(*task))) continue;
    scans.push_back(sourceOf(path));
  }
  return scans;
}

std::vector<Source> plannedScans(const fs::path& output) {
  std::vector<Source> scans;
  std::error_code failure;
  for (const auto& entry : fs::directory_iterator(output / "logs", failure))
    if (fs::exists(entry.path() / kTaskList, failure))
      for (const Source& source : listedScans(entry.path() / kTaskList)) scans.push_back(source);
  return scans;
}

}  // namespace tavrel::cohort
