// The picture to check a mask with: cuts through the head with the mask's contour.
//
// Three rows of seven cuts, axial, coronal and sagittal, in radiological convention: the patient's
// right is at the left of axial and coronal cuts, the front is up in axial cuts and at the left of
// sagittal ones. All cuts are drawn at one scale in millimetres.
#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "nifti/header.h"

namespace tavrel::scan {

/// Fills the span with the intensities of a volume, x fastest, from index `first` on.
using IntensityReader = std::function<void(std::size_t first, std::span<float> values)>;

/// Reads from a volume in memory that outlives the reader.
IntensityReader readerOf(std::span<const double> volume);

/// What the picture shows.
struct PictureInput {
  IntensityReader read;        ///< is called for what lies on a cut, and for a sample
  std::span<const char> mask;  ///< 1 inside
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

/// Intensities between which a picture's greys lie; equal for images without contrast.
struct Window {
  double low, high;
};

/// The percentiles of the finite voxels at `low` and `high` (fractions of 1, `low` the smaller), of
/// a sample where there are many.
Window intensityWindow(const IntensityReader& read, std::size_t voxels, double low, double high);

}  // namespace tavrel::scan
