// The real command, run as a user runs it.
#pragma once

#include <cmath>
#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "nifti_files.h"
#include "phantom.h"
#include "tests/process.h"

namespace test_files {

using tavrel::test::Process;
using Result = tavrel::test::Finished;

inline std::string readText(const fs::path& path) { return tavrel::test::readFile(path); }

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

inline Result run(const std::vector<std::string>& arguments,
                  const std::function<void()>& inChild = {}, double seconds = 280) {
  return Process(TAVREL_NIFTI_COMMAND, arguments, inChild).wait(seconds);
}

/// Runs the command with the words of a line. It has to end in this time with this status and to
/// say `words`.
inline Result strip(const std::string& line, int status = 0, const std::string& words = "",
                    const std::function<void()>& inChild = {}, double seconds = 280) {
  std::istringstream in(line);
  const Result result = run({std::istream_iterator<std::string>(in), {}}, inChild, seconds);
  EXPECT_EQ(result.status, status) << line << ": " << result.err;
  EXPECT_NE(result.err.find(words), std::string::npos) << line << ": " << result.err;
  return result;
}

/// A phantom head as voxels of type T, brightest tissue about `white`; every seed gives another.
template <class T>
std::vector<T> phantom(const FileLayout& layout, double white, std::uint64_t seed = 1) {
  const auto& n = layout.size;
  const auto image = tavrel::makePhantom(int(n[0]), int(n[1]), int(n[2]), seed).image;
  std::vector<T> voxels;
  for (const double v : image)
    voxels.push_back(T(std::is_integral_v<T> ? std::lround(std::max(0.0, v) * white) : v * white));
  return voxels;
}

/// Sizes and voxels of a small phantom, which is as large as a head.
inline constexpr std::array<std::int64_t, 3> kSmall = {37, 42, 40};
inline constexpr std::array<double, 3> kSmallMm = {4.75, 4.75, 4.75};
inline const FileLayout kHead = {.size = kSmall, .mm = kSmallMm};

/// Works in a folder of its own with one scan, scan.nii.gz.
class Command : public testing::Test {
 protected:
  Command() {
    fs::current_path(folder_.path());
    writeNifti("scan.nii.gz", kHead, phantom<std::int16_t>(kHead, 200));
  }
  ~Command() override { fs::current_path("/"); }
  std::set<std::string> files() const { return folder_.files(); }
  TemporaryFolder folder_;
};

}  // namespace test_files
