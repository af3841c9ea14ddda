// The benchmarks' results as one table: every stage and size, plain loops against shipped code.
#pragma once

#include <benchmark/benchmark.h>

#include <array>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace tavrel::bench {

/// Reports benchmarks named STAGE/SIZE/VARIANT. The variant "plain" is what the others of its stage
/// and size are compared with, and comes first if it is there at all; "shipped" needs no mention.
/// Counters: `best_ms`, the time; `voxels`, the interface voxels worked on; `result`, a digest of
/// what was computed, which must be the same for all variants.
class TableReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override {
    std::printf("%-34s %-15s %10s %11s %11s %7s %9s\n", "stage", "size", "interface", "plain ms",
                "shipped ms", "ratio", "ns/voxel");
    return true;
  }

  void ReportRuns(const std::vector<Run>& runs) override {
    const auto& counters = runs.front().counters;
    const Result result{counters.at("best_ms"), counters.at("voxels"), counters.at("result")};
    std::istringstream name(runs.front().run_name.function_name);
    std::array<std::string, 3> part;  // stage, size, variant
    for (std::string& p : part) std::getline(name, p, '/');
    const std::string key = part[0] + '/' + part[1];
    if (part[2] == "plain") {
      plain_[key] = result;
    } else {
      const std::string variant = part[2] == "shipped" ? "" : ", " + part[2];
      print(part[0] + variant, part[1], result, plain_.find(key));
    }
  }

  /// Whether all variants computed the same.
  bool allSame() const { return allSame_; }

 private:
  struct Result {
    double milliseconds, voxels, digest;
  };
  using Results = std::map<std::string, Result>;

  void print(const std::string& stage, const std::string& size, const Result& shipped,
             Results::const_iterator plain) {
    std::printf("%-34s %-15s %10.0f ", stage.c_str(), size.c_str(), shipped.voxels);
    if (plain == plain_.end()) {
      std::printf("%11s %11.2f %7s", "-", shipped.milliseconds, "-");
    } else {
      std::printf("%11.2f %11.2f %7.1f", plain->second.milliseconds, shipped.milliseconds,
                  plain->second.milliseconds / shipped.milliseconds);
    }
    std::printf(" %9.0f", shipped.milliseconds * 1e6 / shipped.voxels);
    if (plain != plain_.end() && plain->second.digest != shipped.digest) {
      std::printf("  DIFFERENT BYTES");
      allSame_ = false;
    }
    std::printf("\n");
    std::fflush(stdout);
  }

  Results plain_;
  bool allSame_ = true;
};

}  // namespace tavrel::bench
