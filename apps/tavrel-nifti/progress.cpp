#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "scan/format.h"

namespace tavrel::scan {
namespace {

constexpr double kFirstRatio = 0.1, kLastRatio = Pyramid::threshold;
constexpr int kBar = 12;
constexpr auto kPause = std::chrono::milliseconds(80);  // between two live lines

/// Share of a run's time that has passed before a level: each has eight times the voxels.
double timeBefore(int level, int levels) {
  return (std::pow(8.0, level) - 1) / (std::pow(8.0, levels) - 1);
}

std::string bar(double fraction) {
  const int full = int(std::lround(fraction * kBar));
  return text('[', std::string(std::size_t(full), '#'), std::string(std::size_t(kBar - full), '-'),
              ']');
}

}  // namespace

double convergence(double ratio) {
  if (!(ratio < kFirstRatio)) return 0;
  if (ratio <= kLastRatio) return 1;
  return std::log(kFirstRatio / ratio) / std::log(kFirstRatio / kLastRatio);
}

Progress::Style Progress::styleFor(int descriptor, bool quiet) {
  return quiet ? Style::quiet : isatty(descriptor) ? Style::live : Style::plain;
}

Progress::Progress(std::ostream& out, Style style, std::string name, int columns)
    : out_(out), style_(style), name_(printable(name)), columns_(columns) {}

Progress::~Progress() { clear(); }

double Progress::seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void Progress::clear() {
  if (shown_) out_ << "\r\033[K" << std::flush;
  shown_ = false;
}

void Progress::live(const std::string& what) {
  if (style_ != Style::live) return;
  const std::string figures = "  " + what + print("  %.0f s", seconds());
  const std::string name = name_.substr(name_.rfind('/') + 1);
  // Folders and the end of a long name give way to the figures.
  const auto room = std::size_t(std::max(0, columns_ - kBar - 5));
  const std::size_t left = room - std::min(room, figures.size());
  out_ << "\r\033[K" << bar(fraction_) << "  " << shortened(shortened(name, left) + figures, room)
       << std::flush;
  shown_ = true;
  last_ = std::chrono::steady_clock::now();
}

void Progress::showStep(const StepReport& step) {
  const double before = timeBefore(step.level, step.levels);
  const double share = timeBefore(step.level + 1, step.levels) - before;
  fraction_ = std::max(fraction_, before + share * convergence(step.ratio));
  const double voxels = step.inside * std::pow(8.0, step.levels - 1 - step.level);
  volume_ = millilitres(voxels, grid_.spacing);
  if (style_ != Style::live || std::chrono::steady_clock::now() - last_ < kPause) return;
  live(run_ + print("  level %d/%d  iteration %d  %.0f mL", step.level + 1, step.levels,
                    step.iteration + 1, volume_));
}

JobObserver Progress::observer() {
  JobObserver observer;
  observer.onStage = [this](const std::string& what) { live(what); };
  observer.onGrid = [this](const Grid& grid) { grid_ = grid; };
  observer.strip.onStage = [this](const char* stage, double done) {
    fraction_ = done;
    live(stage);
  };
  observer.strip.onRun = [this](double w5) {
    run_ = weight(w5);
    fraction_ = 0;
  };
  observer.strip.onStep = [this](const StepReport& step) { showStep(step); };
  observer.strip.onLevel = [this](int level, const LevelRecord& record) {
    if (style_ != Style::plain) return;
    out_ << name_ << ": " << run_ << ", level " << level + 1 << ", " << record.size[0] << " x "
         << record.size[1] << " x " << record.size[2] << ", " << record.iterations
         << " iterations, " << print("%.0f mL, %.1f s", volume_, record.seconds) << std::endl;
  };
  return observer;
}

void Progress::done(const std::string& line) {
  clear();
  if (style_ != Style::quiet) out_ << name_ << ": " << printable(line) << std::endl;
}

}  // namespace tavrel::scan
