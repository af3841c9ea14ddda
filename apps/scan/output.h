// Output files that appear complete or not at all.
//
// A file is written under a temporary name in the folder of its target and renamed when everything
// that belongs together has been written; whatever ends the work earlier removes it.
#pragma once

#include <cstddef>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string>

namespace tavrel::scan {

/// A file that cannot be written; the text names the file and the reason.
class OutputError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// One file on its way to its target.
class PendingFile {
 public:
  /// Creates the temporary file. @throws OutputError
  explicit PendingFile(std::filesystem::path target);
  PendingFile(PendingFile&& other) noexcept;
  PendingFile& operator=(PendingFile&&) = delete;
  ~PendingFile();

  /// Writes all content, gzip-compressed if the target's name ends in ".gz".
  /// @throws OutputError, Interrupted
  void write(std::span<const std::byte> bytes);
  /// Ends the writing. @throws OutputError if anything has not reached the disk
  void close();
  /// Renames the closed file to its target. @throws OutputError
  void commit();

  const std::filesystem::path& target() const { return target_; }

 private:
  [[noreturn]] void fail(int error);

  std::filesystem::path target_;
  std::string temporary_;
  void* stream_ = nullptr;  // zlib's file, which also writes plain ones
};

/// Writes `bytes` beside `target`; the caller commits it.
PendingFile writePending(const std::filesystem::path& target, std::span<const std::byte> bytes);

/// Complains before the work begins about a target that could not be written after it.
/// @throws OutputError
void checkTarget(const std::filesystem::path& target, bool force);

}  // namespace tavrel::scan
