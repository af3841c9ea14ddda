// Who works on a scan, and what is known of scans that are not finished.
//
// Every scan that is worked on has a file in the folder of unfinished scans, which the worker holds
// locked (flock): another call sees the lock and leaves the scan alone, and a lock goes with its
// process, however that ends. The file is gone after a success; what remains tells of a failure or
// of a process that was killed. Where the disk knows no locks, two calls may do the same work
// twice, which does no harm: they put the same files in place.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "dataset.h"
#include "row.h"
#include "scan/descriptor.h"

namespace tavrel::cohort {

/// The note on a scan that is not finished.
struct Unfinished {
  std::string reason;              ///< why it failed, or that it was interrupted
  std::vector<std::string> masks;  ///< checksums of masks that may have been put in place
};

/// A scan that this process works on.
class Claim {
 public:
  /// Takes the scan that has this file in the folder of unfinished scans. Nothing if another
  /// process works on it. @throws OutputError
  static std::optional<Claim> take(const std::filesystem::path& file);
  Claim(Claim&&) = default;
  Claim& operator=(Claim&&) = delete;
  /// Gives the scan up; the note stays if there is one.
  ~Claim();

  /// What the last worker has left; absent if it was never begun.
  const std::optional<Unfinished>& note() const { return note_; }
  /// Replaces the note; on the disk when it returns. @throws OutputError
  void write(const Source& source, const Unfinished& note);
  /// Removes the note: the scan is finished.
  void finish();

 private:
  Claim(std::filesystem::path path, scan::Descriptor file);

  std::filesystem::path path_;
  scan::Descriptor file_;
  std::optional<Unfinished> note_;
};

/// Rows of all scans in the folder of unfinished scans.
std::vector<Row> unfinishedRows(const std::filesystem::path& output);

/// Removes the notes on scans that are no longer in the dataset.
void forgetVanished(const std::filesystem::path& output, const std::filesystem::path& dataset);

/// The row of a scan that failed.
Row failedRow(const Source& source, const std::string& reason);

}  // namespace tavrel::cohort
