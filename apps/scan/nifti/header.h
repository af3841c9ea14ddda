// The header of a NIfTI-1 or NIfTI-2 file: what it says, checked before anything is allocated.
//
// The fields are kept as they stand in the file (in the machine's byte order while in memory), so
// that a header derived from them differs in nothing but what has to differ. Sizes are in voxels, x
// fastest; spacings are in millimetres whatever unit the file uses.
#pragma once

#include <nifti/nifti1.h>
#include <nifti/nifti2.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "strip/geometry.h"

namespace tavrel::scan {

using namespace strip;  // scans in memory: sizes, spacings, masks

/// A file that cannot be used, with the reason in one line (without the file's name).
class ScanError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// From voxel indices to the patient's left-to-right, posterior-to-anterior and
/// inferior-to-superior millimetres, one row each; the fourth column is the place of the first
/// voxel.
using Affine = std::array<std::array<double, 4>, 3>;

/// A parsed header.
struct Header {
  std::variant<nifti_1_header, nifti_2_header> fields;  ///< in the machine's byte order
  bool swapped = false;                                 ///< the file has the other byte order
  bool pair = false;                                    ///< the voxels are in a file of their own
  Size size = {};                                       ///< voxels along x, y, z
  std::int64_t volumes = 1;                             ///< product of the further dimensions
  int datatype = 0;  ///< NIfTI datatype code, one of the real ones
  int bytesPerVoxel = 0;
  std::int64_t dataOffset = 0;  ///< where the voxels begin in their file
  double slope = 1;        ///< real value = slope * stored value + inter; 1 and 0 where the file
  double inter = 0;        ///< sets no scaling
  Spacing spacing = {};    ///< millimetres, positive
  std::string distortion;  ///< why lengths and volumes cannot be relied on, in one line; or empty
  std::vector<Affine> transforms;          ///< sform and qform, those that are set and usable
  std::optional<Orientation> orientation;  ///< absent where neither sform nor qform is set
  std::vector<std::string> notices;        ///< oddities that were worked around, one line each
};

/// The largest distance in mm between the places that two transforms give to one corner of a
/// volume.
double largestDistance(const Affine& a, const Affine& b, const Size& size);

/// Bytes that are enough to tell the version and, with headerSize(), the size of a header.
inline constexpr std::size_t kHeaderStart = 4;

/// Size of the header that starts with these bytes: 348 or 540.
/// @throws ScanError if no NIfTI header starts so
std::size_t headerSize(std::span<const std::byte> start);

/// Parses a whole header and checks everything that the rest of the command relies on.
/// @throws ScanError with the reason
Header parseHeader(std::span<const std::byte> bytes);

/// The header as bytes of a file, in the file's byte order.
std::vector<std::byte> headerBytes(const Header& header);

/// Header of a single file holding one volume of `header`'s grid, followed by `extensionBytes`
/// bytes (the four-byte extender included) before the voxels.
/// @throws ScanError if these are too many for the field that says where the voxels begin
Header oneVolumeHeader(const Header& header, std::size_t extensionBytes);

/// The same with another datatype, no scaling, no intent and the given display range.
Header derivedHeader(const Header& header, int datatype, double displayMin, double displayMax);

}  // namespace tavrel::scan
