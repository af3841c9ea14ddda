#include "header.h"

#include <nifti/nifti2_io.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <type_traits>

#include "scan/format.h"
#include "voxPipeline.h"

namespace tavrel::scan {
namespace {

using NiftiImage = std::unique_ptr<nifti_image, void (*)(nifti_image*)>;

constexpr int kMostDimensions = 7;

template <class Fields>
constexpr int kVersion = std::is_same_v<Fields, nifti_1_header> ? 1 : 2;

/// A magic holds the version and tells whether voxels follow in the same file.
template <class Fields>
bool isPair(const Fields& fields) {
  const char version = '0' + kVersion<Fields>;
  if (fields.magic[0] == 'n' && fields.magic[2] == version && fields.magic[3] == '\0') {
    if (fields.magic[1] == '+') return false;
    if (fields.magic[1] == 'i') return true;
  }
  throw ScanError(kVersion<Fields> == 1 && fields.magic[0] == '\0'
                      ? "is an ANALYZE 7.5 file, which does not say left from right; convert it to "
                        "NIfTI first"
                      : "is not a NIfTI file (wrong magic)");
}

/// Three sizes and the number of volumes, from the header's dimensions.
template <class Fields>
void readSizes(const Fields& fields, Header& header) {
  const auto dimensions = fields.dim[0];
  if (dimensions < 1 || dimensions > kMostDimensions)
    throw ScanError(text("has an impossible number of dimensions, ", dimensions));
  if (dimensions < 3)
    throw ScanError(text("has ", dimensions, dimensions == 1 ? " dimension" : " dimensions",
                         "; a head needs three"));
  for (int d = 1; d <= dimensions; ++d) {
    const std::int64_t n = fields.dim[d];
    if (n < 1) throw ScanError(text("has an impossible size, ", n, " along dimension ", d));
    if (d <= 3) continue;
    if (n > std::numeric_limits<std::int64_t>::max() / 4096 / Pyramid::mostVoxels / header.volumes)
      throw ScanError("has an absurd number of volumes");
    header.volumes *= n;
  }
  if (!Pyramid::fits(fields.dim[1], fields.dim[2], fields.dim[3]))
    throw ScanError("has more voxels than fit the 32-bit sizes of the method");
  for (int d = 0; d < 3; ++d) header.size[d] = static_cast<int>(fields.dim[d + 1]);
}

template <class Fields>
void readDatatype(const Fields& fields, Header& header) {
  switch (fields.datatype) {
    case NIFTI_TYPE_UINT8:
    case NIFTI_TYPE_INT8:
    case NIFTI_TYPE_INT16:
    case NIFTI_TYPE_UINT16:
    case NIFTI_TYPE_INT32:
    case NIFTI_TYPE_UINT32:
    case NIFTI_TYPE_INT64:
    case NIFTI_TYPE_UINT64:
    case NIFTI_TYPE_FLOAT32:
    case NIFTI_TYPE_FLOAT64:
    case NIFTI_TYPE_FLOAT128:
      break;
    default:
      throw ScanError(text("holds voxels of type ", nifti_datatype_string(fields.datatype),
                           " (code ", fields.datatype, "), not real numbers"));
  }
  int swapSize = 0;
  header.datatype = fields.datatype;
  nifti_datatype_sizes(fields.datatype, &header.bytesPerVoxel, &swapSize);
}

template <class Fields>
void readOffset(const Fields& fields, Header& header) {
  const auto offset = static_cast<double>(fields.vox_offset);
  const double first = header.pair ? 0.0 : double(sizeof(Fields));
  // Files are found with offset 0 where the standard asks for the size of the header.
  if (offset == 0) {
    header.dataOffset = header.pair ? 0 : std::int64_t(sizeof(Fields)) + 4;
    return;
  }
  if (!(offset >= first && offset < 9e15 && offset == std::floor(offset)))
    throw ScanError(text("has an impossible data offset, ", offset));
  header.dataOffset = static_cast<std::int64_t>(offset);
}

template <class Fields>
void readScaling(const Fields& fields, Header& header) {
  const double slope = fields.scl_slope, inter = fields.scl_inter;
  if (!std::isfinite(slope) || slope == 0) return;
  header.slope = slope;
  header.inter = std::isfinite(inter) ? inter : 0;
}

bool possibleSpacing(double mm) { return std::isfinite(mm) && mm > 1e-6 && mm < 1e6; }

using Directions = std::array<std::array<double, 3>, 3>;  // steps in the patient along voxel axes

double length(const std::array<double, 3>& v) { return std::hypot(v[0], v[1], v[2]); }

/// The three steps of a transform, in millimetres.
Directions directionsOf(const nifti_dmat44& matrix, double unitMm) {
  Directions steps;
  for (int axis = 0; axis < 3; ++axis)
    for (int row = 0; row < 3; ++row) steps[axis][row] = matrix.m[row][axis] * unitMm;
  return steps;
}

/// Voxel sizes from the header's field for them, else from the sform, else 1 mm.
template <class Fields>
void readSpacing(const Fields& fields, const Directions* sform, double unitMm, Header& header) {
  for (int d = 0; d < 3; ++d) {
    const double mm = std::abs(double(fields.pixdim[d + 1])) * unitMm;
    header.spacing[d] = mm;
    if (possibleSpacing(mm)) continue;
    const bool inSform = sform && possibleSpacing(length((*sform)[d]));
    header.spacing[d] = inSform ? length((*sform)[d]) : 1;
    header.notices.push_back(text("voxel size along axis ", d + 1, " is ", fields.pixdim[d + 1],
                                  " in the header; taken as ", header.spacing[d], " mm",
                                  inSform ? " from the sform" : ""));
    if (!inSform) header.distortion = text("the voxel size along axis ", d + 1, " is not known");
  }
}

/// Tells voxels of another size in the sform than in the header's field for it.
void compareSpacing(const Directions& sform, Header& header) {
  constexpr double kMostApart = 1.3;
  for (int d = 0; d < 3; ++d) {
    const double mm = length(sform[d]);
    if (mm > kMostApart * header.spacing[d] || mm * kMostApart < header.spacing[d])
      header.distortion = text("voxel size along axis ", d + 1, " is taken as ", header.spacing[d],
                               " mm, but is ", mm, " mm in the sform");
  }
}

/// Volume of a voxel with these sides.
double volumeOf(const Directions& d) {
  return std::abs(d[0][0] * (d[1][1] * d[2][2] - d[1][2] * d[2][1]) -
                  d[0][1] * (d[1][0] * d[2][2] - d[1][2] * d[2][0]) +
                  d[0][2] * (d[1][0] * d[2][1] - d[1][1] * d[2][0]));
}

/// Tells axes that are far from right angles, so that voxels are smaller than their sides say.
void checkAngles(const Directions& d, Header& header) {
  constexpr double kLeastVolume = 0.97;  // of a box with these sides: about 14 degrees
  const double volume = volumeOf(d), box = length(d[0]) * length(d[1]) * length(d[2]);
  if (volume < kLeastVolume * box)
    header.distortion =
        text("the axes of the voxels are not at right angles (a voxel has ",
             std::lround(100 * volume / box), " % of the volume of a box with its sides)");
}

/// What the reference library makes of the spatial transforms.
void readOrientation(const nifti_dmat44& matrix, Header& header) {
  int codes[3] = {};
  nifti_dmat44_to_orientation(matrix, &codes[0], &codes[1], &codes[2]);
  Orientation orientation = {};
  int found = 0;
  for (int axis = 0; axis < 3; ++axis) {
    if (codes[axis] < NIFTI_L2R || codes[axis] > NIFTI_S2I) return;
    const int patient = (codes[axis] - NIFTI_L2R) / 2;  // codes come in pairs, one pair an axis
    const bool towardsPositive = (codes[axis] - NIFTI_L2R) % 2 == 0;
    orientation.axis[patient] = axis;
    // NIfTI's first axis grows to the right.
    orientation.ascending[patient] = patient == 0 ? !towardsPositive : towardsPositive;
    found |= 1 << patient;
  }
  if (found == 7) header.orientation = orientation;
}

nifti_image* convert(const nifti_1_header& fields) {
  return nifti_convert_n1hdr2nim(fields, nullptr);
}
nifti_image* convert(const nifti_2_header& fields) {
  return nifti_convert_n2hdr2nim(fields, nullptr);
}

/// Whether a transform leads anywhere: finite, and with some volume.
bool isUsable(const nifti_dmat44& matrix) {
  for (const auto& row : matrix.m)
    for (const double value : row)
      if (!std::isfinite(value)) return false;
  return volumeOf(directionsOf(matrix, 1)) > 0;
}

Affine affineOf(const nifti_dmat44& matrix, double unitMm) {
  Affine affine;
  for (int row = 0; row < 3; ++row)
    for (int column = 0; column < 4; ++column) affine[row][column] = matrix.m[row][column] * unitMm;
  return affine;
}

/// Everything that tells where the voxels lie.
template <class Fields>
void readGeometry(const Fields& fields, Header& header) {
  const NiftiImage image(convert(fields), nifti_image_free);
  if (!image) throw ScanError("has a header that the NIfTI library refuses");
  const int unit = XYZT_TO_SPACE(fields.xyzt_units);
  const double unitMm = unit == NIFTI_UNITS_METER ? 1000 : unit == NIFTI_UNITS_MICRON ? 0.001 : 1;
  const bool sform = image->sform_code > 0 && isUsable(image->sto_xyz);
  const bool qform = image->qform_code > 0 && isUsable(image->qto_xyz);
  if (image->sform_code > 0 && !sform)
    header.notices.push_back("the sform in the header is no transform; left aside");
  if (sform) header.transforms.push_back(affineOf(image->sto_xyz, unitMm));
  if (qform) header.transforms.push_back(affineOf(image->qto_xyz, unitMm));
  const Directions directions = directionsOf(sform ? image->sto_xyz : image->qto_xyz, unitMm);
  readSpacing(fields, sform ? &directions : nullptr, unitMm, header);
  if (!sform && !qform) return;
  readOrientation(sform ? image->sto_xyz : image->qto_xyz, header);
  // An sform to another head's space stretches rightly; the qform tells how the scan was made.
  if (!sform || (qform && image->sform_code != NIFTI_XFORM_SCANNER_ANAT)) return;
  compareSpacing(directions, header);
  checkAngles(directions, header);
}

template <class Fields>
Header parse(std::span<const std::byte> bytes) {
  Header header;
  Fields fields;
  std::memcpy(&fields, bytes.data(), sizeof fields);
  header.swapped = fields.sizeof_hdr != int(sizeof fields);
  if (header.swapped) swap_nifti_header(&fields, kVersion<Fields>);
  header.pair = isPair(fields);
  readSizes(fields, header);
  readDatatype(fields, header);
  readOffset(fields, header);
  readScaling(fields, header);
  readGeometry(fields, header);
  header.fields = fields;
  return header;
}

template <class Fields>
void setMagic(Fields& fields) {
  fields.magic[1] = '+';
}

}  // namespace

std::size_t headerSize(std::span<const std::byte> start) {
  std::int32_t size = 0;
  if (start.size() >= kHeaderStart) std::memcpy(&size, start.data(), sizeof size);
  for (const std::size_t known : {sizeof(nifti_1_header), sizeof(nifti_2_header)})
    if (size == std::int32_t(known) || size == std::int32_t(__builtin_bswap32(known))) return known;
  throw ScanError("is not a NIfTI file");
}

Header parseHeader(std::span<const std::byte> bytes) {
  const std::size_t size = headerSize(bytes);
  if (bytes.size() < size) throw ScanError("is truncated inside the header");
  nifti_set_debug_level(0);  // the library writes nothing of its own
  return size == sizeof(nifti_1_header) ? parse<nifti_1_header>(bytes)
                                        : parse<nifti_2_header>(bytes);
}

std::vector<std::byte> headerBytes(const Header& header) {
  return std::visit(
      [&](auto fields) {
        if (header.swapped) swap_nifti_header(&fields, kVersion<decltype(fields)>);
        const auto* first = reinterpret_cast<const std::byte*>(&fields);
        return std::vector<std::byte>(first, first + sizeof fields);
      },
      header.fields);
}

Header oneVolumeHeader(const Header& header, std::size_t extensionBytes) {
  Header result = header;
  result.pair = false;
  std::visit(
      [&](auto& fields) {
        setMagic(fields);
        result.dataOffset = std::int64_t(sizeof fields + extensionBytes);
        fields.vox_offset = static_cast<decltype(fields.vox_offset)>(result.dataOffset);
        if (static_cast<std::int64_t>(fields.vox_offset) != result.dataOffset)
          throw ScanError("carries more bytes of extensions than its header can tell");
        if (header.volumes == 1) return;
        fields.dim[0] = 3;
        for (int d = 4; d <= kMostDimensions; ++d) fields.dim[d] = 1;
      },
      result.fields);
  result.volumes = 1;
  return result;
}

Header derivedHeader(const Header& header, int datatype, double displayMin, double displayMax) {
  Header result = oneVolumeHeader(header, 4);
  int swapSize = 0;
  result.datatype = datatype;
  nifti_datatype_sizes(datatype, &result.bytesPerVoxel, &swapSize);
  result.slope = 1;
  result.inter = 0;
  std::visit(
      [&](auto& fields) {
        fields.datatype = static_cast<short>(datatype);
        fields.bitpix = static_cast<short>(8 * result.bytesPerVoxel);
        fields.scl_slope = 1;
        fields.scl_inter = 0;
        fields.cal_min = static_cast<decltype(fields.cal_min)>(displayMin);
        fields.cal_max = static_cast<decltype(fields.cal_max)>(displayMax);
        fields.intent_code = NIFTI_INTENT_NONE;
        std::memset(fields.intent_name, 0, sizeof fields.intent_name);
      },
      result.fields);
  return result;
}

double largestDistance(const Affine& a, const Affine& b, const Size& size) {
  double largest = 0;
  for (int corner = 0; corner < 8; ++corner) {
    std::array<double, 3> between = {};
    for (int row = 0; row < 3; ++row) {
      between[row] = a[row][3] - b[row][3];
      for (int d = 0; d < 3; ++d)
        if (corner >> d & 1) between[row] += (a[row][d] - b[row][d]) * (size[d] - 1);
    }
    largest = std::max(largest, std::hypot(between[0], between[1], between[2]));
  }
  return largest;
}

}  // namespace tavrel::scan
