// Pieces of work in processes of their own, several at a time: what one of them does to itself, or
// has done to it, costs the others nothing.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "scan/descriptor.h"

namespace tavrel::cohort {

/// What a pool may take.
struct Limits {
  int jobs = 1;                                          ///< processes at a time
  std::uint64_t memory = 0;                              ///< bytes, for all of them together
  std::optional<std::chrono::duration<double>> timeout;  ///< for each of them
};

/// A piece of work that has ended.
struct Ended {
  std::size_t index = 0;
  std::string answer;   ///< what the work gave back; "" if it did not get to that
  std::string trouble;  ///< why it did not: "crashed (Segmentation fault)"
};

/// Processes that belong to this one: they do not survive it.
class Pool {
 public:
  explicit Pool(const Limits& limits) : limits_(limits) {}
  /// Kills what still runs.
  ~Pool();
  Pool(const Pool&) = delete;

  /// Whether another piece with this need of memory may start now. One may always run alone.
  bool hasRoom(std::uint64_t memory) const;
  std::size_t running() const { return children_.size(); }

  /// Starts a piece of work. It may end early by an Interrupted.
  /// @throws std::system_error if there can be no further process
  void start(std::size_t index, std::uint64_t memory, const std::function<std::string()>& work);
  /// Those that have ended, after a short pause if there are none.
  std::vector<Ended> collect();
  /// Asks all to end, and kills them if they do not within a few seconds.
  void stop();

 private:
  using Clock = std::chrono::steady_clock;
  struct Child {
    pid_t process;
    std::size_t index;
    std::uint64_t memory;
    scan::Descriptor answer;
    scan::Descriptor life;  // a pipe whose other end the child holds as long as it lives
    Clock::time_point start;
    bool late = false;
  };

  void killLate();
  void waitForAnEnd() const;
  Ended end(Child& child, int status) const;

  Limits limits_;
  std::vector<Child> children_;
};

/// Processors that this process may use: by affinity, and by what Slurm has given to the task.
int processorsGranted();

/// Memory in bytes that this process may use: what is free, and what Slurm has given to the task.
std::uint64_t memoryGranted();

}  // namespace tavrel::cohort
