#include "targets.h"

#include <sys/stat.h>

#include <algorithm>
#include <map>

#include "format.h"
#include "nifti/files.h"
#include "output.h"

namespace tavrel::scan {
namespace {

namespace fs = std::filesystem;

/// The place of a name in the file system, whatever links lead to its folder.
std::string place(const fs::path& path) {
  // Where the file system does not tell, the names themselves have to do.
  std::error_code failure;
  const fs::path absolute = fs::absolute(path, failure).lexically_normal();
  const fs::path folder = fs::weakly_canonical(absolute.parent_path(), failure);
  return ((failure ? absolute.parent_path() : folder) / absolute.filename()).string();
}

/// Files by place, and by identity as far as they exist, each with whose it is.
class Files {
 public:
  void add(const fs::path& path, const std::string& owner) {
    places_.emplace(place(path), owner);
    struct stat status;
    if (stat(path.c_str(), &status) == 0)
      identities_.emplace(std::pair(status.st_dev, status.st_ino), owner);
  }

  /// Whose the file is that has this name, or nullptr.
  const std::string* owner(const fs::path& path) const {
    const auto named = places_.find(place(path));
    if (named != places_.end()) return &named->second;
    struct stat status;
    if (stat(path.c_str(), &status) != 0) return nullptr;
    const auto same = identities_.find({status.st_dev, status.st_ino});
    return same == identities_.end() ? nullptr : &same->second;
  }

 private:
  std::map<std::string, std::string> places_;
  std::map<std::pair<dev_t, ino_t>, std::string> identities_;
};

/// The names up to the one that will be opened: a file that came to be under an earlier name would
/// be opened instead.
std::vector<std::string> namesTried(std::vector<std::string> names) {
  const auto opened = std::find(names.begin(), names.end(), firstThatExists(names));
  if (opened != names.end()) names.erase(opened + 1, names.end());
  return names;
}

/// Adds all files that may be opened for a scan.
void addScan(Files& files, const std::string& name) {
  for (const std::string& header : namesTried(headerNames(name))) {
    files.add(header, name);
    for (const std::string& image : namesTried(imageNames(header))) files.add(image, name);
  }
  files.add(name, name);
}

}  // namespace

void checkOutputs(std::span<const ScanJob> jobs,
                  const std::vector<std::pair<fs::path, std::string>>& others) {
  Files read;
  for (const ScanJob& job : jobs) {
    addScan(read, job.input);
    if (!job.fromMask.empty()) addScan(read, job.fromMask);
  }
  std::map<std::string, std::string> written;
  const auto check = [&](const fs::path& target, const std::string& by) {
    if (const std::string* input = read.owner(target))
      throw OutputError(text(target.string(), " would take the place of the scan ", *input));
    const auto [other, isNew] = written.emplace(place(target), by);
    if (!isNew)
      throw OutputError(
          text(target.string(), " would be written twice: for ", other->second, " and for ", by));
  };
  for (const ScanJob& job : jobs)
    for (const fs::path& target : job.outputs.all()) check(target, job.input);
  for (const auto& [target, what] : others) check(target, what);
}

}  // namespace tavrel::scan
