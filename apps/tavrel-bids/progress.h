// What a run says about a whole cohort while it works: one live line on a terminal, elsewhere a
// line for every scan that was stripped.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace tavrel::cohort {

class Progress {
 public:
  /// @param scans  of the whole cohort
  Progress(std::size_t scans, bool quiet);
  /// Removes an unfinished live line.
  ~Progress();

  enum class End { done, finishedBefore, failed };
  /// A scan has come to its end.
  void ended(const std::string& scan, End end, const std::string& figures);
  /// A remark on a scan, to the error stream.
  void note(const std::string& scan, const std::string& remark);
  /// Shows how many scans are stripped at the moment.
  void show(std::size_t running);
  /// The last line.
  void summary();

  std::size_t failed() const { return failed_; }

 private:
  using Clock = std::chrono::steady_clock;

  std::size_t all() const { return done_ + finished_ + failed_; }
  std::string timeLeft() const;
  void clear();

  std::size_t scans_, done_ = 0, finished_ = 0, failed_ = 0;
  bool quiet_, live_, shown_ = false;
  Clock::time_point start_ = Clock::now(), last_ = {};
};

/// A duration for people: "2 h 5 min", "40 s".
std::string duration(double seconds);

}  // namespace tavrel::cohort
