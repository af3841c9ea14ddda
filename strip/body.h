// Telling a brain mask from one that has leaked out of the skull, or that misses half of the brain.
//
// The mask of the evolution's half resolution is thinned by the minimum filter, so that a leak
// hangs on it by thin threads. What a ball of 4 mm leaves of it, the body, is the brain without the
// leak, and a leak is what lies far from it. Where much of the mask is too thin for the ball, the
// evolution has found grey matter's folds but not what they are folded from.
#pragma once

#include <span>
#include <vector>

#include "resample.h"

namespace tavrel::strip {

/// The firm part of a mask of the half resolution.
class MaskBody {
 public:
  /// @param mask  1 inside, on `grid`
  MaskBody(std::vector<char> mask, const Grid& grid);

  /// Whether the mask's largest piece goes far beyond the body.
  bool leaks() const { return leaks_; }
  /// Whether the body is much less than the mask.
  bool thin() const { return thin_; }
  /// Whether a finished mask of the full resolution goes far beyond the body.
  /// @param size    voxels of `mask`
  /// @param before  padding voxels of the full resolution before the first voxel of each axis
  bool leaks(std::span<const char> mask, const Size& size, const Size& before) const;

 private:
  Grid grid_;
  std::vector<double> squaredDistance_;  // to the body; empty without a body
  bool leaks_ = false, thin_ = true;
};

}  // namespace tavrel::strip
