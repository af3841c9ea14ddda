#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "header.h"
#include "scan/format.h"

namespace tavrel::scan {
namespace {

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  return text;
}

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return char(std::toupper(c)); });
  return text;
}

/// The ending in lower case, "" if it is none of an image's.
std::string ending(const std::string& name) {
  const std::string all = lower(name);
  for (const char* kind : {".nii", ".hdr", ".img"})
    for (const char* packed : {"", ".gz"})
      if (all.ends_with(std::string(kind) + packed)) return std::string(kind) + packed;
  return "";
}

std::vector<std::string> withEndings(const std::string& base, bool upperFirst,
                                     std::initializer_list<const char*> endings) {
  std::vector<std::string> names;
  for (const bool inUpper : {upperFirst, !upperFirst})
    for (const char* end : endings) names.push_back(base + (inUpper ? upper(end) : end));
  return names;
}

bool endsInUpper(const std::string& name) {
  const std::string end = name.substr(withoutEnding(name).size());
  return !end.empty() && end == upper(end);
}

bool exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

}  // namespace

Descriptor openRegular(const std::filesystem::path& path) {
  // A pipe without a writer would keep a plain open waiting.
  Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (!file && errno == ENOENT) throw ScanError("does not exist");
  if (!file && errno == ENXIO) throw ScanError("is not a regular file");  // a socket
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0)
    throw ScanError(text("cannot be opened: ", std::strerror(errno)));
  if (S_ISDIR(status.st_mode)) throw ScanError("is a folder");
  if (!S_ISREG(status.st_mode)) throw ScanError("is not a regular file");
  return file;
}

std::string withoutEnding(const std::string& name) {
  return name.substr(0, name.size() - ending(name).size());
}

std::vector<std::string> headerNames(const std::string& name) {
  const std::string base = withoutEnding(name), end = ending(name);
  const bool inUpper = endsInUpper(name);
  if (end.starts_with(".img")) return withEndings(base, inUpper, {".hdr", ".hdr.gz"});
  auto names = withEndings(base, inUpper, {".nii", ".nii.gz", ".hdr", ".hdr.gz"});
  if (!end.empty()) names.insert(names.begin(), name);
  return names;
}

std::vector<std::string> imageNames(const std::string& header) {
  return withEndings(withoutEnding(header), endsInUpper(header), {".img", ".img.gz"});
}

std::string firstThatExists(const std::vector<std::string>& names) {
  const auto found = std::find_if(names.begin(), names.end(), exists);
  return found == names.end() ? "" : *found;
}

std::string findHeader(const std::string& name) {
  const bool isThere = exists(name);
  if (isThere && ending(name).empty()) openRegular(name);  // a folder, say
  const std::string header = firstThatExists(headerNames(name));
  if (!header.empty()) return header;
  if (!isThere) throw ScanError("does not exist");
  if (!ending(name).empty()) throw ScanError("has no header file (.hdr) beside it");
  throw ScanError("does not end in .nii, .nii.gz, .hdr or .img");
}

}  // namespace tavrel::scan
