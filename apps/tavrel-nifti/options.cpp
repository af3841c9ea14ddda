#include "options.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <iostream>

#include "scan/format.h"
#include "scan/method_options.h"
#include "scan/nifti/files.h"
#include "scan/output.h"
#include "scan/report.h"
#include "scan/targets.h"
#include "threads.h"

namespace tavrel::scan {
namespace {

constexpr char kExamples[] = R"(
Examples:
  tavrel-nifti sub-01_T1w.nii.gz
      writes sub-01_T1w_brain.nii.gz, sub-01_T1w_brain_mask.nii.gz and sub-01_T1w_brain_qc.png
  tavrel-nifti --out-dir derivatives --json report.json sub-*_T1w.nii.gz
      many scans in one call, with the figures of all of them in one file
  tavrel-nifti --evolution exact --w5 1.0 --finish none --phi phi.nii.gz head.nii
      the evolved mask as it is, and its level-set function

Exit status: 0 all done, 1 wrong usage, 2 some input failed (the others are done), 3 with --strict:
all done, but some mask is doubtful.)";

constexpr char kNone[] = "none";

/// Refuses the name of a single output that has none of the endings.
void checkEnding(const std::string& option, const std::string& name,
                 std::initializer_list<const char*> endings) {
  if (name.empty() || name == kNone) return;
  std::string list;
  for (const char* ending : endings) {
    if (name.ends_with(ending)) return;
    list += (list.empty() ? "" : " or ") + std::string(ending);
  }
  throw CLI::ValidationError(option, "\"" + name + "\" does not end in " + list);
}

/// The input's file name without what marks it as an image.
std::string stem(const std::string& input) {
  return withoutEnding(std::filesystem::path(input).filename().string());
}

OutputPaths outputPaths(const std::string& input, const Options& options) {
  const auto folder = options.outDir.empty() ? std::filesystem::path(input).parent_path()
                                             : std::filesystem::path(options.outDir);
  const std::string end = input.ends_with(".nii") || input.ends_with(".NII") ? ".nii" : ".nii.gz";
  const auto named = [&](const std::string& name, const std::string& fallback) {
    if (name == kNone || (name.empty() && fallback.empty())) return std::filesystem::path();
    return name.empty() ? folder / (stem(input) + fallback) : std::filesystem::path(name);
  };
  return {named(options.brain, "_brain" + end),
          named(options.mask, options.fromMask.empty() ? "_brain_mask" + end : ""),
          named(options.phi, ""), named(options.qc, "_brain_qc.png")};
}

/// Refuses runs that would write over what they read, or twice to one place.
void checkTogether(const Options& options) {
  std::vector<std::pair<std::filesystem::path, std::string>> others;
  if (!options.json.empty()) others.emplace_back(options.json, "--json");
  try {
    checkOutputs(scanJobs(options), others);
  } catch (const OutputError& error) {
    throw CLI::ValidationError(error.what());
  }
}

/// The options of the command line and what they say once it has been read.
class CommandLine {
 public:
  CommandLine() {
    app_.footer(kExamples);
    app_.get_formatter()->column_width(34);
    app_.set_version_flag("--version", std::string("tavrel-nifti ") + kVersion);
    app_.add_option("inputs", o_.inputs, "Scans: .nii, .nii.gz, or a pair .hdr/.img")
        ->required()
        ->type_name("SCAN");
    addOutputs();
    addMethod();
    app_.add_flag("--strict", o_.strict, "Exit with status 3 if any mask is doubtful (flagged)");
    app_.add_flag("--quiet", o_.quiet, "Print nothing but errors");
  }

  /// @throws ExitNow
  Options parse(int argc, char** argv) {
    try {
      app_.parse(argc, argv);
      readMethod();
      checkOutputNames();
      checkTogether(o_);
    } catch (const CLI::Success& helpOrVersion) {
      app_.exit(helpOrVersion);
      throw ExitNow{0};
    } catch (const CLI::ParseError& error) {
      std::cerr << printable(error.what()) << "\nRun with --help for more information.\n";
      throw ExitNow{1};
    }
    return o_;
  }

 private:
  CLI::Option* add(const char* name, auto& value, const char* help, const char* type,
                   const char* group) {
    return app_.add_option(name, value, help)->type_name(type)->group(group);
  }

  void addOutputs() {
    // Empty where a script's variable is not set.
    const auto named = [](const std::string& name) { return name.empty() ? "needs a name" : ""; };
    const auto output = [&](const char* name, std::string& file, const char* help) {
      return add(name, file, help, "FILE", "Outputs")->check(named);
    };
    add("--out-dir", o_.outDir,
        "Folder for the outputs, made if missing (default: beside each scan)", "DIR", "Outputs")
        ->check(named);
    singles_ = {
        output("--brain", o_.brain, "Name of the stripped scan, or \"none\""),
        output("--mask", o_.mask, "Name of the mask (unsigned 8-bit, 1 inside), or \"none\""),
        output("--qc", o_.qc, "Name of the picture (PNG), or \"none\""),
        output("--phi", o_.phi,
               "Also write the level-set function (float32, negative inside, in voxels)")};
    phi_ = singles_.back();
    output("--json", o_.json, "Also write a report: volumes in mL, levels, settings, checksums");
    app_.add_flag("--force", o_.force, "Overwrite outputs that exist")->group("Outputs");
  }

  void addMethod() {
    const auto method = [&](const char* name, auto& value, const char* help, const char* type) {
      return add(name, value, help, type, "Method");
    };
    method("--volume", o_.volume, "Volume of 4-D scans, counted from 0", "N");
    fromMask_ = method("--from-mask", o_.fromMask,
                       "Do not strip: make the stripped scan and the picture again from this mask "
                       "on the scan's grid (> 0 inside), say one that was corrected by hand",
                       "FILE");
    method_.declare(app_);
    o_.strip.threads = usualThreads();
    threads_ = method("--threads", o_.strip.threads,
                      "Threads a scan; the result does not depend on it (default: TAVREL_THREADS, "
                      "else the processors that may be used)",
                      "N")
                   ->check(between(1, kMostThreads));
  }

  void readMethod() {
    if (!threads_->count() && threadsAsked() < 0)
      throw CLI::ValidationError(wrongThreadsVariable());
    method_.apply(o_.strip);
    if (fromMask_->count()) {
      refuse({phi_}, "has no use with --from-mask");
      refuse(method_.all(), "has no use with --from-mask");
    }
    if (o_.strip.evolution != Evolution::exact) refuse({phi_}, "goes with --evolution exact");
  }

  void checkOutputNames() {
    if (o_.inputs.size() > 1) {
      refuse({fromMask_}, "is the mask of one scan, but there are several");
      std::erase_if(singles_, [](const CLI::Option* option) {
        return option->count() && option->as<std::string>() == kNone;
      });
      refuse(singles_, "names one output, but there are several scans; use --out-dir");
    }
    for (const auto& [option, name] :
         {std::pair{"--brain", o_.brain}, {"--mask", o_.mask}, {"--phi", o_.phi}})
      checkEnding(option, name, {".nii", ".nii.gz"});
    checkEnding("--qc", o_.qc, {".png"});
    // As in "--json *.nii", where the report's name was forgotten.
    if (withoutEnding(o_.json) != o_.json)
      throw CLI::ValidationError("--json", "\"" + o_.json + "\" is the name of a scan");
  }

  using OptionList = std::vector<const CLI::Option*>;

  CLI::App app_{"Strips the skull and all other non-brain tissue from 3-D head images (NIfTI).",
                "tavrel-nifti"};
  Options o_;
  MethodOptions method_;
  OptionList singles_;  // options that name single outputs
  const CLI::Option *fromMask_ = nullptr, *phi_ = nullptr, *threads_ = nullptr;
};

}  // namespace

Options parseOptions(int argc, char** argv) { return CommandLine().parse(argc, argv); }

std::vector<ScanJob> scanJobs(const Options& options) {
  std::vector<ScanJob> jobs;
  for (const std::string& input : options.inputs)
    jobs.push_back({.input = input,
                    .volume = options.volume,
                    .fromMask = options.fromMask,
                    .outputs = outputPaths(input, options),
                    .strip = options.strip,
                    .force = options.force});
  return jobs;
}

}  // namespace tavrel::scan
