// The picture to check a mask with: cuts through the head with the mask's contour.
//
// Three rows of seven cuts, axial, coronal and sagittal, in radiological convention: the patient's
// right is at the left of axial and coronal cuts, the front is up in axial cuts and at the left of
// sagittal ones. All cuts are drawn at one scale in millimetres.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "nifti/header.h"

namespace tavrel::scan {

/// What the picture shows.
struct PictureInput {
  std::span<const double> values;  ///< intensities, x fastest
  std::span<const char> mask;      ///< 1 inside
  Size size;
  Spacing spacing;
  std::optional<Orientation> orientation;  ///< absent: cuts as stored, without side marks
  std::string title;                       ///< one line at the top, say the file's name
  std::string caption;                     ///< one line below it, say volume and settings
};

/// The picture as the bytes of a PNG file.
std::vector<std::byte> drawPicture(const PictureInput& input);

/// The middle cut of each row beside one another, small and without text, as a PNG file.
std::vector<std::byte> drawThumbnail(const PictureInput& input);

/// The intensities between which a fraction of the finite voxels lies, from `low` to `high`
/// (0 to 1). Equal bounds for images without contrast.
struct Window {
  double low, high;
};
Window intensityWindow(std::span<const double> values, double low, double high);

}  // namespace tavrel::scan
