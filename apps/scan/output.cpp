#include "output.h"

#include <fcntl.h>
#include <sys/file.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <set>

#include "format.h"

namespace tavrel::scan {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kChunk = std::size_t(1) << 20;
// Run lengths and Huffman's code: masks and the zeros round a brain are runs, and in what is inside
// a search for other repetitions finds next to nothing.
constexpr char kGzipMode[] = "wb1R";
constexpr char kPlainMode[] = "wbT";

// Names of temporary files: .tavrel-HHHHHHHH-RRRRRRRR.tmp, with a tag of the machine and a random
// one, both hexadecimal.
constexpr char kPrefix[] = ".tavrel-", kSuffix[] = ".tmp";
constexpr std::size_t kTag = 8;
constexpr std::time_t kForeignAge = 24 * 3600;  // seconds until another machine's file is stale

gzFile stream(void* opaque) { return static_cast<gzFile>(opaque); }

/// Tells this machine from others that share a disk.
std::string machineTag() {
  char name[256] = {};
  gethostname(name, sizeof name - 1);
  std::uint32_t hash = 2166136261u;  // FNV-1a
  for (const char* c = name; *c; ++c) hash = (hash ^ static_cast<unsigned char>(*c)) * 16777619u;
  return print("%08x", hash);
}

std::string temporaryName(const fs::path& folder) {
  static thread_local std::random_device random;
  return folder / text(kPrefix, machineTag(), "-", print("%08x", random()), kSuffix);
}

bool isTemporaryName(const std::string& name) {
  return name.size() == std::strlen(kPrefix) + kTag + 1 + kTag + std::strlen(kSuffix) &&
         name.starts_with(kPrefix) && name.ends_with(kSuffix);
}

/// Locks an open file for this process. False only if another holds the lock: where the disk knows
/// no locks, nobody will think the file stale either.
bool lock(const Descriptor& file) {
  return flock(file.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

/// Makes sure that the names in a folder are on the disk. Disks that cannot do that for folders
/// have to do without.
bool syncFolder(const fs::path& folder) {
  const Descriptor file(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return !file || fsync(file.get()) == 0 || (errno != EIO && errno != ENOSPC && errno != EDQUOT);
}

bool isAbsent(const fs::path& path) {
  struct stat status;
  return lstat(path.c_str(), &status) != 0 && errno == ENOENT;
}

/// Whether a link such as /dev/stdout stands for what a process has open, even if that is a file.
bool leadsToProcess(const fs::path& link) {
  std::error_code failure;
  return fs::read_symlink(link, failure).string().starts_with("/proc/");
}

/// rename() that never replaces a file. Sets errno to EEXIST if there is one.
bool renameToFree(const std::string& from, const fs::path& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  // Disks that do not know this kind of rename may know links; the others leave only a look before.
  if (link(from.c_str(), to.c_str()) == 0) return unlink(from.c_str()) == 0;
  if (errno == EEXIST) return false;
  if (isAbsent(to)) return std::rename(from.c_str(), to.c_str()) == 0;
  errno = EEXIST;
  return false;
}

/// Puts `temporary` in the place of `target`, which gets the name that is returned; "" and errno if
/// that fails.
std::string swapNames(const std::string& temporary, const fs::path& target) {
  if (renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE) == 0)
    return temporary;
  if (errno != EINVAL && errno != ENOSYS) return "";
  const std::string aside = temporaryName(folderOf(target));
  if (!renameToFree(target, aside)) return "";
  if (std::rename(temporary.c_str(), target.c_str()) == 0) return aside;
  const int error = errno;
  std::rename(aside.c_str(), target.c_str());
  errno = error;
  return "";
}

}  // namespace

PendingFile::PendingFile(fs::path target, mode_t mode) : target_(std::move(target)) {
  const fs::path folder = folderOf(target_);
  do {
    temporary_ = temporaryName(folder);
    file_ = Descriptor(open(temporary_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                            (mode & kOpenToAll) | S_IRUSR | S_IWUSR));
    if (!file_ && errno == EEXIST) continue;
    if (!file_) {
      const int error = errno;
      temporary_.clear();
      fail(error);
    };
    // Between its creation and its lock another run may have taken it for a stale one.
    struct stat status = {};
    if (lock(file_) && fstat(file_.get(), &status) == 0 && status.st_nlink > 0) break;
    unlink(temporary_.c_str());
  } while (true);
  Descriptor second(fcntl(file_.get(), F_DUPFD_CLOEXEC, 0));
  if (second)
    stream_ = gzdopen(second.get(), target_.extension() == ".gz" ? kGzipMode : kPlainMode);
  if (stream_) {
    second.release();
    return;
  }
  unlink(temporary_.c_str());
  fail(second ? ENOMEM : errno);
}

PendingFile::PendingFile(PendingFile&& other) noexcept
    : target_(std::move(other.target_)),
      temporary_(std::exchange(other.temporary_, {})),
      file_(std::move(other.file_)),
      stream_(std::exchange(other.stream_, nullptr)),
      inPlace_(std::exchange(other.inPlace_, false)) {}

PendingFile::~PendingFile() {
  if (stream_) gzclose(stream(stream_));
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

void PendingFile::fail(int error) const {
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
  if (fsync(file_.get()) != 0 && errno != EINVAL) fail(errno);
}

/// Puts the file at its target if nothing is there. @return whether it did
bool PendingFile::placeNew() {
  inPlace_ = renameToFree(temporary_, target_);
  if (!inPlace_ && errno != EEXIST) fail(errno);
  if (inPlace_) temporary_.clear();
  return inPlace_;
}

/// Puts the file in the place of another, which is kept aside.
void PendingFile::placeInstead() {
  checkTarget(target_, true);
  // The lock keeps others from taking the old file for a stale one under its temporary name.
  Descriptor old(open(target_.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (old) flock(old.get(), LOCK_SH | LOCK_NB);
  const std::string aside = swapNames(temporary_, target_);
  if (aside.empty()) fail(errno);
  inPlace_ = true;
  temporary_ = aside;
  file_ = std::move(old);
}

void PendingFile::takeBack() {
  if (!inPlace_) return;
  if (temporary_.empty())
    unlink(target_.c_str());
  else
    std::rename(temporary_.c_str(), target_.c_str());
  temporary_.clear();
  inPlace_ = false;
}

void commitTogether(std::vector<PendingFile>& files, bool replace) {
  std::set<fs::path> folders;
  try {
    for (PendingFile& file : files) {
      if (!file.placeNew()) {
        checkTarget(file.target_, replace);
        file.placeInstead();
      }
      folders.insert(folderOf(file.target_));
    }
    for (const fs::path& folder : folders)
      if (!syncFolder(folder))
        throw OutputError(text(folder.string(), " cannot be written: ", std::strerror(errno)));
  } catch (...) {
    for (PendingFile& file : files) file.takeBack();
    throw;
  }
}

PendingFile writePending(const fs::path& target, std::span<const std::byte> bytes, mode_t mode) {
  PendingFile file(target, mode);
  file.write(bytes);
  file.close();
  return file;
}

void removeStale(const fs::path& folder) {
  const std::string own = kPrefix + machineTag();
  std::error_code failure;
  for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end;
       entry.increment(failure)) {
    const std::string name = entry->path().filename().string();
    if (!isTemporaryName(name)) continue;
    const Descriptor file(
        open(entry->path().c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
    // Locks may not reach from machine to machine.
    const bool fresh = std::time(nullptr) - status.st_mtime < kForeignAge;
    if (fresh && !name.starts_with(own)) continue;
    if (flock(file.get(), LOCK_EX | LOCK_NB) == 0) unlink(entry->path().c_str());
  }
}

fs::path folderOf(const fs::path& file) {
  return file.has_parent_path() ? file.parent_path() : ".";
}

void checkTarget(const fs::path& target, bool force) {
  const auto cannot = [&](int error) {
    throw OutputError(text(target.string(), " cannot be written: ", std::strerror(error)));
  };
  const fs::path folder = folderOf(target);
  std::error_code failure;
  if (!fs::is_directory(folder, failure))
    throw OutputError(text(folder.string(), " is not a folder",
                           failure ? " (" + failure.message() + ")" : std::string()));
  if (access(folder.c_str(), W_OK | X_OK) != 0)
    throw OutputError(text(folder.string(), " is not writable"));
  struct stat status = {};
  if (lstat(target.c_str(), &status) != 0) {
    if (errno != ENOENT) cannot(errno);
    return;
  }
  // A link is judged by what it leads to, if it leads anywhere.
  const bool isLink = S_ISLNK(status.st_mode);
  const bool dangles = isLink && stat(target.c_str(), &status) != 0;
  if (S_ISDIR(status.st_mode)) throw OutputError(text(target.string(), " is a folder"));
  if ((!S_ISREG(status.st_mode) && !dangles) || (isLink && leadsToProcess(target)))
    throw OutputError(text(target.string(), " is not a regular file"));
  if (!force) throw OutputError(text(target.string(), " exists; --force overwrites it"));
}

}  // namespace tavrel::scan
