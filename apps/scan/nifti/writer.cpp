#include "writer.h"

#include <algorithm>
#include <cstring>

#include "datatype.h"

namespace tavrel::scan {
namespace {

constexpr std::byte kNoExtensions[4] = {};
constexpr std::size_t kPiece = 1 << 17;  // voxels written at a time

/// Bytes of extensions, the extender included, with which the voxels begin at a multiple of 16, as
/// the standard wants it; a float holds all multiples of 16 that a scan may have.
std::size_t paddedExtensions(const Header& header, std::size_t bytes) {
  const std::size_t before = headerBytes(header).size();
  const std::size_t end = before + std::max(bytes, sizeof kNoExtensions);
  return (end + 15) / 16 * 16 - before;
}

/// Writes a file whose voxels `writeVoxels(file)` writes.
template <class WriteVoxels>
PendingFile writeVolume(const std::filesystem::path& target, mode_t mode, const Header& header,
                        std::span<const std::byte> extensions, WriteVoxels&& writeVoxels) {
  PendingFile file(target, mode);
  file.write(headerBytes(header));
  file.write(extensions);
  writeVoxels(file);
  file.close();
  return file;
}

/// Writes voxels in pieces.
/// @param bytes  of one voxel
/// @param fill   fill(first, piece) fills a piece with the voxels from index `first` on
template <class Fill>
void writePieces(PendingFile& file, std::size_t voxels, std::size_t bytes, Fill&& fill) {
  std::vector<std::byte> piece(std::min(voxels, kPiece) * bytes);
  for (std::size_t first = 0; first < voxels; first += kPiece) {
    const auto part = std::span(piece).first(std::min(kPiece, voxels - first) * bytes);
    fill(first, part);
    file.write(part);
  }
}

/// Calls f(first, end) for the runs of voxels inside the mask.
template <class F>
void forRuns(std::span<const char> mask, F&& f) {
  const auto find = [&](std::size_t from, char value) {
    const void* place = std::memchr(mask.data() + from, value, mask.size() - from);
    return place ? std::size_t(static_cast<const char*>(place) - mask.data()) : mask.size();
  };
  for (std::size_t end = 0, first; (first = find(end, 1)) < mask.size();)
    f(first, end = find(first, 0));
}

}  // namespace

PendingFile writeBrain(const std::filesystem::path& target, const Scan& scan,
                       std::span<const char> mask) {
  auto extensions = scan.extensions;
  extensions.resize(paddedExtensions(scan.header, extensions.size()));
  const auto zero = storedZero(scan.header);
  const std::size_t bytes = zero.size();
  std::vector<std::byte> outside;
  for (std::size_t v = 0; v < std::min(kPiece, mask.size()); ++v)
    outside.insert(outside.end(), zero.begin(), zero.end());
  const auto fill = [&](std::size_t first, std::span<std::byte> piece) {
    std::copy_n(outside.begin(), piece.size(), piece.begin());
    const std::byte* stored = scan.stored.data() + first * bytes;
    forRuns(mask.subspan(first, piece.size() / bytes), [&](std::size_t begin, std::size_t end) {
      std::copy(stored + begin * bytes, stored + end * bytes, piece.data() + begin * bytes);
    });
  };
  return writeVolume(target, scan.permissions, oneVolumeHeader(scan.header, extensions.size()),
                     extensions,
                     [&](PendingFile& file) { writePieces(file, mask.size(), bytes, fill); });
}

PendingFile writeMask(const std::filesystem::path& target, const Scan& scan,
                      std::span<const char> mask) {
  return writeVolume(target, scan.permissions, derivedHeader(scan.header, NIFTI_TYPE_UINT8, 0, 1),
                     kNoExtensions, [&](PendingFile& file) { file.write(std::as_bytes(mask)); });
}

PendingFile writeFloats(const std::filesystem::path& target, const Scan& scan,
                        std::span<const float> values) {
  const auto fill = [&](std::size_t first, std::span<std::byte> piece) {
    for (std::size_t v = 0; v < piece.size() / sizeof(float); ++v)
      storeVoxel(values[first + v], piece.data() + v * sizeof(float), scan.header.swapped);
  };
  return writeVolume(
      target, scan.permissions, derivedHeader(scan.header, NIFTI_TYPE_FLOAT32, 0, 0), kNoExtensions,
      [&](PendingFile& file) { writePieces(file, values.size(), sizeof(float), fill); });
}

}  // namespace tavrel::scan
