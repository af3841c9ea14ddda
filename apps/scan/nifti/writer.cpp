#include "writer.h"

#include <algorithm>

#include "datatype.h"

namespace tavrel::scan {
namespace {

constexpr std::byte kNoExtensions[4] = {};

PendingFile writeVolume(const std::filesystem::path& target, const Header& header,
                        std::span<const std::byte> extensions, std::span<const std::byte> voxels) {
  PendingFile file(target);
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
  if (extensions.size() < sizeof kNoExtensions) extensions.resize(sizeof kNoExtensions);
  auto voxels = scan.stored;
  const auto zero = storedZero(scan.header);
  for (std::size_t v = 0; v < mask.size(); ++v)
    if (!mask[v])
      std::copy(zero.begin(), zero.end(), voxels.begin() + std::ptrdiff_t(v * zero.size()));
  return writeVolume(target, oneVolumeHeader(scan.header, extensions.size()), extensions, voxels);
}

PendingFile writeMask(const std::filesystem::path& target, const Header& scan,
                      std::span<const char> mask) {
  return writeVolume(target, derivedHeader(scan, NIFTI_TYPE_UINT8, 0, 1), kNoExtensions,
                     std::as_bytes(mask));
}

PendingFile writeFloats(const std::filesystem::path& target, const Header& scan,
                        std::span<const float> values) {
  std::vector<std::byte> bytes(values.size_bytes());
  for (std::size_t v = 0; v < values.size(); ++v)
    storeVoxel(values[v], bytes.data() + v * sizeof(float), scan.swapped);
  return writeVolume(target, derivedHeader(scan, NIFTI_TYPE_FLOAT32, 0, 0), kNoExtensions, bytes);
}

}  // namespace tavrel::scan
