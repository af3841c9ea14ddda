#include "filter.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "scan/format.h"

namespace tavrel::cohort {
namespace {

using nlohmann::json;

constexpr char kAny[] = "*";

/// Short keys of the entities that a T1-weighted scan may have, by their long names.
const std::map<std::string, std::string> kKeys = {
    {"subject", "sub"},   {"session", "ses"},        {"sample", "sample"},
    {"task", "task"},     {"acquisition", "acq"},    {"ceagent", "ce"},
    {"tracer", "trc"},    {"reconstruction", "rec"}, {"direction", "dir"},
    {"run", "run"},       {"modality", "mod"},       {"echo", "echo"},
    {"flip", "flip"},     {"inversion", "inv"},      {"mt", "mt"},
    {"part", "part"},     {"processing", "proc"},    {"space", "space"},
    {"split", "split"},   {"chunk", "chunk"},        {"description", "desc"},
    {"suffix", "suffix"}, {"extension", "extension"}};

/// Labels that are numbers count as such: run-01 is run 1.
std::string plain(const std::string& label) {
  const bool number = !label.empty() && label.find_first_not_of("0123456789") == std::string::npos;
  const auto first = label.find_first_not_of('0');
  return !number ? label : first == std::string::npos ? "0" : label.substr(first);
}

std::optional<std::string> choice(const std::string& key, const json& value) {
  if (value.is_null()) return std::nullopt;
  if (value.is_number_integer()) return std::to_string(value.get<std::int64_t>());
  if (value.is_string()) {
    const auto label = value.get<std::string>();
    if (key == "sub" || key == "ses") return withoutPrefix(label, key + "-");
    return label;
  }
  throw std::runtime_error("the condition on \"" + key + "\" is neither a label nor null");
}

std::string keyOf(const std::string& name) {
  const auto entry = kKeys.find(name);
  if (entry != kKeys.end()) return entry->second;
  for (const auto& [longName, key] : kKeys)
    if (key == name) return key;
  throw std::runtime_error("\"" + name + "\" is not an entity of BIDS");
}

}  // namespace

Filter::Filter(const std::filesystem::path& file) {
  try {
    std::ifstream in(file);
    if (!in) throw std::runtime_error("cannot be read");
    const json all = json::parse(in);
    if (!all.is_object()) throw std::runtime_error("is not a JSON object");
    const auto part = all.find("t1w");
    if (part == all.end()) return;
    for (const auto& [name, value] : part->items()) {
      if (name == "datatype") continue;  // scans are looked for in anat alone
      const std::string key = keyOf(name);
      const json list = value.is_array() ? value : json::array({value});
      for (const json& one : list) conditions_[key].push_back(choice(key, one));
    }
  } catch (const std::exception& error) {
    throw std::runtime_error(scan::text("filter file ", file.string(), ": ", error.what()));
  }
}

bool Filter::takes(const Name& name) const {
  return std::all_of(conditions_.begin(), conditions_.end(), [&](const auto& condition) {
    const auto& [key, choices] = condition;
    const auto label = key == "suffix"      ? std::optional(name.suffix)
                       : key == "extension" ? std::optional(name.extension)
                                            : name.value(key);
    return std::any_of(choices.begin(), choices.end(), [&](const auto& wanted) {
      if (!wanted || !label) return !wanted && !label;
      return *wanted == kAny || plain(*wanted) == plain(*label);
    });
  });
}

}  // namespace tavrel::cohort
