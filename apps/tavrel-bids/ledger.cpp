#include "ledger.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

#include "layout.h"
#include "scan/format.h"
#include "scan/output.h"

namespace tavrel::cohort {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;
using scan::Descriptor;
using scan::OutputError;
using scan::text;

constexpr char kInterrupted[] = "was interrupted; the next run does it";

[[noreturn]] void fail(const fs::path& file, int error) {
  throw OutputError(text(file.string(), " cannot be written: ", std::strerror(error)));
}

/// A note that was torn by a crash tells of no more than that.
Unfinished parse(const json& note) {
  Unfinished result{.reason = kInterrupted, .masks = {}};
  if (!note.is_object()) return result;
  try {
    result.reason = note.value("Reason", result.reason);
    result.masks = note.value("Masks", result.masks);
  } catch (const json::exception&) {
  }
  return result;
}

bool isLocked(const fs::path& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return file && flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

/// The notes on the disk with the paths of their scans; those without content are nobody's.
template <class Visit>
void forEachNote(const fs::path& output, Visit visit) {
  std::error_code failure;
  for (const auto& entry : fs::directory_iterator(unfinishedFolder(output), failure)) {
    std::ifstream in(entry.path());
    if (in.peek() == std::ifstream::traits_type::eof()) continue;
    const json note = json::parse(in, nullptr, false);
    const auto path = note.is_object() ? note.find("Source") : note.end();
    if (path != note.end() && path->is_string())
      visit(entry.path(), path->template get<std::string>(), parse(note));
  }
}

}  // namespace

std::optional<Claim> Claim::take(const fs::path& path) {
  while (true) {
    Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666));
    if (!file) fail(path, errno);
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) return std::nullopt;
    // Whoever held the lock before may have removed the file.
    struct stat opened = {}, named = {};
    if (fstat(file.get(), &opened) == 0 && stat(path.c_str(), &named) == 0 &&
        opened.st_ino == named.st_ino && opened.st_dev == named.st_dev)
      return Claim(path, std::move(file));
  }
}

Claim::Claim(fs::path path, Descriptor file) : path_(std::move(path)), file_(std::move(file)) {
  const std::string text = scan::contentOf(file_);
  if (!text.empty()) note_ = parse(json::parse(text, nullptr, false));
}

Claim::~Claim() {
  if (file_ && !note_) unlink(path_.c_str());
}

void Claim::write(const Source& source, const Unfinished& note) {
  const json entry = {{"Source", scan::printable(source.path)},
                      {"Status", "failed"},
                      {"Reason", note.reason},
                      {"Masks", note.masks}};
  const std::string line = entry.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
  note_ = note;
  if (pwrite(file_.get(), line.data(), line.size(), 0) != ssize_t(line.size()))
    fail(path_, errno ? errno : ENOSPC);
  if (ftruncate(file_.get(), off_t(line.size())) != 0) fail(path_, errno);
  if (fdatasync(file_.get()) != 0 && errno != EINVAL) fail(path_, errno);
}

void Claim::finish() {
  if (unlink(path_.c_str()) != 0 && errno != ENOENT) fail(path_, errno);
  note_.reset();
  file_ = Descriptor();
}

Row failedRow(const Source& source, const std::string& reason) {
  Row row;
  row.participant = source.participant;
  row.session = source.session;
  row.scan = source.stem;
  if (row.scan.empty() && source.path.ends_with('/')) {  // a folder
    row.scan = source.path.substr(0, source.path.size() - 1);
    std::replace(row.scan.begin(), row.scan.end(), '/', '_');
  } else if (row.scan.empty()) {
    row.scan = source.path.substr(source.path.rfind('/') + 1);
  }
  row.status = "failed";
  row.reason = reason;
  return row;
}

std::vector<Row> unfinishedRows(const fs::path& output) {
  std::vector<Row> rows;
  forEachNote(output, [&](const fs::path& file, const std::string& path, const Unfinished& note) {
    const bool atWork = isLocked(file);
    rows.push_back(failedRow(sourceOf(path), atWork ? "is being stripped" : note.reason));
  });
  return rows;
}

void forgetVanished(const fs::path& output, const fs::path& dataset) {
  forEachNote(output, [&](const fs::path& file, const std::string& path, const Unfinished&) {
    std::error_code failure;
    if (path.find('\\') != std::string::npos) return;  // not as the file system has it
    fs::path place = dataset / path;
    if (!place.has_filename()) place = place.parent_path();  // a folder, which may be a link
    if (fs::symlink_status(place, failure).type() == fs::file_type::not_found &&
        !fs::is_symlink(fs::symlink_status(place.parent_path(), failure)) && !isLocked(file))
      fs::remove(file, failure);
  });
}

}  // namespace tavrel::cohort
