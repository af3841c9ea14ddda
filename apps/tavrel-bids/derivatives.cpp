#include "derivatives.h"

#include <unistd.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "layout.h"
#include "scan/format.h"
#include "scan/output.h"
#include "scan/report.h"
#include "text_file.h"

namespace tavrel::cohort {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;
using scan::OutputError;
using scan::text;

constexpr char kName[] = "tavrel";
constexpr char kDescriptionFile[] = "dataset_description.json";

// Patterns that end in a slash match nothing in the validator of the schema.
constexpr char kIgnored[] = "*.html\nfigures\nlogs\ntavrel*.tsv\ntavrel.json\n.tavrel-*\n";

constexpr char kReadme[] = R"(Brain masks and skull-stripped scans, made by Tavrel.

sub-*/[ses-*/]anat/*_desc-brain_mask.nii.gz   brain mask: 1 inside, 0 outside
sub-*/[ses-*/]anat/*_desc-brain_mask.json     its sidecar: how the mask was made, from what, its figures
sub-*/[ses-*/]anat/*_desc-brain_T1w.nii.gz    the scan inside the mask
sub-*/[ses-*/]figures/                        cuts with the mask's contour; what the report needs
tavrel.tsv, tavrel.json                       one row a scan: status, volume, doubts, rating
index.html                                    the report to look at
logs/                                         scans that failed, and what was handed to a cluster

A mask may be changed in place: the next run at the participant level sees that, keeps it, marks it
as manual and makes the scan inside it again.
)";

constexpr char kDescriptions[] =
    "desc_id\tdescription\n"
    "desc-brain\tBrain found by Tavrel, or given by a person: its mask, and the scan inside it\n"
    "desc-preview\tScan at reduced size, for the report\n";

fs::path real(const fs::path& path) {
  std::error_code failure;
  const fs::path result = fs::weakly_canonical(fs::absolute(path, failure), failure);
  return failure ? fs::absolute(path, failure).lexically_normal() : result;
}

bool isOurs(const json& description) {
  const auto generators = description.find("GeneratedBy");
  if (generators == description.end() || !generators->is_array()) return false;
  for (const json& generator : *generators)
    if (generator.is_object() && generator.value("Name", json()) == kName) return true;
  return false;
}

/// The description that is there, to be completed.
json oldDescription(const fs::path& file) {
  const std::string content = readText(file);
  if (content.empty()) return json::object();
  const json old = json::parse(content, nullptr, false);
  if (!old.is_object() || !isOurs(old))
    throw OutputError(text(file.parent_path().string(), " holds another dataset (its ",
                           kDescriptionFile,
                           " does not name tavrel in GeneratedBy); choose an empty folder"));
  return old;
}

json newDescription(json description, const fs::path& dataset, const fs::path& output,
                    const DatasetInfo& info) {
  const std::string link = real(dataset).lexically_relative(real(output)).generic_string();
  const json fresh = {
      {"Name", (info.name.empty() ? "" : info.name + " - ") + std::string("brains by Tavrel")},
      {"BIDSVersion", "1.10.0"}};
  for (const auto& [key, value] : fresh.items())
    if (!description.contains(key)) description[key] = value;
  description["DatasetType"] = "derivative";
  description["GeneratedBy"] = {{{"Name", kName},
                                 {"Version", scan::kVersion},
                                 {"Description", "Skull stripping by a level-set evolution"}}};
  description["SourceDatasets"] = {info.doi.empty() ? json{{"URL", link}}
                                                    : json{{"DOI", info.doi}}};
  description["DatasetLinks"]["raw"] = link;
  return description;
}

void writeOnce(const fs::path& file, const char* content) {
  std::error_code failure;
  if (!fs::exists(fs::symlink_status(file, failure))) writeText(file, content);
}

}  // namespace

void checkPlaces(const fs::path& dataset, const fs::path& output) {
  const fs::path raw = real(dataset), out = real(output);
  if (out == raw)
    throw std::invalid_argument(
        "OUTPUT_DIR is BIDS_DIR, which is never written to; "
        "BIDS_DIR/derivatives/tavrel is the usual place");
  const fs::path below = out.lexically_relative(raw);
  if (!below.empty() && below.begin()->string().starts_with("sub-"))
    throw std::invalid_argument(
        text("OUTPUT_DIR lies in ", below.begin()->string(),
             " of BIDS_DIR, which is never written to; BIDS_DIR/derivatives/tavrel is the usual "
             "place"));
}

void prepareOutput(const fs::path& dataset, const fs::path& output, const DatasetInfo& info) {
  makeFolder(output);
  if (access(output.c_str(), W_OK | X_OK) != 0)
    throw OutputError(output.string() + " is not writable");
  const fs::path file = output / kDescriptionFile;
  const json description = newDescription(oldDescription(file), dataset, output, info);
  makeFolder(unfinishedFolder(output));
  writeText(file, description.dump(2, ' ', false, json::error_handler_t::replace) + "\n");
  writeOnce(output / ".bidsignore", kIgnored);
  writeOnce(output / "descriptions.tsv", kDescriptions);
  writeOnce(output / "README", kReadme);
}

std::string outputName(const fs::path& output) {
  const json description = json::parse(readText(output / kDescriptionFile), nullptr, false);
  if (!description.is_object() || !isOurs(description)) return "";
  const auto name = description.find("Name");
  return name != description.end() && name->is_string() ? name->get<std::string>() : kName;
}

}  // namespace tavrel::cohort
