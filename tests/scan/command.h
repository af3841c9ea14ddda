// The real command, run as a user runs it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <functional>
#include <nlohmann/json.hpp>
#include <thread>

#include "nifti_files.h"
#include "phantom.h"

namespace test_files {

struct Result {
  int status = -1;  // 128 plus the signal for a killed process
  std::string out, err;
};

inline std::string readText(const fs::path& path) {
  const Bytes bytes = readBytes(path);
  return {bytes.begin(), bytes.end()};
}

/// A command that runs with its streams in files of a folder of its own.
class Process {
 public:
  Process(
      const std::string& program, const std::vector<std::string>& arguments,
      const std::function<void()>& inChild = [] {}) {
    std::vector<char*> argv = {const_cast<char*>(program.c_str())};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const std::string out = streams_ / "out", err = streams_ / "err";
    child_ = fork();
    if (child_ != 0) return;
    dup2(open(out.c_str(), O_WRONLY | O_CREAT, 0600), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0600), 2);
    inChild();
    execv(program.c_str(), argv.data());
    _exit(99);
  }
  pid_t id() const { return child_; }
  std::string out() const { return readText(streams_ / "out"); }
  /// Waits until there is output, a minute at most.
  void waitForOutput() const {
    for (int wait = 0; wait < 6000 && out().empty(); ++wait) rest();
  }
  /// The end of the process, which is killed if it is still there after `seconds`.
  Result wait(double seconds = 280) {
    int status = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (waitpid(child_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > end) kill(child_, SIGKILL);
      rest();
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out(),
            readText(streams_ / "err")};
  }

 private:
  static void rest() { std::this_thread::sleep_for(std::chrono::milliseconds(10)); }

  TemporaryFolder streams_;
  pid_t child_ = 0;
};

/// Dice of two mask files' bytes.
inline double dice(const Bytes& a, const Bytes& b) {
  double both = 0, sum = 0;
  for (std::size_t v = 352; v < std::min(a.size(), b.size()); ++v)
    both += a[v] & b[v], sum += a[v] + b[v];
  return 2 * both / sum;
}

inline nlohmann::json reportIn(const fs::path& path) {
  return nlohmann::json::parse(readText(path));
}

inline Result run(
    const std::vector<std::string>& arguments, const std::function<void()>& inChild = [] {}) {
  return Process(TAVREL_NIFTI_COMMAND, arguments, inChild).wait();
}

/// A phantom head as voxels of type T, brightest tissue about `white`.
template <class T>
std::vector<T> phantom(const FileLayout& layout, double white) {
  const auto& n = layout.size;
  const auto image = tavrel::makePhantom(int(n[0]), int(n[1]), int(n[2])).image;
  std::vector<T> voxels;
  for (const double v : image)
    voxels.push_back(T(std::is_integral_v<T> ? std::lround(std::max(0.0, v) * white) : v * white));
  return voxels;
}

/// Sizes and voxels of a small phantom, which is as large as a head.
inline constexpr std::array<std::int64_t, 3> kSmall = {37, 42, 40};
inline constexpr std::array<double, 3> kSmallMm = {4.75, 4.75, 4.75};
inline const FileLayout kHead = {.size = kSmall, .mm = kSmallMm};

/// A folder with one scan, scan.nii.gz.
class Command : public testing::Test {
 protected:
  void SetUp() override {
    writeNifti(folder_ / "scan.nii.gz", kHead,
               phantom<std::int16_t>(kHead, 200));
  }
  std::string name(const std::string& file) const { return folder_ / file; }
  TemporaryFolder folder_;
  const std::vector<std::string> onlyScan_ = {"scan.nii.gz"};
};

}  // namespace test_files
