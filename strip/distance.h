// Exact Euclidean distances on a grid with a spacing of its own along each axis.
//
// Squared distances are found one axis after the other, each line as the lower envelope of
// parabolas, in time proportional to the number of voxels (Felzenszwalb and Huttenlocher, "Distance
// Transforms of Sampled Functions", Theory of Computing 8, 2012). Distances run between voxel
// centres, in the unit of the spacing; x varies fastest. What lies outside the grid counts as
// neither inside nor outside of a mask.
#pragma once

#include <span>
#include <vector>

#include "geometry.h"

namespace tavrel::strip {

/// For every voxel the squared distance to the nearest voxel whose mask value equals `target`
/// (0 or 1); infinite where there is none.
std::vector<double> squaredDistances(std::span<const char> mask, const Size& size,
                                     const Spacing& spacing, char target);

constexpr double square(double x) { return x * x; }

/// The largest squared distance (mm^2) that is still within `radius` mm. A distance equal to the
/// radius counts, whatever the rounding of its square and of the spacing, which headers hold in 32
/// bits (1.0000001 mm).
constexpr double squaredReach(double radius) { return square(radius) * (1 + 1e-6); }

/// Sets the voxels of `mask` that are within `radius` mm to `value`.
void setWithin(std::span<char> mask, std::span<const double> squaredDistances, double radius,
               char value);

}  // namespace tavrel::strip
