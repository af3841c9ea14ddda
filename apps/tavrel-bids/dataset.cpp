#include "dataset.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "scan/format.h"

namespace tavrel::cohort {
namespace {

namespace fs = std::filesystem;
using scan::text;

constexpr char kAnnex[] = "/annex/objects/";
constexpr std::uintmax_t kLargestPointer = 32 << 10;  // of a file that stands for annexed content

bool isAnnexed(const fs::path& link) {
  std::error_code failure;
  return fs::read_symlink(link, failure).string().find(kAnnex) != std::string::npos;
}

/// Whether a path or the folder that it is in is a link to a folder that is not there.
bool leadsNowhere(const fs::path& folder) {
  std::error_code failure;
  for (const fs::path& path : {folder, folder.parent_path()})
    if (fs::is_symlink(fs::symlink_status(path, failure)) && !fs::exists(path, failure))
      return !isAnnexed(path);  // which is a file
  return false;
}

/// Names in a folder, sorted. A folder that is not there is empty; one that cannot be read has a
/// reason.
std::vector<std::string> namesIn(const fs::path& folder, std::string& problem) {
  std::vector<std::string> names;
  std::error_code failure;
  fs::directory_iterator entry(folder, failure);
  for (; !failure && entry != fs::directory_iterator(); entry.increment(failure))
    names.push_back(entry->path().filename().string());
  const int error = failure.value();
  if (error && error != ENOENT && error != ENOTDIR)
    problem = text("cannot be read: ", failure.message());
  if (error == ENOENT && leadsNowhere(folder)) problem = "is a link that leads nowhere";
  std::sort(names.begin(), names.end());
  return names;
}

/// The walk through one dataset.
class Walk {
 public:
  Walk(const fs::path& dataset, const Selection& wanted) : dataset_(dataset), wanted_(wanted) {}

  void participant(const std::string& name) {
    for (const std::string& below : namesAt(name)) {
      const bool session = below.starts_with("ses-");
      if (session && isWanted(withoutPrefix(below, "ses-")))
        folder(scan::text(name, "/", below, "/anat"));
      else if (below == "anat" && wanted_.sessions.empty())
        folder(name + "/anat");
    }
  }

  std::vector<std::string> namesAt(const std::string& path) {
    std::string problem;
    auto names = namesIn(dataset_ / path, problem);
    if (!problem.empty()) {
      Source source = sourceOf(path + "/");
      source.problem = problem;
      found.push_back(source);
    }
    return names;
  }

  std::vector<Source> found;

 private:
  bool isWanted(const std::string& session) const {
    const auto& list = wanted_.sessions;
    return list.empty() || std::find(list.begin(), list.end(), session) != list.end();
  }

  void folder(const std::string& path) {
    for (const std::string& name : namesAt(path)) {
      if (!looksLikeScan(name)) continue;
      const Source source = sourceOf(path + "/" + name);
      if (!source.stem.empty() && !wanted_.filter.takes(parseName(name))) continue;
      found.push_back(source);
    }
  }

  const fs::path& dataset_;
  const Selection& wanted_;
};

}  // namespace

DatasetInfo readDataset(const fs::path& dataset) {
  const fs::path file = dataset / "dataset_description.json";
  const auto refuse = [&](const auto&... reason) {
    throw NoDataset(text(dataset.string(), " is not a BIDS dataset: ", reason...));
  };
  std::error_code failure;
  if (!fs::is_directory(dataset, failure))
    refuse(failure && failure != std::errc::no_such_file_or_directory ? failure.message()
           : fs::exists(dataset, failure)                             ? "it is not a folder"
                                                                      : "it does not exist");
  std::ifstream in(file);
  if (!in) refuse("it has no dataset_description.json that can be read");
  const auto description = nlohmann::json::parse(in, nullptr, false);
  if (!description.is_object()) refuse("its dataset_description.json is not a JSON object");
  const auto field = [&](const char* name) {
    const auto entry = description.find(name);
    return entry != description.end() && entry->is_string() ? entry->get<std::string>() : "";
  };
  return {field("Name"), field("DatasetDOI")};
}

Source sourceOf(const std::string& path) {
  Source source{.path = path, .participant = {}, .session = {}, .stem = {}, .problem = {}};
  const auto slash = path.rfind('/');
  const std::string file = slash == std::string::npos ? path : path.substr(slash + 1);
  source.participant = path.substr(0, path.find('/'));
  if (const auto session = path.find("/ses-"); session != std::string::npos)
    source.session = path.substr(session + 1, path.find('/', session + 1) - session - 1);
  if (file.empty()) return source;
  try {
    const Name name = parseName(file);
    const auto session = name.value("ses");
    if ("sub-" + *name.value("sub") != source.participant ||
        (session ? "ses-" + *session : "") != source.session)
      throw NameError("has entities that are not those of its folder");
    if (const auto desc = name.value("desc"))
      throw NameError("is a derivative (desc-" + *desc + "), not a scan as it was acquired");
    source.stem = name.stem();
  } catch (const NameError& error) {
    source.problem = error.what();
  }
  return source;
}

void markTwins(std::vector<Source>& scans) {
  std::map<std::string, std::vector<Source*>> named;
  for (Source& source : scans)
    if (!source.stem.empty()) named[source.stem].push_back(&source);
  for (const auto& [stem, twins] : named)
    for (Source* source : twins)
      for (const Source* other : twins)
        if (other != source && source->problem.empty())
          source->problem =
              text("would write the same names as ", other->path, "; keep one of them");
}

std::vector<Source> findScans(const fs::path& dataset, const Selection& wanted,
                              std::vector<std::string>& unknown) {
  Walk walk(dataset, wanted);
  std::set<std::string> participants;
  if (wanted.participants.empty()) {
    for (const std::string& name : walk.namesAt(""))
      if (name.starts_with("sub-")) participants.insert(name);
  } else {
    for (const std::string& label : wanted.participants) participants.insert("sub-" + label);
  }
  std::error_code failure;
  for (const std::string& name : participants) {
    const auto kind = fs::symlink_status(dataset / name, failure).type();
    if (kind == fs::file_type::not_found)
      unknown.push_back(name);
    else
      walk.participant(name);
  }
  markTwins(walk.found);
  return walk.found;
}

std::string absence(const fs::path& file) {
  const std::string fetch = "is not fetched; \"datalad get\" brings it";
  std::error_code failure;
  const bool isThere = fs::exists(file, failure);
  if (fs::is_symlink(fs::symlink_status(file, failure))) {
    if (isThere) return "";
    if (isAnnexed(file)) return fetch;
    return "is a link that leads nowhere";
  }
  // An unlocked file of an annex holds the name of what is absent.
  if (!fs::is_regular_file(file, failure) || fs::file_size(file, failure) > kLargestPointer)
    return "";
  std::array<char, sizeof kAnnex - 1> start = {};
  std::ifstream(file, std::ios::binary).read(start.data(), start.size());
  return std::memcmp(start.data(), kAnnex, start.size()) == 0 ? fetch : "";
}

}  // namespace tavrel::cohort
