// Dilation, erosion and connected pieces of bit masks.
//
// Structuring elements are balls with a radius in millimetres between voxel centres, on grids with
// a spacing of its own along each axis. A ball is a bundle of rows: for each offset (dy, dz) a run
// of voxels along x. So dilation joins shifted copies of rows that were widened along x before, 64
// voxels at a time (van den Boomgaard and van Balen, "Methods for Fast Morphological Image
// Transforms Using Bitmapped Binary Images", CVGIP: Graphical Models and Image Processing 54,
// 1992). What lies beyond the volume counts as neither 0 nor 1.
#pragma once

#include "bit_volume.h"

namespace tavrel::strip {

/// Sets every voxel within `mm` of a 1. A distance equal to the radius counts, whatever the
/// rounding of spacings that headers hold in 32 bits. In place.
void dilate(BitVolume& mask, const Spacing& spacing, double mm);
/// Clears every voxel within `mm` of a 0. In place.
void erode(BitVolume& mask, const Spacing& spacing, double mm);
/// Keeps the largest face-connected piece, the first one of equals. In place.
/// @return the voxels of the second largest
std::size_t keepLargest(BitVolume& mask);
/// Fills background that faces do not connect to the border of the volume. In place.
void fillHoles(BitVolume& mask);

}  // namespace tavrel::strip
