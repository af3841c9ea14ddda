// Bringing a volume to a grid of another spacing.
//
// Both grids have the same axes and the same centre. Values are interpolated linearly along one
// axis after the other; towards a coarser grid the triangle of the interpolation widens with the
// spacing, so that fine detail is averaged instead of sampled. Beyond the border the border voxel
// goes on.
#pragma once

#include <span>
#include <vector>

#include "geometry.h"

namespace tavrel::strip {

/// The isotropic grid of the given spacing that covers about the same space, at least one voxel
/// along each axis. @throws std::length_error if it has 2^31 voxels or more
Grid isotropicGrid(const Grid& grid, double mm);

/// The volume on another grid.
std::vector<double> resample(std::span<const double> values, const Grid& from, const Grid& to,
                             const Checkpoint& checkpoint = {});

/// A 0/1 mask on another grid: its signed distance to the surface is interpolated, and what is
/// negative is inside. Empty masks stay empty.
std::vector<char> resampleMask(std::span<const char> mask, const Grid& from, const Grid& to);

}  // namespace tavrel::strip
