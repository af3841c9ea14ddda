#include "files.h"

#include <zlib.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>

#include "compress.h"
#include "scan/nifti/scan.h"

namespace tavrel::report {
namespace {

namespace fs = std::filesystem;
using namespace scan;

constexpr std::size_t kExtender = 4;

/// The header of a file, decompressed if need be; the rest is not read.
Header readHeader(const fs::path& path) {
  const std::unique_ptr<gzFile_s, int (*)(gzFile)> file(gzopen(path.c_str(), "rb"), gzclose);
  if (!file) throw ScanError("cannot be opened");
  std::vector<std::byte> bytes(sizeof(nifti_2_header));
  const int got = gzread(file.get(), bytes.data(), unsigned(bytes.size()));
  bytes.resize(std::size_t(std::max(got, 0)));
  return parseHeader(bytes);
}

/// Whether a page can carry the file as it is.
bool isPlain(const Header& header, std::span<const std::byte> file) {
  const bool gzipped = file.size() > 1 && file[0] == std::byte{0x1f} && file[1] == std::byte{0x8b};
  return gzipped && header.datatype == NIFTI_TYPE_UINT8 && header.slope == 1 && header.inter == 0 &&
         !header.pair && header.volumes == 1;
}

/// The mask written anew on its own grid.
PageMask plainMask(const fs::path& path) {
  const Scan scan = readScan(path.string());
  const Header header = derivedHeader(scan.header, NIFTI_TYPE_UINT8, 0, 1);
  auto bytes = headerBytes(header);
  bytes.resize(bytes.size() + kExtender);
  const std::vector<char> mask = maskOf(scan);
  const auto voxels = std::as_bytes(std::span(mask));
  bytes.insert(bytes.end(), voxels.begin(), voxels.end());
  return {gzip(bytes), header.size, header.dataOffset};
}

}  // namespace

ScanFiles filesOf(const cohort::Row& row) {
  fs::path folder = row.participant;
  if (!row.session.empty() && row.session != "n/a") folder /= row.session;
  const fs::path anat = folder / "anat", figures = folder / "figures";
  return {anat / (row.scan + "_desc-brain_mask.nii.gz"),
          anat / (row.scan + "_desc-brain_mask.json"),
          figures / (row.scan + "_desc-brain_mosaic.png"),
          figures / (row.scan + "_desc-preview_T1w.nii.gz"),
          row.scan + ".html",
          figures / (row.scan + "_desc-brain_thumbnail.png")};
}

std::optional<std::vector<std::byte>> readFile(const fs::path& path) {
  std::error_code failure;
  if (!fs::is_regular_file(path, failure)) return {};
  std::ifstream file(path, std::ios::binary);
  std::vector<std::byte> bytes(fs::file_size(path, failure));
  if (failure || !file.read(reinterpret_cast<char*>(bytes.data()), std::streamsize(bytes.size())))
    return {};
  return bytes;
}

nlohmann::ordered_json readRecord(const fs::path& path) {
  const auto bytes = readFile(path);
  if (!bytes) return {};
  const auto* text = reinterpret_cast<const char*>(bytes->data());
  const auto sidecar = nlohmann::ordered_json::parse(text, text + bytes->size(), nullptr, false);
  return sidecar.is_object() ? sidecar.value("Tavrel", nlohmann::ordered_json())
                             : nlohmann::ordered_json();
}

PageMask readMask(const fs::path& path) {
  const Header header = readHeader(path);
  auto bytes = readFile(path);
  if (bytes && isPlain(header, *bytes)) return {std::move(*bytes), header.size, header.dataOffset};
  return plainMask(path);
}

}  // namespace tavrel::report
