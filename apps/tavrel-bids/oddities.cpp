#include "oddities.h"

#include <nifti/nifti2_io.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <numbers>

#include "scan/format.h"

namespace tavrel::cohort {
namespace {

using scan::Header;

constexpr double kObliqueDegrees = 5;
constexpr double kApartMm = 1;

using Image = std::unique_ptr<nifti_image, void (*)(nifti_image*)>;

Image convert(const nifti_1_header& fields) {
  return {nifti_convert_n1hdr2nim(fields, nullptr), nifti_image_free};
}
Image convert(const nifti_2_header& fields) {
  return {nifti_convert_n2hdr2nim(fields, nullptr), nifti_image_free};
}

/// Degrees between the axis of the volume that is furthest from any of the head's, and that one.
double obliqueness(const nifti_dmat44& matrix) {
  double worst = 1;
  for (int column = 0; column < 3; ++column) {
    double square = 0, largest = 0;
    for (int row = 0; row < 3; ++row) {
      square += matrix.m[row][column] * matrix.m[row][column];
      largest = std::max(largest, std::abs(matrix.m[row][column]));
    }
    if (square > 0) worst = std::min(worst, largest / std::sqrt(square));
  }
  return std::acos(worst) * 180 / std::numbers::pi;
}

/// The largest distance between the places that two transforms give to one corner.
double distance(const nifti_dmat44& a, const nifti_dmat44& b, const scan::Size& size) {
  double largest = 0;
  for (int corner = 0; corner < 8; ++corner) {
    double square = 0;
    for (int row = 0; row < 3; ++row) {
      double apart = a.m[row][3] - b.m[row][3];
      for (int d = 0; d < 3; ++d)
        if (corner >> d & 1) apart += (a.m[row][d] - b.m[row][d]) * (size[std::size_t(d)] - 1);
      square += apart * apart;
    }
    largest = std::max(largest, std::sqrt(square));
  }
  return largest;
}

}  // namespace

void noteOddities(const scan::Scan& scan, scan::ScanResult& result) {
  const Image image =
      std::visit([](const auto& fields) { return convert(fields); }, scan.header.fields);
  if (image && (image->sform_code > 0 || image->qform_code > 0)) {
    const double degrees = obliqueness(image->sform_code > 0 ? image->sto_xyz : image->qto_xyz);
    if (degrees > kObliqueDegrees)
      result.notices.push_back(scan::print("is oblique, by %.0f degrees", degrees));
  }
  if (image && image->sform_code > 0 && image->qform_code > 0) {
    const double mm = distance(image->sto_xyz, image->qto_xyz, scan.header.size);
    if (mm > kApartMm)
      result.notices.push_back(
          scan::print("qform and sform disagree by up to %.1f mm; outputs have both", mm));
  }
  if (!scan.header.orientation)
    result.flags.push_back({"no-affine", "the scan has no affine: left and right are unknown"});
}

}  // namespace tavrel::cohort
