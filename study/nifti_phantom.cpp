// Writes a head phantom as NIfTI, for the demonstration:
//   nifti_phantom X Y Z SCAN.nii.gz [BRAIN.nii.gz]
// signed 16-bit voxels, axes to the patient's left, front and top; BRAIN is the phantom's own
// brain.
#include <nifti/nifti2_io.h>

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "phantom.h"

namespace {

template <class T, class Voxels>
void write(const std::string& path, const std::array<int, 3>& size, double spacing, int datatype,
           const Voxels& voxels, double scale) {
  const std::int64_t dims[8] = {3, size[0], size[1], size[2], 1, 1, 1, 1};
  const std::unique_ptr<nifti_image, void (*)(nifti_image*)> image(
      nifti_make_new_nim(dims, datatype, 1), nifti_image_free);
  std::transform(voxels.begin(), voxels.end(), static_cast<T*>(image->data),
                 [&](double v) { return T(std::lround(std::max(0.0, v) * scale)); });
  nifti_set_filenames(image.get(), path.c_str(), 0, 0);
  image->pixdim[1] = image->pixdim[2] = image->pixdim[3] = spacing;
  image->dx = image->dy = image->dz = spacing;
  image->xyz_units = NIFTI_UNITS_MM;
  image->sform_code = NIFTI_XFORM_SCANNER_ANAT;
  const auto start = [&](int d) { return -(size[std::size_t(d)] - 1) / 2.0 * spacing; };
  image->sto_xyz = {{{-spacing, 0, 0, -start(0)},
                     {0, spacing, 0, start(1)},
                     {0, 0, spacing, start(2)},
                     {0, 0, 0, 1}}};
  nifti_image_write(image.get());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::cerr << "usage: nifti_phantom X Y Z SCAN.nii.gz [BRAIN.nii.gz]\n";
    return 1;
  }
  const std::array<int, 3> size = {std::atoi(argv[1]), std::atoi(argv[2]), std::atoi(argv[3])};
  if (*std::min_element(size.begin(), size.end()) < 1) return 1;
  const tavrel::Phantom phantom = tavrel::makePhantom(size[0], size[1], size[2]);
  // The phantom's field of view is 164 x 200 x 184 mm.
  const double spacing = std::max({164.0 / size[0], 200.0 / size[1], 184.0 / size[2]});
  write<std::int16_t>(argv[4], size, spacing, NIFTI_TYPE_INT16, phantom.image, 1000);
  if (argc > 5) write<std::uint8_t>(argv[5], size, spacing, NIFTI_TYPE_UINT8, phantom.brain, 1);
}
