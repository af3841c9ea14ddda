#include "scan.h"

#include <sys/stat.h>
#include <zlib.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

#include "datatype.h"
#include "files.h"
#include "scan/format.h"
#include "scan/interrupt.h"

namespace tavrel::scan {
namespace {

constexpr std::size_t kChunk = std::size_t(1) << 16;
constexpr std::uint64_t kMostExtensions = 64 << 20;  // real ones have kilobytes, a few megabytes
constexpr std::uint64_t kMostInflation = 1040;       // DEFLATE packs no tighter than 1032 to 1

/// A plain or gzip-compressed file. The NIfTI library's own stream does not tell a damaged file
/// from its end; zlib's does.
class GzipFile {
 public:
  explicit GzipFile(const std::string& path) {
    Descriptor file = openRegular(path);
    struct stat status = {};
    fstat(file.get(), &status);
    permissions_ = status.st_mode & 0777;
    file_.reset(gzdopen(file.get(), "rb"));
    if (!file_) throw std::bad_alloc();
    file.release();
    gzbuffer(file_.get(), 1 << 18);
    const auto size = static_cast<std::uint64_t>(status.st_size);
    atMost_ = gzdirect(file_.get()) ? size : size * kMostInflation;
  }

  std::uint64_t atMost() const { return atMost_; }
  mode_t permissions() const { return permissions_; }

  std::size_t read(std::span<std::byte> bytes) {
    errno = 0;
    const int got = gzread(file_.get(), bytes.data(), static_cast<unsigned>(bytes.size()));
    int code = Z_OK;
    const char* message = gzerror(file_.get(), &code);
    if (code == Z_BUF_ERROR) throw ScanError("is truncated (the compressed data ends too early)");
    if (code == Z_ERRNO) throw ScanError(text("cannot be read: ", std::strerror(errno)));
    if (got < 0 || code < 0) throw ScanError(text("is damaged (", plain(message), ")"));
    return static_cast<std::size_t>(got);
  }

 private:
  /// zlib puts the path before its reason.
  static std::string plain(const std::string& message) {
    const auto colon = message.rfind(": ");
    return colon == std::string::npos ? message : message.substr(colon + 2);
  }

  std::unique_ptr<gzFile_s, int (*)(gzFile)> file_{nullptr, gzclose};
  std::uint64_t atMost_ = 0;
  mode_t permissions_ = 0;
};

/// @param permissions  loses those that the file does not grant
ByteSource openSource(const std::string& path, mode_t& permissions) {
  const auto file = std::make_shared<GzipFile>(path);
  permissions &= file->permissions();
  return {[file](std::span<std::byte> bytes) { return file->read(bytes); }, file->atMost()};
}

/// Reads `count` bytes, in chunks, to where `next(size)` says.
template <class Next>
void readChunks(ByteSource& source, std::uint64_t count, const char* what, Next&& next) {
  for (std::uint64_t done = 0; done < count;) {
    checkInterrupted();
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, count - done));
    const std::size_t got = source.read(next(size));
    done += got;
    if (got < size)
      throw ScanError(text("is truncated (", done, " of ", count, " bytes of ", what, ")"));
  }
}

void readInto(ByteSource& source, std::span<std::byte> bytes, const char* what) {
  std::size_t at = 0;
  readChunks(source, bytes.size(), what, [&](std::size_t size) {
    at += size;
    return bytes.subspan(at - size, size);
  });
}

std::vector<std::byte> readGrowing(ByteSource& source, std::uint64_t count, const char* what) {
  std::vector<std::byte> bytes;
  readChunks(source, count, what, [&](std::size_t size) {
    bytes.resize(bytes.size() + size);
    return std::span(bytes).last(size);
  });
  return bytes;
}

void skip(ByteSource& source, std::uint64_t count, const char* what) {
  std::vector<std::byte> chunk(static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, count)));
  readChunks(source, count, what, [&](std::size_t size) { return std::span(chunk).first(size); });
}

/// Refuses what no scan carries beside its voxels and what would fill the memory.
void checkExtensions(std::uint64_t bytes) {
  if (bytes > kMostExtensions)
    throw ScanError(text("carries more than ", kMostExtensions >> 20, " MiB before its voxels"));
}

/// Reads to the end of a file, which checks its checksum.
std::vector<std::byte> readRest(ByteSource& source, bool keep) {
  std::vector<std::byte> kept, chunk(kChunk);
  for (std::size_t got = kChunk; got == kChunk;) {
    checkInterrupted();
    got = source.read(chunk);
    if (!keep) continue;
    checkExtensions(kept.size() + got);
    kept.insert(kept.end(), chunk.begin(), chunk.begin() + std::ptrdiff_t(got));
  }
  return kept;
}

std::int64_t chooseVolume(const Header& header, std::optional<std::int64_t> volume) {
  if (header.volumes == 1 && !volume) return 0;
  if (!volume)
    throw ScanError(text("holds ", header.volumes, " volumes; choose one with --volume 0 to ",
                         header.volumes - 1));
  if (*volume < 0 || *volume >= header.volumes)
    throw ScanError(text("has no volume ", *volume, "; it holds ", header.volumes,
                         header.volumes == 1 ? " volume" : " volumes", ", counted from 0"));
  return *volume;
}

Header readHeader(ByteSource& source) {
  std::vector<std::byte> bytes(kHeaderStart);
  const std::size_t got = source.read(bytes);
  if (got == 0) throw ScanError("is empty");
  bytes.resize(got);
  const std::size_t size = headerSize(bytes);
  bytes.resize(size);
  readInto(source, std::span(bytes).subspan(kHeaderStart), "header");
  return parseHeader(bytes);
}

/// Range of T as doubles that convert back without overflow.
template <class T>
double highestOf() {
  if constexpr (sizeof(T) > sizeof(double)) return std::numeric_limits<double>::max();
  const auto highest = static_cast<double>(std::numeric_limits<T>::max());
  return std::is_integral_v<T> && sizeof(T) == 8 ? std::nextafter(highest, 0.0) : highest;
}
template <class T>
double lowestOf() {
  if constexpr (sizeof(T) > sizeof(double)) return std::numeric_limits<double>::lowest();
  return static_cast<double>(std::numeric_limits<T>::lowest());
}

template <class Number>
void intensitiesAs(const Scan& scan, std::size_t first, std::span<Number> values) {
  const Header& header = scan.header;
  const bool scaled = header.slope < 0 || header.inter != 0;
  const double slope = scaled ? header.slope : 1, inter = scaled ? header.inter : 0;
  withVoxelType(header.datatype, [&]<class T>(std::type_identity<T>) {
    const std::byte* p = scan.stored.data() + first * sizeof(T);
    const bool swapped = header.swapped;
    for (Number& value : values) {
      const T stored = loadVoxel<T>(p, swapped);
      value = scaled ? static_cast<Number>(slope * static_cast<double>(stored) + inter)
                     : static_cast<Number>(stored);
      p += sizeof(T);
    }
  });
}

}  // namespace

Scan readScan(const std::string& name, std::optional<std::int64_t> volume,
              const HeaderCheck& check) {
  const std::string path = findHeader(name);
  std::string image;
  mode_t permissions = 0777;
  const auto openImage = [&] {
    image = firstThatExists(imageNames(path));
    if (image.empty()) throw ScanError("has no image file (.img) beside it");
    try {
      return openSource(image, permissions);
    } catch (const ScanError& error) {
      throw ScanError(text("its image file ", image, " ", error.what()));
    }
  };
  Scan scan = readScan(openSource(path, permissions), openImage, volume, check);
  scan.path = path;
  scan.imagePath = image;
  scan.permissions = permissions;
  return scan;
}

Scan readScan(ByteSource source, const std::function<ByteSource()>& openImage,
              std::optional<std::int64_t> volume, const HeaderCheck& check) {
  Scan scan;
  scan.header = readHeader(source);
  const Header& header = scan.header;
  const std::int64_t chosen = chooseVolume(header, volume);
  checkExtensions(std::uint64_t(header.dataOffset));
  const auto headerLength = headerBytes(header).size();
  if (header.pair) {
    scan.extensions = readRest(source, true);
    source = openImage();
  }
  const std::uint64_t bytes = voxelCount(header.size) * std::uint64_t(header.bytesPerVoxel);
  const std::uint64_t needed =
      std::uint64_t(header.dataOffset) + bytes * std::uint64_t(header.volumes);
  if (needed > source.atMost)
    throw ScanError(text("is truncated (its header announces ", needed, " bytes, more than the ",
                         source.atMost, " that the file can hold)"));
  if (check) check(header);
  if (header.pair)
    skip(source, std::uint64_t(header.dataOffset), "image file");
  else
    scan.extensions =
        readGrowing(source, std::uint64_t(header.dataOffset) - headerLength, "header");
  skip(source, bytes * std::uint64_t(chosen), "voxels");
  scan.stored.resize(bytes);
  readInto(source, scan.stored, "voxels");
  skip(source, bytes * std::uint64_t(header.volumes - 1 - chosen), "voxels");
  readRest(source, false);
  return scan;
}

void intensities(const Scan& scan, std::size_t first, std::span<double> values) {
  intensitiesAs(scan, first, values);
}

void intensities(const Scan& scan, std::size_t first, std::span<float> values) {
  intensitiesAs(scan, first, values);
}

std::vector<char> maskOf(const Scan& scan) {
  std::vector<char> mask(voxelCount(scan.header.size));
  std::array<double, 4096> values;
  for (std::size_t first = 0; first < mask.size(); first += values.size()) {
    const auto piece = std::span(values).first(std::min(values.size(), mask.size() - first));
    intensities(scan, first, piece);
    std::transform(piece.begin(), piece.end(), mask.begin() + std::ptrdiff_t(first),
                   [](double value) { return char(value > 0); });
  }
  return mask;
}

std::vector<std::byte> storedZero(const Header& header) {
  std::vector<std::byte> bytes(std::size_t(header.bytesPerVoxel), std::byte{0});
  if (header.inter == 0) return bytes;
  withVoxelType(header.datatype, [&]<class T>(std::type_identity<T>) {
    const double exact = -header.inter / header.slope;
    const double value = std::is_integral_v<T> ? std::round(exact) : exact;
    storeVoxel(static_cast<T>(std::clamp(value, lowestOf<T>(), highestOf<T>())), bytes.data(),
               header.swapped);
  });
  return bytes;
}

}  // namespace tavrel::scan
