// The fat of the orbits, which a mask takes in where the bone above them is thin or blurred.
//
// Fat is brighter than white matter. How bright that is differs from place to place (shading), so
// voxels near the mask's surface are compared with the mean of the white matter in their
// surroundings, carried on to them along the trend that white matter has over the whole brain (at
// the brain's edge there is white matter on one side alone), and only in front of and below the
// middle of the head, where the orbits lie: elsewhere it is cortex near a coil that is brightest.
#pragma once

#include "level_image.h"

namespace tavrel::strip {

/// The voxels of a mask that are taken for fat of the orbits.
/// @param image   of the mask's grid, after the minimum filter
/// @param mask    of a brain and what leaks from it
/// @param centre  of the upper head, in mm from the grid's outer corner in anatomical order (x to
///                the left, y to the front, z to the top)
BitVolume orbitFat(const LevelImage& image, const BitVolume& mask,
                   const std::array<double, 3>& centre);

}  // namespace tavrel::strip
