// Output files that appear complete or not at all.
//
// A file is written under a temporary name in the folder of its target. When everything that
// belongs together has reached the disk, the files are put in place together; whatever ends the
// work earlier removes them. A process that is killed leaves its temporary files behind, whose lock
// (flock) goes with it: by that a later run knows them and removes them.
#pragma once

#include <sys/stat.h>

#include "detail/voxCxx20.h"

// Nothing below compiles without it.
#include <cstddef>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "descriptor.h"
#include "interrupt.h"

namespace tavrel::scan {

/// A file that cannot be written; the text names the file and the reason.
class OutputError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Permissions of a file that everyone may read and write, before the umask cuts them.
inline constexpr mode_t kOpenToAll = 0666;

/// One file on its way to its target.
class PendingFile {
 public:
  /// Creates the temporary file.
  /// @param mode  permissions, to be cut by the umask; the owner may always read and write
  /// @throws OutputError
  PendingFile(std::filesystem::path target, mode_t mode);
  PendingFile(PendingFile&& other) noexcept;
  PendingFile& operator=(PendingFile&&) = delete;
  ~PendingFile();

  /// Writes all content, gzip-compressed if the target's name ends in ".gz".
  /// @throws OutputError, Interrupted
  void write(std::span<const std::byte> bytes);
  /// Ends the writing. @throws OutputError if anything has not reached the disk
  void close();

  const std::filesystem::path& target() const { return target_; }
  /// Where the content is until it is in place.
  const std::string& temporary() const { return temporary_; }

 private:
  friend void commitTogether(std::vector<PendingFile>& files, bool replace);

  [[noreturn]] void fail(int error) const;
  bool placeNew();
  void placeInstead();
  void takeBack();

  std::filesystem::path target_;
  std::string temporary_;   // of the old file once the new one is in place; "" for none
  Descriptor file_;         // of the temporary file, which it locks
  void* stream_ = nullptr;  // zlib's file, which also writes plain ones
  bool inPlace_ = false;    // but may still be taken back
  Unfinished unfinished_;
};

/// Puts closed files in place, all of them or none: where one fails, those before it are taken back
/// and what they replaced returns.
/// @param replace  whether a file that stands at a target may be replaced
/// @throws OutputError
void commitTogether(std::vector<PendingFile>& files, bool replace);

/// Writes `bytes` beside `target`; the caller commits it.
PendingFile writePending(const std::filesystem::path& target, std::span<const std::byte> bytes,
                         mode_t mode);

/// Removes temporary files that killed processes have left in a folder. Does nothing where they
/// cannot be told from those of others at work.
void removeStale(const std::filesystem::path& folder);

/// The folder that a file is in, "." for a bare name.
std::filesystem::path folderOf(const std::filesystem::path& file);

/// Complains before the work begins about a target that could not be written after it: only a
/// regular file, or a link, is ever replaced, and that only if `force` is set.
/// @throws OutputError
void checkTarget(const std::filesystem::path& target, bool force);

}  // namespace tavrel::scan
