#include "progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cmath>
#include <iostream>

#include "scan/format.h"

namespace tavrel::cohort {
namespace {

using scan::printable;
using scan::text;

constexpr int kBar = 20;
constexpr auto kPause = std::chrono::milliseconds(200);  // between two live lines

std::size_t terminalColumns() {
  winsize size = {};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

}  // namespace

std::string duration(double seconds) {
  const auto minutes = std::lround(seconds / 60);
  if (seconds < 90) return scan::print("%.0f s", seconds);
  if (minutes < 100) return text(minutes, " min");
  return text(minutes / 60, " h ", minutes % 60, " min");
}

Progress::Progress(std::size_t scans, bool quiet)
    : scans_(scans), quiet_(quiet), live_(!quiet && isatty(STDOUT_FILENO)) {}

Progress::~Progress() { clear(); }

void Progress::clear() {
  if (shown_) std::cout << "\r\033[K" << std::flush;
  shown_ = false;
}

/// By the scans that were stripped: to pass over those that are finished takes next to nothing.
std::string Progress::timeLeft() const {
  const std::size_t stripped = done_ + failed_;
  if (stripped == 0 || all() >= scans_) return "";
  const double elapsed = std::chrono::duration<double>(Clock::now() - start_).count();
  return ", " + duration(elapsed / double(stripped) * double(scans_ - all())) + " left";
}

void Progress::ended(const std::string& scan, End end, const std::string& figures) {
  ++(end == End::done ? done_ : end == End::failed ? failed_ : finished_);
  if (end == End::failed) return note(scan, figures);
  if (quiet_ || live_ || end == End::finishedBefore) return;
  std::cout << text(all(), "/", scans_, " ", printable(scan), ": ", figures, timeLeft())
            << std::endl;
}

void Progress::note(const std::string& scan, const std::string& remark) {
  clear();
  std::cerr << "tavrel-bids: " << printable(scan + ": " + remark) << std::endl;
}

void Progress::show(std::size_t running) {
  if (!live_ || Clock::now() - last_ < kPause) return;
  last_ = Clock::now();
  const auto full = scans_ ? all() * kBar / scans_ : 0;
  const std::string line =
      text('[', std::string(full, '#'), std::string(kBar - full, '-'), "] ", all(), "/", scans_,
           failed_ ? text(", ", failed_, " failed") : "", ", ", running, " running", timeLeft());
  std::cout << "\r\033[K" << scan::shortened(line, terminalColumns() - 1) << std::flush;
  shown_ = true;
}

void Progress::summary() {
  clear();
  if (quiet_) return;
  const double elapsed = std::chrono::duration<double>(Clock::now() - start_).count();
  std::cout << text(scans_, scans_ == 1 ? " scan: " : " scans: ", done_, " done now, ", finished_,
                    " done before, ", failed_, " failed, in ", duration(elapsed))
            << std::endl;
}

}  // namespace tavrel::cohort
