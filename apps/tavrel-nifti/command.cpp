#include "command.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <iostream>
#include <nlohmann/json.hpp>

#include "progress.h"
#include "scan/descriptor.h"
#include "scan/format.h"
#include "scan/interrupt.h"
#include "scan/output.h"
#include "scan/report.h"

namespace tavrel::scan {
namespace {

namespace fs = std::filesystem;

int terminalColumns() {
  winsize size = {};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

void makeFolder(const fs::path& folder) {
  std::error_code failure;
  fs::create_directories(folder, failure);
  if (failure) throw OutputError(text(folder.string(), " cannot be made: ", failure.message()));
}

void complain(const std::string& line) {
  std::cerr << "tavrel-nifti: " << printable(line) << std::endl;
}

/// The line that ends a scan: its volume and where its outputs are.
std::string summary(const ScanJob& job, const ScanResult& result) {
  std::string line = print("%.0f mL, ", result.volumeMl);
  if (job.fromMask.empty()) line += weight(result.w5) + ", ";
  line += print("%.1f s", result.seconds);
  const char* before = " -> ";
  for (const auto& path : job.outputs.all()) line += std::exchange(before, ", ") + path.string();
  return line;
}

ScanResult stripShowing(const ScanJob& job, bool quiet) {
  Progress progress(std::cout, Progress::styleFor(STDOUT_FILENO, quiet), job.input,
                    terminalColumns());
  const auto note = [&](const std::string& line) {
    progress.clear();
    if (!quiet) std::cerr << printable(job.input + ": note: " + line) << std::endl;
  };
  JobObserver observer = progress.observer();
  observer.onNotice = note;
  const ScanResult result = stripFile(job, observer);
  if (result.done) {
    for (const Flag& flag : result.flags) note(flag.text + "; look at the picture");
    progress.done(summary(job, result));
  } else {
    progress.clear();
    complain(job.input + ": " + result.reason);
  }
  return result;
}

/// The file that --json names.
class ReportFile {
 public:
  explicit ReportFile(const Options& options)
      : options_(options), report_(newReport("tavrel-nifti", options.strip, options.volume)) {
    if (!options.json.empty()) checkTarget(options.json, options.force);
  }

  void add(const ScanJob& job, const ScanResult& result) {
    permissions_ &= result.permissions;
    report_["scans"].push_back(reportEntry(job, result));
  }

  void write() const {
    if (options_.json.empty()) return;
    const std::string content = reportText(report_);
    std::vector<PendingFile> files;
    removeStale(folderOf(options_.json));
    files.push_back(writePending(options_.json, std::as_bytes(std::span(content)), permissions_));
    commitTogether(files, options_.force);
  }

  /// Writes what is there of a run that a signal has ended.
  void writePart() {
    if (report_["scans"].empty()) return;
    report_["interrupted"] = true;
    answerInterrupt();
    try {
      write();
    } catch (const std::exception& error) {
      complain(error.what());
    }
  }

 private:
  const Options& options_;
  nlohmann::ordered_json report_;
  mode_t permissions_ = kOpenToAll;  // what all scans grant
};

int stripAll(const Options& options) {
  std::vector<std::string> failed;
  bool doubtful = false;
  if (!options.outDir.empty()) makeFolder(options.outDir);
  ReportFile report(options);
  try {
    for (const ScanJob& job : scanJobs(options)) {
      const ScanResult result = stripShowing(job, options.quiet);
      if (!result.done) failed.push_back(job.input);
      doubtful |= !result.flags.empty();
      report.add(job, result);
    }
  } catch (const Interrupted&) {
    report.writePart();
    throw;
  }
  report.write();
  if (failed.empty()) return options.strict && doubtful ? 3 : 0;
  std::string line = text(failed.size(), " of ", options.inputs.size(), " failed:");
  for (const std::string& input : failed) line += " " + input;
  complain(line);
  return 2;
}

}  // namespace

int runCommand(const Options& options) {
  openStandardStreams();
  catchSignals("tavrel-nifti");
  try {
    return stripAll(options);
  } catch (const Interrupted& interrupted) {
    complain("interrupted");
    return 128 + interrupted.signal;
  } catch (const std::exception& error) {
    complain(error.what());
    return 2;
  }
}

}  // namespace tavrel::scan
