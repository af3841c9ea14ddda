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

/// Reports benchmarks named STAGE/SIZE/VARIANT. The first variant of a stage and size is what the
/// others must equal; if it is called "plain", its time is shown beside theirs.
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
    const auto [first, isFirst] = first_.try_emplace(part[0] + '/' + part[1], result);
    allSame_ = allSame_ && result.digest == first->second.digest;
    if (part[2] == "plain") {
      first->second.plain = true;
    } else {
      const std::string variant = part[2] == "shipped" ? "" : ", " + part[2];
      print(part[0] + variant, part[1], result, first->second);
    }
  }

  /// Whether all variants computed the same.
  bool allSame() const { return allSame_; }

 private:
  struct Result {
    double milliseconds, voxels, digest;
    bool plain = false;
  };

  static void print(const std::string& stage, const std::string& size, const Result& shipped,
                    const Result& first) {
    std::printf("%-34s %-15s %10.0f ", stage.c_str(), size.c_str(), shipped.voxels);
    if (first.plain) {
      std::printf("%11.2f %11.2f %7.1f", first.milliseconds, shipped.milliseconds,
                  first.milliseconds / shipped.milliseconds);
    } else {
      std::printf("%11s %11.2f %7s", "-", shipped.milliseconds, "-");
    }
    std::printf(" %9.0f", shipped.milliseconds * 1e6 / shipped.voxels);
    std::printf("%s\n", shipped.digest == first.digest ? "" : "  DIFFERENT BYTES");
    std::fflush(stdout);
  }

  std::map<std::string, Result> first_;  ///< by stage and size
  bool allSame_ = true;
};

}  // namespace tavrel::bench
