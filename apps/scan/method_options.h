// The options that set how a scan is stripped, the same in every command.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <utility>
#include <vector>

#include "strip/stripping.h"

namespace tavrel::scan {

class MethodOptions {
 public:
  MethodOptions() = default;
  MethodOptions(const MethodOptions&) = delete;  // the options of the command line refer to it
  MethodOptions& operator=(const MethodOptions&) = delete;

  /// Adds the options to a command line, in the groups "Method" and "Finishing".
  void declare(CLI::App& app);

  /// Puts what was given, once the command line has been read, into the settings.
  /// @throws CLI::ValidationError if it makes no sense
  void apply(strip::StripSettings& settings) const;

  const std::vector<const CLI::Option*>& all() const { return all_; }

 private:
  void declareFinishing(CLI::App& app);

  std::string w5_ = strip::kAuto, evolution_ = "scan", resample_ = strip::kAuto, finish_ = "brain";
  std::pair<double, double> volumes_ = {strip::VolumeRange().least, strip::VolumeRange().most};
  strip::FinishSettings finishing_ = strip::kDefaultFinish;
  std::vector<const CLI::Option*> all_, steps_;  // steps: of the finishing
};

/// Takes numbers from `least` to `most`.
CLI::Validator between(double least, double most);

/// Complains about those of the options that were given. @throws CLI::ValidationError
void refuse(const std::vector<const CLI::Option*>& options, const char* why);

}  // namespace tavrel::scan
