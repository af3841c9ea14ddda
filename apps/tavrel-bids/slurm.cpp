#include "slurm.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "external.h"
#include "group.h"
#include "ledger.h"
#include "participant.h"
#include "scan/format.h"
#include "scan/interrupt.h"
#include "scan/output.h"
#include "scan/report.h"
#include "strip_one.h"
#include "table.h"
#include "task_list.h"
#include "text_file.h"
#include "words.h"

namespace tavrel::cohort {
namespace {

namespace fs = std::filesystem;
using scan::text;

constexpr char kNothingLeft[] = "Nothing is left to do for the cluster";

// A task should take minutes: less, and the cluster works for itself; more, and a task that is
// killed loses much. A head of 1 mm takes 1 to 4 s on one core.
constexpr double kTaskSeconds = 600, kScanSeconds = 1, kVoxelSeconds = 5e-7;
constexpr double kTimeFactor = 4, kSpareMinutes = 10;  // of the limit: machines differ
constexpr double kMemoryFactor = 1.25, kSpareMb = 128;
constexpr int kGroupMb = 1000;
constexpr double kGroupSeconds = 0.2;  // a scan
constexpr long kUsualMaxArraySize = 1001;
constexpr auto kPoll = std::chrono::seconds(2);

/// What is asked of the cluster for a task.
struct Demand {
  double seconds = 0, memoryMb = 0;
};

/// Scans in tasks, and what the largest task needs.
struct Plan {
  std::vector<std::vector<Source>> tasks;
  Demand most;
  std::size_t scans = 0;
};

double secondsOf(const Estimate& estimate) {
  double voxels = 1;
  for (const int n : estimate.size) voxels *= n;
  return kScanSeconds + kVoxelSeconds * voxels;
}

Plan plan(const Options& options, const std::vector<Source>& scans) {
  Plan result;
  const auto most = options.slurm.scansPerTask;
  double seconds = kTaskSeconds;
  for (const Source& source : scans) {
    const Estimate known = estimate(options.study, source).value_or(Estimate{});
    const double takes = secondsOf(known) / options.slurm.jobs;
    const bool full =
        result.tasks.empty() ||
        (most ? result.tasks.back().size() >= std::size_t(most) : seconds + takes > kTaskSeconds);
    if (full) {
      result.tasks.emplace_back();
      seconds = 0;
    }
    result.tasks.back().push_back(source);
    seconds += takes;
    result.most.seconds = std::max(result.most.seconds, seconds);
    result.most.memoryMb = std::max(result.most.memoryMb, double(known.memory) / (1 << 20));
  }
  result.scans = scans.size();
  return result;
}

fs::path ownProgram() {
  std::error_code failure;
  const fs::path program = fs::read_symlink("/proc/self/exe", failure);
  return failure ? fs::path("tavrel-bids") : program;
}

long minutes(double seconds) { return std::lround(std::ceil(seconds / 60)); }

/// The script of all jobs; its argument is what to add to the number of the task, or "group".
std::string script(const Options& options, const Plan& plan, const fs::path& folder) {
  const std::vector<std::string> start = {ownProgram(), fs::absolute(options.study.dataset),
                                          fs::absolute(options.study.output)};
  auto group = start, strip = start;
  group.push_back("group");
  strip.insert(strip.end(), {"participant", "--no-group", "--scans", folder / kTaskList});
  if (options.anyFolder) strip.push_back("--skip-bids-validation");
  strip.insert(strip.end(), options.forTasks.begin(), options.forTasks.end());
  if (options.slurm.memoryMb > 0)
    strip.insert(strip.end(), {"--mem", text(options.slurm.memoryMb)});
  if (options.slurm.jobs > 1)
    strip.insert(strip.end(), {"--jobs", std::to_string(options.slurm.jobs)});
  const double memory =
      options.slurm.memoryMb > 0 ? options.slurm.memoryMb : plan.most.memoryMb * options.slurm.jobs;
  return text(
      "#!/bin/bash\n# Written by tavrel-bids ", scan::kVersion, ": ", plan.scans, " scans in ",
      plan.tasks.size(), " tasks. The argument is \"group\", or what to add\n",
      "# to the number of an array's task to have that of the list.\n",
      "#SBATCH --job-name=tavrel-bids\n",
      "#SBATCH --cpus-per-task=", options.slurm.jobs * options.study.strip.threads, "\n",
      "#SBATCH --mem=", std::lround(std::ceil(kSpareMb + kMemoryFactor * memory)), "M\n",
      "#SBATCH --time=", long(kSpareMinutes) + minutes(kTimeFactor * plan.most.seconds),
      "\n#SBATCH --requeue\n#SBATCH --open-mode=append\n\n", "if [ \"$1\" = group ]; then\n  exec ",
      shellLine(group), "\nfi\nexec ", shellLine(strip), " --task $(($1 + SLURM_ARRAY_TASK_ID))\n");
}

/// A folder of the logs that no submission has used.
fs::path newFolder(const fs::path& output) {
  for (int number = 1;; ++number) {
    const fs::path folder = fs::absolute(output) / "logs" / scan::print("slurm-%03d", number);
    std::error_code failure;
    if (fs::create_directory(folder, failure)) return folder;
    if (failure)
      throw scan::OutputError(text(folder.string(), " cannot be made: ", failure.message()));
  }
}

/// Tasks that one array may have: their numbers have to be below MaxArraySize, and begin with 1.
long mostTasks() {
  std::istringstream config(runProgram({"scontrol", "show", "config"}).out);
  for (std::string word, equals; config >> word;)
    if (long value = 0; word == "MaxArraySize" && config >> equals >> value && value > 1)
      return value - 1;
  return kUsualMaxArraySize - 1;
}

/// Command lines for sbatch, without the dependency.
class Submission {
 public:
  Submission(const Options& options, const Plan& plan, fs::path folder)
      : options_(options), plan_(plan), folder_(std::move(folder)) {}

  fs::path script() const { return folder_ / "tavrel.sbatch"; }

  std::vector<std::vector<std::string>> arrays() const {
    std::vector<std::vector<std::string>> result;
    const long all = long(plan_.tasks.size()), most = mostTasks();
    for (long first = 0; first < all; first += most)
      result.push_back(command(text("--array=1-", std::min(most, all - first)), "%A_%a.log", {},
                               std::to_string(first)));
    return result;
  }

  /// The job behind the arrays. What the user says about time or memory is meant for the tasks.
  std::vector<std::string> group(const std::vector<std::string>& jobs) const {
    std::string after = "--dependency=afterany";
    for (const std::string& job : jobs) after += ":" + job;
    const double seconds = kGroupSeconds * double(plan_.scans);
    return command(after, "group-%j.log",
                   {text("--mem=", kGroupMb, "M"), "--cpus-per-task=1",
                    text("--time=", long(kSpareMinutes) + minutes(seconds))},
                   "group");
  }

 private:
  std::vector<std::string> command(const std::string& first, const char* log,
                                   const std::vector<std::string>& more,
                                   const std::string& argument) const {
    std::string logs;  // where a percent sign begins a number
    for (const char c : folder_.string()) logs.append(c == '%' ? 2 : 1, c);
    std::vector<std::string> result = {"sbatch", "--parsable", first,
                                       "--output=" + logs + "/" + log};
    for (const std::string& word : shellWords(options_.slurm.options)) result.push_back(word);
    result.insert(result.end(), more.begin(), more.end());
    result.insert(result.end(), {script().string(), argument});
    return result;
  }

  const Options& options_;
  const Plan& plan_;
  fs::path folder_;
};

/// Several lines as one.
std::string oneLine(const std::string& text) {
  std::istringstream words(text);
  std::string line, word;
  while (words >> word) line += (line.empty() ? "" : " ") + word;
  return line;
}

/// Hands a job over. @returns its number
std::string submit(const std::vector<std::string>& command) {
  const Answer answer = runProgram(command);
  std::istringstream lines(answer.out);
  std::string number, last;
  // sbatch may talk before it tells the number, which a semicolon and a cluster may follow.
  while (std::getline(lines, last))
    if (!last.empty() && last.find_first_not_of("0123456789") != 0) number = last;
  number = number.substr(0, number.find(';'));
  if (answer.status != 0 || number.empty())
    throw std::runtime_error(shellLine(command) + " failed: " + oneLine(answer.out));
  return number;
}

/// Submits all, or nothing remains, the folder of the submission included.
std::vector<std::string> submitAll(const Submission& submission, const fs::path& folder) {
  std::vector<std::string> jobs;
  try {
    for (const auto& command : submission.arrays()) jobs.push_back(submit(command));
    jobs.push_back(submit(submission.group(jobs)));
  } catch (...) {
    jobs.insert(jobs.begin(), "scancel");
    if (jobs.size() > 1) runProgram(jobs);
    std::error_code ignored;
    fs::remove_all(folder, ignored);
    throw;
  }
  return jobs;
}

bool isOver(const std::string& job) {
  const Answer answer = runProgram({"squeue", "--noheader", "--format=%T", "--jobs=" + job});
  if (answer.status == 0) return answer.out.find_first_not_of(" \n") == std::string::npos;
  return answer.out.find("Invalid job id") != std::string::npos;  // long ago
}

int statusOf(const Options& options, const std::vector<Source>& scans) {
  std::set<std::string> ours;
  for (const Source& source : scans) ours.insert(failedRow(source, "").scan);
  std::size_t failed = 0;
  for (const Row& row : readRows(options.study.output))
    if (row.status != "done" && ours.contains(row.scan)) {
      ++failed;
      std::cerr << text("tavrel-bids: ", scan::printable(row.scan + ": " + row.reason)) << '\n';
    }
  return failed ? kSomeFailed : kAllDone;
}

void tell(const Plan& plan, const std::vector<std::string>& jobs, const fs::path& folder) {
  std::string list;
  for (const std::string& job : jobs) list += (list.empty() ? "" : ",") + job;
  std::vector<std::string> cancel = jobs;
  cancel.insert(cancel.begin(), "scancel");
  std::cout << text("Submitted ", plan.scans, " scans in ", plan.tasks.size(), " tasks: jobs ",
                    list, "; the last one makes table and report\n  watch   squeue --jobs=", list,
                    "\n  logs    ", scan::printable(folder.string()), "\n  cancel  ",
                    shellLine(cancel))
            << std::endl;
}

}  // namespace

int stripOnCluster(const Options& options, const std::vector<Source>& scans) {
  std::vector<Source> forTasks, hopeless;
  for (const Source& source : missing(options, scans))
    (source.problem.empty() ? forTasks : hopeless).push_back(source);
  const Plan tasks = plan(options, forTasks);
  if (options.slurm.dryRun && forTasks.empty()) {
    std::cout << kNothingLeft << std::endl;
    return kAllDone;
  }
  if (options.slurm.dryRun) {
    const fs::path folder = fs::absolute(options.study.output) / "logs" / "slurm-NNN";
    const Submission submission(options, tasks, folder);
    std::cout << script(options, tasks, folder) << '\n';
    for (const auto& command : submission.arrays()) std::cout << "# " << shellLine(command) << '\n';
    std::cout << "# " << shellLine(submission.group({"JOB"})) << '\n';
    return kAllDone;
  }
  for (const Source& source : hopeless) stripOne(options.study, source);  // notes why
  if (forTasks.empty()) {
    std::cout << kNothingLeft << std::endl;
    writeGroup(options.study.output);
    return statusOf(options, scans);
  }
  const fs::path folder = newFolder(options.study.output);
  const Submission submission(options, tasks, folder);
  writeText(folder / kTaskList, taskList(tasks.tasks));
  writeText(submission.script(), script(options, tasks, folder));
  const auto jobs = submitAll(submission, folder);
  tell(tasks, jobs, folder);
  if (!options.slurm.wait) return hopeless.empty() ? kAllDone : kSomeFailed;
  while (!isOver(jobs.back())) {
    std::this_thread::sleep_for(kPoll);
    scan::checkInterrupted();
  }
  return statusOf(options, scans);
}

}  // namespace tavrel::cohort
