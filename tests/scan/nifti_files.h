// NIfTI files for the tests.
#pragma once

#include <nifti/nifti2_io.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/files.h"

namespace test_files {

namespace fs = std::filesystem;
using TemporaryFolder = tavrel::test::Folder;
using Bytes = std::vector<char>;

inline Bytes readBytes(const fs::path& path) {
  const std::string bytes = tavrel::test::readFile(path);
  return {bytes.begin(), bytes.end()};
}

inline void writeBytes(const fs::path& path, const Bytes& bytes) {
  tavrel::test::writeFile(path, {bytes.begin(), bytes.end()});
}

/// All bytes of a plain or compressed file, decompressed.
inline Bytes inflate(const fs::path& path) {
  Bytes bytes, chunk(1 << 16);
  const gzFile file = gzopen(path.c_str(), "rb");
  for (int got; file && (got = gzread(file, chunk.data(), unsigned(chunk.size()))) > 0;)
    bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + got);
  gzclose(file);
  return bytes;
}

/// Writes a file that is compressed if its name says so.
inline void deflate(const fs::path& path, const Bytes& bytes) {
  const gzFile file = gzopen(path.c_str(), path.extension() == ".gz" ? "wb1" : "wbT");
  gzwrite(file, bytes.data(), unsigned(bytes.size()));
  gzclose(file);
}

/// The codes of all real numbers.
inline constexpr int kDatatypes[] = {NIFTI_TYPE_UINT8,   NIFTI_TYPE_INT8,    NIFTI_TYPE_INT16,
                                     NIFTI_TYPE_UINT16,  NIFTI_TYPE_INT32,   NIFTI_TYPE_UINT32,
                                     NIFTI_TYPE_INT64,   NIFTI_TYPE_UINT64,  NIFTI_TYPE_FLOAT32,
                                     NIFTI_TYPE_FLOAT64, NIFTI_TYPE_FLOAT128};

/// What a test file holds.
struct FileLayout {
  std::array<std::int64_t, 3> size = {4, 5, 6};
  std::int64_t volumes = 0;  ///< 0: three dimensions
  int datatype = NIFTI_TYPE_INT16;
  int version = 1;
  bool pair = false, swapped = false;
  double slope = 0, inter = 0;
  std::array<double, 3> mm = {1.25, 0.9, 1.5};  ///< of a voxel
};

/// The header of such a file, with an oblique sform and a qform of its own.
template <class Fields>
Fields headerOf(const FileLayout& layout, std::size_t extensionBytes) {
  Fields h = {};
  h.sizeof_hdr = sizeof h;
  std::memcpy(h.magic, layout.pair ? "ni1" : "n+1", 4);
  h.magic[2] = char('0' + layout.version);
  int bytes = 0, swapSize = 0;
  nifti_datatype_sizes(layout.datatype, &bytes, &swapSize);
  h.datatype = std::int16_t(layout.datatype);
  h.bitpix = std::int16_t(8 * bytes);
  h.vox_offset = layout.pair ? 0 : sizeof h + extensionBytes;
  h.scl_slope = layout.slope;
  h.scl_inter = layout.inter;
  h.dim[0] = layout.volumes ? 4 : 3;
  std::fill_n(h.dim + 4, 4, 1);
  if (layout.volumes) h.dim[4] = layout.volumes;
  h.pixdim[0] = -1;
  h.xyzt_units = NIFTI_UNITS_MM | NIFTI_UNITS_SEC;
  h.qform_code = NIFTI_XFORM_SCANNER_ANAT;
  h.quatern_b = 0.1, h.quatern_c = 0.2, h.quatern_d = -0.05;
  h.qoffset_x = 11, h.qoffset_y = -22, h.qoffset_z = 33.5;
  h.sform_code = NIFTI_XFORM_ALIGNED_ANAT;
  const double rows[3][4] = {
      {-0.96, 0.06, 0.07, 90}, {0.05, 0.99, -0.13, -126}, {0.08, 0.22, 0.93, -72}};
  for (int d = 0; d < 4; ++d) {
    if (d < 3) h.dim[d + 1] = layout.size[d], h.pixdim[d + 1] = layout.mm[d];
    const double mm = d < 3 ? layout.mm[d] : 1;
    h.srow_x[d] = rows[0][d] * mm, h.srow_y[d] = rows[1][d] * mm, h.srow_z[d] = rows[2][d] * mm;
  }
  return h;
}

template <class Fields>
void writeVersion(const fs::path& path, const FileLayout& layout, const void* voxels) {
  std::int32_t extension[] = {1, 16, NIFTI_ECODE_COMMENT, 0x20202020, 0x20202020};
  auto header = headerOf<Fields>(layout, sizeof extension);
  const auto* first = static_cast<const char*>(voxels);
  const std::size_t voxelBytes = header.bitpix / 8;
  Bytes data(first, first + voxelBytes * layout.size[0] * layout.size[1] * layout.size[2] *
                                std::max<std::size_t>(1, layout.volumes));
  if (layout.swapped) {
    swap_nifti_header(&header, layout.version);
    nifti_swap_4bytes(2, extension + 1);
    for (auto v = data.begin(); v != data.end(); v += voxelBytes) std::reverse(v, v + voxelBytes);
  }
  Bytes file(sizeof header + sizeof extension);
  std::memcpy(file.data(), &header, sizeof header);
  std::memcpy(file.data() + sizeof header, extension, sizeof extension);
  if (layout.pair)
    deflate(std::string(path).replace(path.native().rfind(".hdr"), 4, ".img"), data);
  else
    file.insert(file.end(), data.begin(), data.end());
  deflate(path, file);
}

/// Writes a file, or a pair of them, with a comment as extension.
/// @param voxels  raw voxels in this machine's byte order
inline void writeNifti(const fs::path& path, const FileLayout& layout, const void* voxels) {
  (layout.version == 1 ? writeVersion<nifti_1_header> : writeVersion<nifti_2_header>)(path, layout,
                                                                                      voxels);
}

template <class T>
void writeNifti(const fs::path& path, const FileLayout& layout, const std::vector<T>& voxels) {
  writeNifti(path, layout, static_cast<const void*>(voxels.data()));
}

}  // namespace test_files
