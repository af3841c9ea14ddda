// The part of a scan that is worked on: anatomical order, voxels of about 1 mm, 12-bit intensities.
//
// Where the scan's voxels are near 1 mm they are taken as they are; small ones are joined by whole
// factors (mean), others interpolated linearly to cubes of 1 to 2 mm. The mask is brought back to
// the scan's own grid.
#pragma once

#include "head.h"
#include "level_image.h"

namespace tavrel::strip {

/// Areas in cm^2 of a mask at the border of the scan.
struct FieldOfViewCut {
  double below = 0, elsewhere = 0;
};

/// How the working grid lies in the scan.
class WorkGrid {
 public:
  /// @param mm  spacing of the working grid; absent: the scan's own or 1 mm, see above
  WorkGrid(const ScanView& scan, const Box& box, std::optional<double> mm = {});

  const Grid& grid() const { return work_; }
  /// Millimetres from the working grid's outer corner of a point told from that of the scan.
  std::array<double, 3> fromScan(const std::array<double, 3>& mm) const;
  /// The scan's voxels with 0 for `low` (and what is no number) and kFullScale for `high`.
  Intensities image(const ScanView& scan, double low, double high, int threads = 1) const;
  /// Where a mask on the working grid is cut off by the scan's border.
  FieldOfViewCut cut(const BitVolume& mask) const;
  /// The mask on the scan's grid as stored.
  std::vector<char> toScan(const ScanView& scan, const BitVolume& mask, int threads = 1) const;

 private:
  bool interpolated() const { return !(work_ == joined_); }

  Box box_;      // voxels of the scan, in anatomical order
  Size factor_;  // voxels joined along each axis
  Grid scan_;    // the whole scan, in anatomical order
  Grid joined_;  // of the box after joining
  Grid work_;
};

}  // namespace tavrel::strip
