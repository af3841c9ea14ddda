#include "method_options.h"

#include <cmath>

#include "format.h"

namespace tavrel::scan {
namespace {

constexpr char kExact[] = "exact", kNone[] = "none";
constexpr double kLeastMm = 0.1, kMostMm = 5;   // of --resample
constexpr double kLeastW5 = 0.1, kMostW5 = 10;  // of the evolution for scans
constexpr double kAnyW5 = 1e6;                  // of the exact one, which takes what `Tavrel` takes

/// @throws CLI::ValidationError if the text is no number from `least` to `most`
double parseNumber(const char* option, std::string text, double least, double most) {
  const std::string wrong = between(least, most)(text);
  if (!wrong.empty()) throw CLI::ValidationError(option, wrong);
  double number = 0;
  CLI::detail::lexical_cast(text, number);
  return number;
}

}  // namespace

void MethodOptions::declare(CLI::App& app) {
  const auto add = [&](const char* name, auto& value, const char* help, const char* type) {
    CLI::Option* option = app.add_option(name, value, help)->type_name(type)->group("Method");
    all_.push_back(option);
    return option->capture_default_str();
  };
  add("--w5", w5_,
      "Weight of the comparison with the surroundings; larger values give larger brains. auto: the "
      "one whose mask depends on it least",
      "X|auto");
  add("--evolution", evolution_,
      "\"scan\": the fast one, which finds the head first; \"exact\": that of Tavrel, on the "
      "scan's "
      "own grid, from the middle of the volume",
      "scan|exact")
      ->check(CLI::IsMember({"scan", kExact}).description(""));
  add("--resample", resample_,
      "Strip on an isotropic grid of this spacing in mm and bring the mask back. auto: the scan's "
      "own grid if it is near 1 mm (scan) or in any case (exact)",
      "MM|auto");
  add("--volume-range", volumes_,
      "Volumes in mL that a brain may have, for children or animals; what is outside is flagged, "
      "and the method works on the size of such brains",
      "LEAST MOST")
      ->default_str("700 2200");
  declareFinishing(app);
}

void MethodOptions::declareFinishing(CLI::App& app) {
  constexpr char kGroup[] = "Finishing";
  all_.push_back(app.add_option("--finish", finish_,
                                "\"brain\": finish the mask as set below; \"none\": leave it as "
                                "evolved")
                     ->type_name("brain|none")
                     ->group(kGroup)
                     ->check(CLI::IsMember({"brain", kNone}).description(""))
                     ->capture_default_str());
  const auto radius = [&](const char* name, double& mm, const char* help) {
    return app.add_option(name, mm, help)
        ->type_name("MM")
        ->group(kGroup)
        ->check(between(0, 100))
        ->capture_default_str();
  };
  const auto onOff = [&](const char* name, bool& value, bool meaning, const char* help) {
    return app
        .add_flag_callback(
            name, [&value, meaning] { value = meaning; }, help)
        ->group(kGroup);
  };
  strip::FinishSettings& f = finishing_;
  steps_ = {radius("--open", f.openMm, "Radius in mm of the ball that cuts thin bridges; 0: off"),
            radius("--close", f.closeMm, "Radius in mm of the ball that takes in sulci; 0: off"),
            onOff("--largest", f.largest, true, "Keep only the largest connected piece (default)"),
            onOff("--no-largest", f.largest, false, "Keep all pieces"),
            onOff("--fill-holes", f.fillHoles, true, "Fill what the mask encloses (default)"),
            onOff("--no-fill-holes", f.fillHoles, false, "Leave holes as they are")};
  all_.insert(all_.end(), steps_.begin(), steps_.end());
}

void MethodOptions::apply(strip::StripSettings& settings) const {
  if (evolution_ == kExact) settings.evolution = strip::Evolution::exact;
  if (w5_ != strip::kAuto)
    settings.w5 = evolution_ == kExact ? parseNumber("--w5", w5_, -kAnyW5, kAnyW5)
                                       : parseNumber("--w5", w5_, kLeastW5, kMostW5);
  if (resample_ != strip::kAuto)
    settings.resampleMm = parseNumber("--resample", resample_, kLeastMm, kMostMm);
  const auto [least, most] = volumes_;
  if (!(least >= 0 && least < most && std::isfinite(most)))
    throw CLI::ValidationError("--volume-range", "needs two numbers, the smaller one first");
  settings.volumes = {least, most};
  if (finish_ == kNone)
    refuse(steps_, "has no use with --finish none");
  else
    settings.finish = finishing_;
}

CLI::Validator between(double least, double most) {
  return {[least, most](std::string& text) {
            double number = 0;
            const bool fits =
                CLI::detail::lexical_cast(text, number) && number >= least && number <= most;
            return fits ? ""
                        : scan::text('"', text, "\" is not a number from ", least, " to ", most);
          },
          ""};
}

void refuse(const std::vector<const CLI::Option*>& options, const char* why) {
  for (const CLI::Option* option : options)
    if (option->count()) throw CLI::ValidationError(option->get_name(), why);
}

}  // namespace tavrel::scan
