// Reading one volume of a NIfTI file.
//
// The voxels are kept as the file stores them (bytes, byte order, unscaled), so that the brain can
// be written with the very same values; intensities() gives the numbers that they stand for. Voxel
// order is the file's: x fastest, then y, then z. Nothing is allocated on the word of the header
// alone: the file has to be large enough for it first.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "header.h"

namespace tavrel::scan {

/// A file as far as it has been read.
struct Scan {
  std::string path;                   ///< file with the header, as found
  std::string imagePath;              ///< second file of a pair, otherwise empty
  Header header;                      ///< of the whole file
  std::vector<std::byte> extensions;  ///< extender and extensions, as in the file
  std::vector<std::byte> stored;      ///< voxels of one volume, as in the file
  mode_t permissions = 0666;          ///< of the file, or what both of a pair grant
};

/// Bytes of a file from first to last, decompressed if need be.
struct ByteSource {
  /// Fills the span as far as the file goes and returns the number of bytes.
  /// @throws ScanError for damaged or unreadable files
  std::function<std::size_t(std::span<std::byte>)> read;
  std::uint64_t atMost = 0;  ///< upper bound of the bytes that can come
};

/// Called with the header before anything is allocated for the voxels; throws to stop the reading.
using HeaderCheck = std::function<void(const Header&)>;

/// Reads a file, or a pair of which either file (or the common stem) is named.
/// @param volume  which volume of a 4-D file, counted from 0; may be absent if there is one only
/// @throws ScanError with the reason; Interrupted
Scan readScan(const std::string& name, std::optional<std::int64_t> volume = {},
              const HeaderCheck& check = {});

/// The same from bytes. `openImage` opens the second file of a pair.
Scan readScan(ByteSource header, const std::function<ByteSource()>& openImage,
              std::optional<std::int64_t> volume = {}, const HeaderCheck& check = {});

/// The voxels as numbers to compare with one another. Where the header shifts the values or turns
/// them round (an intercept, a negative slope) these are the real values slope * stored + inter; a
/// positive slope alone changes no comparison, so that the stored values themselves are given, free
/// of rounding.
/// @param first   index of the first voxel wanted
/// @param values  receives one number a voxel
void intensities(const Scan& scan, std::size_t first, std::span<double> values);
void intensities(const Scan& scan, std::size_t first, std::span<float> values);
inline void intensities(const Scan& scan, std::span<double> values) {
  intensities(scan, 0, values);
}

/// A scan that is a mask: 1 where the intensity is above 0, otherwise 0.
std::vector<char> maskOf(const Scan& scan);

/// One voxel, in the file's bytes, of the stored value that stands for the real value nearest 0.
std::vector<std::byte> storedZero(const Header& header);

}  // namespace tavrel::scan
