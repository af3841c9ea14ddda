// Scans at reduced size, for a page's viewer.
//
// Sides are divided by whole factors, so that every voxel of the preview stands for a block of
// voxels of the scan: what is drawn on the one can be carried over to the other exactly.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "scan/nifti/header.h"
#include "scan/picture.h"

namespace tavrel::report {

/// Voxels of the scan that one voxel of its preview spans along x, y and z, such that no side of
/// the preview has more than 128.
scan::Size previewFactors(const scan::Size& size);

/// Sizes of the preview; the last block of a side may be cut short by the border.
scan::Size previewSize(const scan::Size& size);

/// The scan at reduced size as the bytes of a NIfTI file, which whoever writes it compresses, to at
/// most 1.5 MB: block means in 8 bits, on a grid that lies where the scan lies. Values that are no
/// numbers do not count.
/// @param read    gives intensities of the scan
/// @param header  of the scan
std::vector<std::byte> previewFile(const scan::IntensityReader& read, const scan::Header& header);

/// The mask on the preview's grid: 1 where half of a block or more is inside.
std::vector<char> reducedMask(std::span<const char> mask, const scan::Size& size);

}  // namespace tavrel::report
