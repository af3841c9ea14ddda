#include "options.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <iostream>
#include <sstream>

#include "scan/format.h"
#include "scan/method_options.h"
#include "scan/report.h"
#include "threads.h"
#include "words.h"

namespace tavrel::cohort {
namespace {

constexpr char kExamples[] = R"(
Examples:
  tavrel-bids /data/study /data/study/derivatives/tavrel participant
      strips every T1w scan of the study, as many at a time as the machine takes, and writes the
      table and the report; the same call again does what is missing
  tavrel-bids study out participant --participant-label 01 02 --session-label baseline
      two subjects, one session
  tavrel-bids study out participant --slurm --slurm-options "--partition=long --account=me"
      hands the scans to the cluster
  tavrel-bids study out group
      the table and the report again, from the output folder alone

Exit status: 0 all done, 1 some scans failed, 16 BIDS_DIR is not a BIDS dataset, 18 no scan
matched, 64 wrong usage, 73 OUTPUT_DIR cannot be written, 128 + N ended by signal N.)";

constexpr char kLevels[] = "participant|group";
constexpr char kRun[] = "The run";  // options that change no result

class CommandLine {
 public:
  CommandLine() {
    app_.footer(kExamples);
    app_.get_formatter()->column_width(34);
    app_.set_version_flag("--version", std::string("tavrel-bids ") + scan::kVersion);
    app_.add_option("bids_dir", dataset_, "BIDS dataset with the scans; it is never written to")
        ->required()
        ->type_name("BIDS_DIR");
    app_.add_option("output_dir", output_, "Folder for the derivatives, made if missing")
        ->required()
        ->type_name("OUTPUT_DIR");
    app_.add_option("level", level_,
                    "participant: strip the scans; group: make the table and the report of what "
                    "is there")
        ->required()
        ->type_name(kLevels)
        ->check(CLI::IsMember({"participant", "group"}).description(""));
    addSelection();
    addRun();
    addMethod();
    addSlurm();
  }

  /// @throws ExitNow
  Options parse(int argc, char** argv) {
    try {
      app_.parse(argc, argv);
      read();
    } catch (const CLI::ParseError& error) {
      std::ostringstream complaint;
      const int status = app_.exit(error, std::cout, complaint);
      std::istringstream lines(complaint.str());
      for (std::string line; std::getline(lines, line);) std::cerr << scan::printable(line) << '\n';
      throw ExitNow{status == 0 ? kAllDone : kUsage};
    }
    return o_;
  }

 private:
  CLI::Option* add(const char* name, auto& value, const char* help, const char* type,
                   const char* group) {
    return app_.add_option(name, value, help)->type_name(type)->group(group);
  }
  CLI::Option* flag(const char* name, bool& value, const char* help, const char* group) {
    return app_.add_flag(name, value, help)->group(group);
  }
  /// An option that sets how a scan is stripped, so that tasks of a cluster need it too.
  CLI::Option* method(const char* name, auto& value, const char* help, const char* type) {
    CLI::Option* option = add(name, value, help, type, "Method");
    passedOn_.push_back(option);
    return option;
  }

  void addSelection() {
    constexpr char kGroup[] = "Which scans";
    add("--participant-label,--participant_label", participants_,
        "Subjects, with or without \"sub-\" (default: all)", "LABEL", kGroup)
        ->expected(1, -1);
    add("--session-label,--session_label,--session-id", sessions_,
        "Sessions, with or without \"ses-\" (default: all)", "LABEL", kGroup)
        ->expected(1, -1);
    add("--bids-filter-file,--bids_filter_file", filter_,
        "JSON file with conditions on entities, as fMRIPrep's: {\"t1w\": {\"acquisition\": null}}",
        "FILE", kGroup);
    add("--scans", o_.scanList, "File with paths of scans below BIDS_DIR, one a line", "FILE",
        kGroup);
    add("--task", o_.task, "Take those lines of --scans that begin with this number", "N", kGroup);
    flag("--skip-bids-validation,--skip_bids_validation", o_.anyFolder,
         "Take BIDS_DIR even without dataset_description.json", kGroup);
    flag("--dry-run", o_.dryRun, "List the scans with their size and need of memory", kGroup);
  }

  void addRun() {
    add("--jobs,--nprocs,--n-cpus", jobs_,
        "Scans at a time (default: as many as processors and memory allow)", "N", kRun)
        ->check(scan::between(1, 4096));
    add("--mem,--mem-mb,--mem_mb", memoryMb_,
        "Memory in MB for all scans together (default: what is free)", "MB", kRun)
        ->check(scan::between(1.0, 1e9));
    passedOn_.push_back(add("--threads,--omp-nthreads", o_.study.strip.threads,
                            "Threads a scan; the result does not depend on it", "N", kRun)
                            ->check(scan::between(1, kMostThreads))
                            ->capture_default_str());
    passedOn_.push_back(
        add("--timeout", timeout_, "Give a scan up after this time", "SECONDS", kRun)
            ->check(scan::between(0.001, 1e9)));
    passedOn_.push_back(flag("--force", o_.study.force,
                             "Also strip again what is finished; changed masks stay", kRun));
    flag("--no-group", o_.noGroup, "Leave the table and the report to a later call", kRun);
    flag("--quiet", o_.quiet, "Print nothing but errors", kRun);
  }

  void addMethod() {
    method("--masks", o_.study.masks,
           "Folder of masks on the scans' grids, named by the scans' entities, to use instead of "
           "stripping",
           "DIR");
    method("--volume", o_.study.volume, "Volume of 4-D scans, counted from 0", "N");
    method_.declare(app_);
    passedOn_.insert(passedOn_.end(), method_.all().begin(), method_.all().end());
  }

  void addSlurm() {
    constexpr char kGroup[] = "Slurm";
    flag("--slurm", o_.slurm.submit, "Hand the scans that are missing to the cluster", kGroup);
    add("--slurm-options", o_.slurm.options, "Further options for sbatch", "TEXT", kGroup);
    add("--slurm-scans", o_.slurm.scansPerTask,
        "Scans a task (default: as many as take some minutes)", "N", kGroup)
        ->check(scan::between(1, 1000000));
    flag("--slurm-wait", o_.slurm.wait, "Submit, wait for the end and tell the run's status",
         kGroup);
    flag("--slurm-dry-run", o_.slurm.dryRun, "Print the script and submit nothing", kGroup);
  }

  static std::vector<std::string> labels(const std::vector<std::string>& given,
                                         const std::string& prefix, const char* option) {
    std::vector<std::string> result;
    for (const std::string& label : given) {
      result.push_back(withoutPrefix(label, prefix));
      if (result.back().empty() || result.back().find('/') != std::string::npos)
        throw CLI::ValidationError(option, "\"" + label + "\" is not a label");
    }
    return result;
  }

  void read() {
    o_.group = level_ == "group";
    o_.study.dataset = dataset_;
    o_.study.output = output_;
    o_.selection.participants = labels(participants_, "sub-", "--participant-label");
    o_.selection.sessions = labels(sessions_, "ses-", "--session-label");
    try {
      if (!filter_.empty()) o_.selection.filter = Filter(filter_);
    } catch (const std::exception& error) {
      throw CLI::ValidationError("--bids-filter-file", error.what());
    }
    if (o_.task && o_.scanList.empty()) throw CLI::ValidationError("--task", "needs --scans");
    std::error_code failure;
    if (!o_.study.masks.empty() && !std::filesystem::is_directory(o_.study.masks, failure))
      throw CLI::ValidationError("--masks", o_.study.masks.string() + " is not a folder");
    method_.apply(o_.study.strip);
    passOn();
    o_.slurm.submit = o_.slurm.submit || o_.slurm.wait || o_.slurm.dryRun;
    if (jobs_) o_.slurm.jobs = jobs_;
    o_.slurm.memoryMb = memoryMb_;
    o_.limits.jobs = jobs_ ? jobs_ : std::max(1, processorsGranted() / o_.study.strip.threads);
    o_.limits.memory = memoryMb_ > 0 ? std::uint64_t(memoryMb_ * (1 << 20)) : memoryGranted();
    if (timeout_ > 0) o_.limits.timeout = std::chrono::duration<double>(timeout_);
  }

  /// Notes the options that a task of a cluster gets too, and those that make the result what it
  /// is.
  void passOn() {
    o_.study.command =
        "tavrel-bids " + shellWord(dataset_) + " " + shellWord(output_) + " participant";
    for (const CLI::Option* option : passedOn_) {
      if (!option->count()) continue;
      std::vector<std::string> words = {option->get_name()};
      if (option->get_items_expected_max() > 0)
        words.insert(words.end(), option->results().begin(), option->results().end());
      o_.forTasks.insert(o_.forTasks.end(), words.begin(), words.end());
      if (option->get_group() != kRun) (o_.study.command += ' ') += shellLine(words);
    }
  }

  CLI::App app_{"Strips the skull from the T1-weighted scans of a BIDS dataset.", "tavrel-bids"};
  Options o_;
  std::string dataset_, output_, level_, filter_;
  std::vector<std::string> participants_, sessions_;
  int jobs_ = 0;
  double memoryMb_ = 0, timeout_ = 0;
  scan::MethodOptions method_;
  std::vector<const CLI::Option*> passedOn_;
};

}  // namespace

Options parseOptions(int argc, char** argv) { return CommandLine().parse(argc, argv); }

}  // namespace tavrel::cohort
