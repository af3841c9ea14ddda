#include "preview.h"

#include <nifti/nifti2_io.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "compress.h"
#include "scan/picture.h"

namespace tavrel::report {
namespace {

using namespace scan;

constexpr int kLongestSide = 128;
constexpr std::size_t kMostBytes = 1'500'000;
constexpr double kLow = 0.005, kHigh = 0.995;  // fractions of voxels that black and white cut off

/// Calls visit(block, first voxel of the run, length of the run) for the voxels of every block, a
/// row at a time.
template <class Visit>
void forEachRun(const Size& size, Visit visit) {
  const Size f = previewFactors(size), n = previewSize(size);
  for (int z = 0; z < size[2]; ++z)
    for (int y = 0; y < size[1]; ++y)
      for (int x = 0; x < n[0]; ++x) {
        const std::size_t row = (std::size_t(z) * size[1] + y) * size[0];
        const std::size_t block = (std::size_t(z / f[2]) * n[1] + y / f[1]) * n[0] + x;
        visit(block, row + std::size_t(x) * f[0], std::min(f[0], size[0] - x * f[0]));
      }
}

/// Mean of the finite values of every block; NaN where there is none.
std::vector<double> blockMeans(const scan::IntensityReader& read, const Size& size) {
  std::vector<double> sums(voxelCount(previewSize(size))), counts(sums.size());
  std::vector<float> row(static_cast<std::size_t>(size[0]));
  forEachRun(size, [&](std::size_t block, std::size_t first, int length) {
    const std::size_t x = first % row.size();
    if (x == 0) read(first, row);
    for (const double value : std::span(row).subspan(x, std::size_t(length)))
      if (std::isfinite(value)) sums[block] += value, counts[block] += 1;
  });
  for (std::size_t b = 0; b < sums.size(); ++b) sums[b] /= counts[b];
  return sums;
}

std::vector<std::uint8_t> eightBits(std::span<const double> means) {
  const Window window = intensityWindow(scan::readerOf(means), means.size(), kLow, kHigh);
  std::vector<std::uint8_t> result;
  result.reserve(means.size());
  for (const double mean : means) {
    const double scaled = window.high > window.low
                              ? (mean - window.low) / (window.high - window.low)
                              : double(mean > window.low);
    result.push_back(
        std::isfinite(mean) ? std::uint8_t(std::lround(255 * std::clamp(scaled, 0.0, 1.0))) : 0);
  }
  return result;
}

/// Moves the origin of a voxel grid to the centre of its first block and lengthens the steps.
template <class Fields>
void coarsenTransforms(Fields& fields, const Size& factors) {
  const auto rows = {fields.srow_x, fields.srow_y, fields.srow_z};
  for (auto* row : rows)
    for (int d = 0; d < 3; ++d) {
      row[3] += row[d] * static_cast<decltype(row[d] + 0)>((factors[d] - 1) / 2.0);
      row[d] *= static_cast<decltype(row[d] + 0)>(factors[d]);
    }
  const auto turn = nifti_quatern_to_dmat44(fields.quatern_b, fields.quatern_c, fields.quatern_d, 0,
                                            0, 0, 1, 1, 1, fields.pixdim[0]);
  const auto offsets = {&fields.qoffset_x, &fields.qoffset_y, &fields.qoffset_z};
  int r = 0;
  for (auto* offset : offsets) {
    double moved = *offset;
    for (int d = 0; d < 3; ++d)
      moved += turn.m[r][d] * std::abs(double(fields.pixdim[d + 1])) * (factors[d] - 1) / 2.0;
    *offset = static_cast<std::remove_reference_t<decltype(*offset)>>(moved);
    ++r;
  }
}

Header previewHeader(const Header& header) {
  Header result = derivedHeader(header, NIFTI_TYPE_UINT8, 0, 255);
  const Size factors = previewFactors(header.size);
  result.size = previewSize(header.size);
  std::visit(
      [&](auto& fields) {
        coarsenTransforms(fields, factors);
        for (int d = 0; d < 3; ++d) {
          fields.dim[d + 1] = static_cast<decltype(fields.dim[0] + 0)>(result.size[d]);
          fields.pixdim[d + 1] *= static_cast<decltype(fields.pixdim[0] + 0)>(factors[d]);
        }
      },
      result.fields);
  return result;
}

}  // namespace

Size previewFactors(const Size& size) {
  Size factors;
  for (int d = 0; d < 3; ++d) factors[d] = (size[d] + kLongestSide - 1) / kLongestSide;
  return factors;
}

Size previewSize(const Size& size) {
  const Size factors = previewFactors(size);
  Size result;
  for (int d = 0; d < 3; ++d) result[d] = (size[d] + factors[d] - 1) / factors[d];
  return result;
}

std::vector<std::byte> previewFile(const scan::IntensityReader& read, const Header& header) {
  std::vector<std::byte> file = headerBytes(previewHeader(header));
  file.resize(file.size() + 4);  // no extensions
  const std::size_t start = file.size();
  const auto voxels = eightBits(blockMeans(read, header.size));
  const auto bytes = std::as_bytes(std::span(voxels));
  file.insert(file.end(), bytes.begin(), bytes.end());
  // Noise does not compress: fewer grey levels until the file is small enough.
  for (unsigned levels = 0xff;; levels = levels << 1 & 0xff) {
    for (std::size_t v = 0; v < voxels.size(); ++v) file[start + v] = std::byte(voxels[v] & levels);
    if (gzip(file).size() <= kMostBytes) return file;
  }
}

std::vector<char> reducedMask(std::span<const char> mask, const Size& size) {
  std::vector<int> balance(voxelCount(previewSize(size)));  // voxels inside minus voxels outside
  forEachRun(size, [&](std::size_t block, std::size_t first, int length) {
    for (const char inside : mask.subspan(first, std::size_t(length)))
      balance[block] += inside ? 1 : -1;
  });
  std::vector<char> result(balance.size());
  std::transform(balance.begin(), balance.end(), result.begin(),
                 [](int b) { return char(b >= 0); });
  return result;
}

}  // namespace tavrel::report
