#include "names.h"

#include <algorithm>
#include <cctype>

#include "scan/format.h"

namespace tavrel::cohort {
namespace {

constexpr char kSuffix[] = "T1w";
constexpr std::size_t kLongest = 200;  // bytes, which leaves room for what outputs append

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> pieces(1);
  for (const char c : text)
    if (c == separator)
      pieces.emplace_back();
    else
      pieces.back() += c;
  return pieces;
}

bool isKey(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(),
                                      [](unsigned char c) { return std::isalpha(c) != 0; });
}

std::pair<std::string, std::string> parseEntity(const std::string& piece) {
  const auto dash = piece.find('-');
  const std::string key = piece.substr(0, dash);
  const std::string label = dash == std::string::npos ? "" : piece.substr(dash + 1);
  if (!isKey(key) || label.empty())
    throw NameError("has no BIDS name (\"" + piece + "\" is not an entity and its label)");
  return {key, label};
}

}  // namespace

std::optional<std::string> Name::value(std::string_view key) const {
  for (const auto& [name, label] : entities)
    if (name == key) return label;
  return std::nullopt;
}

std::string Name::stem() const {
  std::string result;
  for (const auto& [key, label] : entities)
    result += (result.empty() ? "" : "_") + key + "-" + label;
  return result;
}

Name parseName(const std::string& fileName) {
  if (scan::printable(fileName) != fileName)
    throw NameError("has a name with control characters or bytes that are not UTF-8");
  if (fileName.size() > kLongest) throw NameError("has a name too long for its outputs");
  Name name;
  const auto dot = fileName.find(".nii");
  name.extension = dot == std::string::npos ? "" : fileName.substr(dot);
  auto pieces = split(fileName.substr(0, dot), '_');
  name.suffix = pieces.back();
  pieces.pop_back();
  for (const std::string& piece : pieces) name.entities.push_back(parseEntity(piece));
  if (name.entities.empty() || name.entities.front().first != "sub")
    throw NameError("has no BIDS name (it does not begin with sub-)");
  return name;
}

bool looksLikeScan(const std::string& fileName) {
  for (const char* extension : {".nii", ".nii.gz"})
    if (fileName.ends_with(std::string("_") + kSuffix + extension)) return true;
  return false;
}

std::string withoutPrefix(const std::string& label, std::string_view prefix) {
  return label.starts_with(prefix) ? label.substr(prefix.size()) : label;
}

}  // namespace tavrel::cohort
