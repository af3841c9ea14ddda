// What the command says while it works.
//
// On a terminal one live line a scan; elsewhere one plain line a level. Either way a line with the
// result ends each scan.
#pragma once

#include <chrono>
#include <ostream>
#include <string>

#include "scan/job.h"

namespace tavrel::scan {

/// How far a level has converged, 0 to 1: where the relative change stands, on a logarithmic scale,
/// between a tenth and the value that ends a level.
double convergence(double ratio);

/// The display of one scan.
class Progress {
 public:
  enum class Style { quiet, plain, live };

  /// Style for a stream: live on a terminal.
  static Style styleFor(int descriptor, bool quiet);

  /// @param columns  width of the live line
  Progress(std::ostream& out, Style style, std::string name, int columns = 80);
  /// Removes an unfinished live line.
  ~Progress();

  /// Callbacks for stripFile(), which must not outlive this object.
  JobObserver observer();
  /// Removes the live line, to make room for other output.
  void clear();
  /// Ends the scan with a line.
  void done(const std::string& line);

 private:
  double seconds() const;
  void showStep(const StepReport& step);
  void live(const std::string& what);

  std::ostream& out_;
  Style style_;
  std::string name_;
  int columns_;
  Grid grid_;
  std::string run_;      // the weight of the run that goes on
  double volume_ = 0;    // mL inside after the last step
  double fraction_ = 0;  // of the bar
  bool shown_ = false;   // a live line stands on the terminal
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point last_ = {};
};

}  // namespace tavrel::scan
