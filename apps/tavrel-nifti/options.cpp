#include "options.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <iostream>
#include <sstream>

#include "scan/format.h"
#include "scan/nifti/files.h"
#include "scan/output.h"
#include "scan/report.h"
#include "scan/targets.h"

namespace tavrel::scan {
namespace {

constexpr char kExamples[] = R"(
Examples:
  tavrel-nifti sub-01_T1w.nii.gz
      writes sub-01_T1w_brain.nii.gz, sub-01_T1w_brain_mask.nii.gz and sub-01_T1w_brain_qc.png
  tavrel-nifti --out-dir derivatives --json report.json sub-*_T1w.nii.gz
      many scans in one call, with the figures of all of them in one file
  tavrel-nifti --w5 1.0 --finish none --phi phi.nii.gz head.nii
      the evolved mask as it is, and its level-set function

Exit status: 0 all done, 1 wrong usage, 2 some input failed (the others are done).)";

constexpr char kNone[] = "none";

double parseNumber(const std::string& option, const std::string& value) {
  std::size_t used = 0;
  double number = std::nan("");
  try {
    number = std::stod(value, &used);
  } catch (const std::exception&) {
  }
  if (used != value.size() || value.empty() || !std::isfinite(number))
    throw CLI::ValidationError(option, "\"" + value + "\" is not a number");
  return number;
}

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

void refuse(const std::vector<const CLI::Option*>& options, const char* why) {
  for (const CLI::Option* option : options)
    if (option->count()) throw CLI::ValidationError(option->get_name(), why);
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

}  // namespace

Options parseOptions(int argc, char** argv) {
  Options o;
  FinishSettings finish = kDefaultFinish;
  std::string w5 = kDefaultW5, finishName = "brain";
  double resampleMm = 0;
  CLI::App app("Strips the skull and all other non-brain tissue from 3-D head images (NIfTI).",
               "tavrel-nifti");
  app.footer(kExamples);
  app.get_formatter()->column_width(34);
  app.set_version_flag("--version", std::string("tavrel-nifti ") + kVersion);

  app.add_option("inputs", o.inputs, "Scans: .nii, .nii.gz, or a pair .hdr/.img")
      ->required()
      ->type_name("SCAN");

  app.add_option("--out-dir", o.outDir,
                 "Folder for the outputs, made if missing (default: beside each scan)")
      ->type_name("DIR")
      ->group("Outputs");
  const auto single = [&](const char* name, std::string& target, const char* help) {
    return app.add_option(name, target, help)->type_name("FILE")->group("Outputs");
  };
  std::vector<const CLI::Option*> singles = {
      single("--brain", o.brain, "Name of the stripped scan, or \"none\""),
      single("--mask", o.mask, "Name of the mask (unsigned 8-bit, 1 inside), or \"none\""),
      single("--qc", o.qc, "Name of the picture (PNG), or \"none\""),
      single("--phi", o.phi,
             "Also write the level-set function (float32, negative inside, in voxels)")};
  app.add_option("--json", o.json,
                 "Also write a report: volumes in mL, levels, settings, checksums")
      ->type_name("FILE")
      ->group("Outputs");
  app.add_flag("--force", o.force, "Overwrite outputs that exist")->group("Outputs");

  app.add_option("--volume", o.volume, "Volume of 4-D scans, counted from 0")
      ->type_name("N")
      ->group("Method");
  const auto* fromMask =
      app.add_option("--from-mask", o.fromMask,
                     "Do not strip: make the stripped scan and the picture again from this mask on "
                     "the scan's grid (> 0 inside), say one that was corrected by hand")
          ->type_name("FILE")
          ->group("Method");
  std::vector<const CLI::Option*> method = {
      singles.back(),
      app.add_option(
             "--w5", w5,
             "Weight of the comparison with the surroundings; larger values give larger brains. "
             "auto: 1.0, but 1.1 where the mask is thin, and less, down to 0.7, while it leaks")
          ->type_name("X|auto")
          ->capture_default_str()
          ->group("Method"),
      app.add_option("--resample", resampleMm,
                     "Strip on an isotropic grid of this spacing in mm and bring the mask back "
                     "(default: the scan's own grid)")
          ->type_name("MM")
          ->check(CLI::Range(0.1, 20.0).description(""))
          ->group("Method"),
      app.add_option("--threads", o.strip.threads,
                     "Threads a scan; the result does not depend on it")
          ->type_name("N")
          ->check(CLI::Range(1, 1024).description(""))
          ->capture_default_str()
          ->group("Method")};

  method.push_back(
      app.add_option("--finish", finishName,
                     "\"brain\": finish the mask as set below; \"none\": leave it as evolved")
          ->type_name("brain|none")
          ->check(CLI::IsMember({"brain", kNone}).description(""))
          ->capture_default_str()
          ->group("Finishing"));
  const auto radius = [&](const char* name, double& mm, const char* help) {
    return app.add_option(name, mm, help)
        ->type_name("MM")
        ->check(CLI::Range(0.0, 100.0).description(""))
        ->capture_default_str()
        ->group("Finishing");
  };
  const auto onOff = [&](const char* name, bool& value, bool meaning, const char* help) {
    return app
        .add_flag_callback(
            name, [&value, meaning] { value = meaning; }, help)
        ->group("Finishing");
  };
  const std::vector<const CLI::Option*> parts = {
      radius("--open", finish.openMm, "Radius in mm of the ball that cuts thin bridges; 0: off"),
      radius("--close", finish.closeMm, "Radius in mm of the ball that takes in sulci; 0: off"),
      onOff("--largest", finish.largest, true, "Keep only the largest connected piece (default)"),
      onOff("--no-largest", finish.largest, false, "Keep all pieces"),
      onOff("--fill-holes", finish.fillHoles, true, "Fill what the mask encloses (default)"),
      onOff("--no-fill-holes", finish.fillHoles, false, "Leave holes as they are")};

  method.insert(method.end(), parts.begin(), parts.end());
  app.add_flag("--quiet", o.quiet, "Print nothing but errors");

  std::string line;
  try {
    app.parse(argc, argv);
    if (w5 != "auto") o.strip.w5 = parseNumber("--w5", w5);
    if (fromMask->count()) refuse(method, "has no use with --from-mask");
    if (finishName == kNone)
      refuse(parts, "has no use with --finish none");
    else
      o.strip.finish = finish;
    if (resampleMm > 0) o.strip.resampleMm = resampleMm;
    if (o.inputs.size() > 1) {
      refuse({fromMask}, "is the mask of one scan, but there are several");
      std::erase_if(singles, [](auto* option) {
        return option->count() && option->template as<std::string>() == kNone;
      });
      refuse(singles, "names one output, but there are several scans; use --out-dir");
    }
    for (const auto& [option, name] :
         {std::pair{"--brain", o.brain}, {"--mask", o.mask}, {"--phi", o.phi}})
      checkEnding(option, name, {".nii", ".nii.gz"});
    checkEnding("--qc", o.qc, {".png"});
    checkTogether(o);
  } catch (const CLI::ParseError& error) {
    std::ostringstream complaint;
    const int status = app.exit(error, std::cout, complaint);
    for (std::istringstream lines(complaint.str()); std::getline(lines, line);)
      std::cerr << printable(line) << '\n';
    throw ExitNow{status == 0 ? 0 : 1};
  }
  return o;
}

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
