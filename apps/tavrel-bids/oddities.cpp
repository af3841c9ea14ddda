#include "oddities.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "scan/format.h"

namespace tavrel::cohort {
namespace {

constexpr double kObliqueDegrees = 5;
constexpr double kApartMm = 1;

/// Degrees between the axis of the volume that is furthest from any of the head's, and that one.
double obliqueness(const scan::Affine& affine) {
  double worst = 1;
  for (int column = 0; column < 3; ++column) {
    double square = 0, largest = 0;
    for (int row = 0; row < 3; ++row) {
      square += affine[row][column] * affine[row][column];
      largest = std::max(largest, std::abs(affine[row][column]));
    }
    if (square > 0) worst = std::min(worst, largest / std::sqrt(square));
  }
  return std::acos(worst) * 180 / std::numbers::pi;
}

}  // namespace

void noteOddities(const scan::Scan& scan, scan::ScanResult& result) {
  const auto& transforms = scan.header.transforms;
  if (!transforms.empty()) {
    const double degrees = obliqueness(transforms.front());
    if (degrees > kObliqueDegrees)
      result.notices.push_back(scan::print("is oblique, by %.0f degrees", degrees));
  }
  if (transforms.size() == 2) {
    const double mm = scan::largestDistance(transforms[0], transforms[1], scan.header.size);
    if (mm > kApartMm)
      result.notices.push_back(
          scan::print("qform and sform disagree by up to %.1f mm; outputs have both", mm));
  }
  if (!scan.header.orientation)
    result.flags.push_back({"no-affine", "the scan has no affine: left and right are unknown"});
}

}  // namespace tavrel::cohort
