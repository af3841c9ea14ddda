#include "output.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "format.h"
#include "interrupt.h"

namespace tavrel::scan {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kChunk = std::size_t(1) << 20;
constexpr char kGzipMode[] = "wb4";  // brains are mostly zeros; higher levels only cost time
constexpr char kPlainMode[] = "wbT";

mode_t creationMask() {
  const mode_t mask = umask(0);
  umask(mask);
  return mask;
}

gzFile stream(void* opaque) { return static_cast<gzFile>(opaque); }

}  // namespace

PendingFile::PendingFile(fs::path target) : target_(std::move(target)) {
  const auto folder = target_.has_parent_path() ? target_.parent_path() : ".";
  std::string name = (folder / text(".", target_.filename().string(), ".XXXXXX")).string();
  const int descriptor = mkstemp(name.data());
  if (descriptor < 0) fail(errno);
  temporary_ = name;
  fchmod(descriptor, 0666 & ~creationMask());  // mkstemp gives the owner alone access
  stream_ = gzdopen(descriptor, target_.extension() == ".gz" ? kGzipMode : kPlainMode);
  if (stream_) return;
  ::close(descriptor);
  unlink(temporary_.c_str());
  fail(ENOMEM);
}

PendingFile::PendingFile(PendingFile&& other) noexcept
    : target_(std::move(other.target_)),
      temporary_(std::exchange(other.temporary_, {})),
      stream_(std::exchange(other.stream_, nullptr)) {}

PendingFile::~PendingFile() {
  if (stream_) gzclose(stream(stream_));
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

void PendingFile::fail(int error) {
  throw OutputError(text(target_.string(), " cannot be written: ",
                         error ? std::strerror(error) : "the compression failed"));
}

void PendingFile::write(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    checkInterrupted();
    const auto chunk = bytes.first(std::min(kChunk, bytes.size()));
    errno = 0;
    if (gzwrite(stream(stream_), chunk.data(), unsigned(chunk.size())) != int(chunk.size()))
      fail(errno);
    bytes = bytes.subspan(chunk.size());
  }
}

void PendingFile::close() {
  errno = 0;
  if (gzclose(stream(std::exchange(stream_, nullptr))) != Z_OK) fail(errno);
}

void PendingFile::commit() {
  if (rename(temporary_.c_str(), target_.c_str()) != 0) fail(errno);
  temporary_.clear();
}

PendingFile writePending(const fs::path& target, std::span<const std::byte> bytes) {
  PendingFile file(target);
  file.write(bytes);
  file.close();
  return file;
}

void checkTarget(const fs::path& target, bool force) {
  std::error_code failure;
  const fs::path folder = target.has_parent_path() ? target.parent_path() : ".";
  if (!fs::is_directory(folder, failure))
    throw OutputError(text(folder.string(), " is not a folder",
                           failure ? " (" + failure.message() + ")" : std::string()));
  if (access(folder.c_str(), W_OK | X_OK) != 0)
    throw OutputError(text(folder.string(), " is not writable"));
  const fs::file_type type = fs::status(target, failure).type();
  if (type == fs::file_type::none)
    throw OutputError(text(target.string(), " cannot be written: ", failure.message()));
  if (type == fs::file_type::directory) throw OutputError(text(target.string(), " is a folder"));
  if (!force && type != fs::file_type::not_found)
    throw OutputError(text(target.string(), " exists; --force overwrites it"));
}

}  // namespace tavrel::scan
