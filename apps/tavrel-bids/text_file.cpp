#include "text_file.h"

#include <fstream>
#include <iterator>

#include "scan/format.h"
#include "scan/output.h"

namespace tavrel::cohort {

namespace fs = std::filesystem;

std::string readText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void writeText(const fs::path& file, const std::string& content) {
  std::error_code failure;
  if (fs::is_regular_file(file, failure) && readText(file) == content) return;
  scan::checkTarget(file, true);
  std::vector<scan::PendingFile> files;
  files.push_back(scan::writePending(file, std::as_bytes(std::span(content)), scan::kOpenToAll));
  scan::commitTogether(files, true);
}

void makeFolder(const fs::path& folder) {
  std::error_code failure;
  fs::create_directories(folder, failure);
  if (failure)
    throw scan::OutputError(scan::text(folder.string(), " cannot be made: ", failure.message()));
}

}  // namespace tavrel::cohort
