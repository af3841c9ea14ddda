#include "writer.h"

#include <algorithm>

#include "datatype.h"

namespace tavrel::scan {
namespace {

constexpr std::byte kNoExtensions[4] = {};

/// Bytes of extensions, the extender included, with which the voxels begin at a multiple of 16, as
/// the standard wants it; a float holds all multiples of 16 that a scan may have.
std::size_t paddedExtensions(const Header& header, std::size_t bytes) {
  const std::size_t before = headerBytes(header).size();
  const std::size_t end = before + std::max(bytes, sizeof kNoExtensions);
  return (end + 15) / 16 * 16 - before;
}

PendingFile writeVolume(const std::filesystem::path& target, mode_t mode, const Header& header,
                        std::span<const std::byte> extensions, std::span<const std::byte> voxels) {
  PendingFile file(target, mode);
  file.write(headerBytes(header));
  file.write(extensions);
  file.write(voxels);
  file.close();
  return file;
}

}  // namespace

PendingFile writeBrain(const std::filesystem::path& target, const Scan& scan,
                       std::span<const char> mask) {
  auto extensions = scan.extensions;
  extensions.resize(paddedExtensions(scan.header, extensions.size()));
  auto voxels = scan.stored;
  const auto zero = storedZero(scan.header);
  for (std::size_t v = 0; v < mask.size(); ++v)
    if (!mask[v])
      std::copy(zero.begin(), zero.end(), voxels.begin() + std::ptrdiff_t(v * zero.size()));
  return writeVolume(target, scan.permissions, oneVolumeHeader(scan.header, extensions.size()),
                     extensions, voxels);
}

PendingFile writeMask(const std::filesystem::path& target, const Scan& scan,
                      std::span<const char> mask) {
  return writeVolume(target, scan.permissions, derivedHeader(scan.header, NIFTI_TYPE_UINT8, 0, 1),
                     kNoExtensions, std::as_bytes(mask));
}

PendingFile writeFloats(const std::filesystem::path& target, const Scan& scan,
                        std::span<const float> values) {
  std::vector<std::byte> bytes(values.size_bytes());
  for (std::size_t v = 0; v < values.size(); ++v)
    storeVoxel(values[v], bytes.data() + v * sizeof(float), scan.header.swapped);
  return writeVolume(target, scan.permissions, derivedHeader(scan.header, NIFTI_TYPE_FLOAT32, 0, 0),
                     kNoExtensions, bytes);
}

}  // namespace tavrel::scan
