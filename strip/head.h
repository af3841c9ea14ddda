// Where the head is in a scan, where in it to begin, and which intensities it holds.
//
// Works on means of blocks of some 4 mm, in which noise has fallen to an eighth. What is brighter
// than the air around it is the head (Otsu, "A Threshold Selection Method from Gray-Level
// Histograms", IEEE Trans. Syst. Man Cybern. 9, 1979). A head has its brain in its upper part, so
// that the neck, empty space and the bed below it are left out by length, not by share of the
// volume.
#pragma once

#include <optional>

#include "bit_volume.h"
#include "scan_view.h"

namespace tavrel::strip {

/// A head as it was found; lengths in mm in anatomical order from the scan's outer corner.
struct Head {
  Grid blocks;                   ///< grid of the block means
  BitVolume mask;                ///< the head on that grid, closed and filled
  std::array<double, 3> centre;  ///< of gravity of the head's upper part
  Box box;                       ///< voxels of the scan, in anatomical order, to work on
  float low = 0, high = 0;       ///< intensities of air (or the darkest) and bright tissue
  double otherPiece = 0;  ///< size of the largest bright object beside the head over the head's

  /// Of the mask, shoulders included.
  double widthMm() const { return boundingBox(mask).size()[0] * blocks.spacing[0]; }
};

/// The largest box in which findHead() may find work, in voxels of the scan in anatomical order.
Box largestWorkBox(const ScanView& scan);

/// Finds the head, or nothing where there is none.
std::optional<Head> findHead(const ScanView& scan, int threads = 1);

}  // namespace tavrel::strip
