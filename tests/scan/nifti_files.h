// NIfTI files for the tests, written by the NIfTI library.
#pragma once

#include <nifti/nifti2_io.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace test_files {

namespace fs = std::filesystem;

/// A folder that lives as long as the object.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = (fs::temp_directory_path() / "tavrel-nifti-test-XXXXXX").string();
    path_ = mkdtemp(name.data());
  }
  ~TemporaryFolder() { fs::remove_all(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  fs::path operator/(const std::string& name) const { return path_ / name; }
  const fs::path& path() const { return path_; }
  /// Names of the files inside, sorted.
  std::vector<std::string> list() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(path_))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  fs::path path_;
};

using Bytes = std::vector<char>;

inline Bytes readBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline void writeBytes(const fs::path& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
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

/// What a test file holds.
struct FileLayout {
  std::array<std::int64_t, 3> size = {4, 5, 6};
  std::int64_t volumes = 0;  ///< 0: three dimensions
  int datatype = NIFTI_TYPE_INT16;
  int fileType = NIFTI_FTYPE_NIFTI1_1;
  double slope = 0, inter = 0;
  std::array<double, 3> mm = {1.25, 0.9, 1.5};  ///< of a voxel
};

/// Writes an image as plain NIfTI-2, which the library converts headers to but does not write
/// right.
inline void writeNifti2(const fs::path& path, nifti_image* image) {
  const bool pair = image->nifti_type == NIFTI_FTYPE_NIFTI2_2;
  nifti_2_header header;
  nifti_convert_nim2n2hdr(image, &header);
  header.vox_offset = pair ? 0 : sizeof header + 4;
  const auto* voxels = static_cast<const char*>(image->data);
  const Bytes data(voxels, voxels + image->nvox * image->nbyper);
  Bytes file(sizeof header + 4);
  std::memcpy(file.data(), &header, sizeof header);
  if (pair)
    writeBytes(image->iname, data);
  else
    file.insert(file.end(), data.begin(), data.end());
  writeBytes(path, file);
}

/// Writes a file with an oblique sform, a qform of its own and, as NIfTI-1, a comment as extension.
/// @param voxels  raw voxels in this machine's byte order
inline void writeNifti(const fs::path& path, const FileLayout& layout, const void* voxels) {
  const std::int64_t dims[8] = {layout.volumes ? 4 : 3,
                                layout.size[0],
                                layout.size[1],
                                layout.size[2],
                                std::max<std::int64_t>(1, layout.volumes),
                                1,
                                1,
                                1};
  nifti_image* image = nifti_make_new_nim(dims, layout.datatype, 1);
  std::memcpy(image->data, voxels, std::size_t(image->nvox) * std::size_t(image->nbyper));
  nifti_set_filenames(image, path.c_str(), 0, 0);
  image->nifti_type = layout.fileType;  // which the names have set to NIfTI-1
  for (int d = 0; d < 3; ++d) image->pixdim[d + 1] = layout.mm[d];
  image->dx = layout.mm[0], image->dy = layout.mm[1], image->dz = layout.mm[2];
  image->xyz_units = NIFTI_UNITS_MM;
  image->time_units = NIFTI_UNITS_SEC;
  image->scl_slope = layout.slope;
  image->scl_inter = layout.inter;
  image->qform_code = NIFTI_XFORM_SCANNER_ANAT;
  image->quatern_b = 0.1, image->quatern_c = 0.2, image->quatern_d = -0.05;
  image->qoffset_x = 11, image->qoffset_y = -22, image->qoffset_z = 33.5;
  image->qfac = -1;
  image->sform_code = NIFTI_XFORM_ALIGNED_ANAT;
  image->sto_xyz = {
      {{-1.2, 0.05, 0.1, 90}, {0.06, 0.89, -0.2, -126}, {0.1, 0.2, 1.4, -72}, {0, 0, 0, 1}}};
  const FileLayout usual;
  for (auto& row : image->sto_xyz.m)
    for (int d = 0; d < 3; ++d) row[d] *= layout.mm[d] / usual.mm[d];
  nifti_add_extension(image, "a comment", 9, NIFTI_ECODE_COMMENT);
  if (layout.fileType == NIFTI_FTYPE_NIFTI2_1 || layout.fileType == NIFTI_FTYPE_NIFTI2_2)
    writeNifti2(path, image);
  else
    nifti_image_write(image);
  nifti_image_free(image);
}

template <class T>
void writeNifti(const fs::path& path, FileLayout layout, const std::vector<T>& voxels) {
  writeNifti(path, layout, static_cast<const void*>(voxels.data()));
}

/// Rewrites a plain one-file NIfTI-1 or -2 file in the other byte order.
inline void swapByteOrder(const fs::path& path, int voxelBytes) {
  Bytes bytes = readBytes(path);
  std::int32_t headerSize = 0;
  std::memcpy(&headerSize, bytes.data(), 4);
  const int version = headerSize == 348 ? 1 : 2;
  std::int64_t offset = 0;
  if (version == 1) {
    nifti_1_header header;
    std::memcpy(&header, bytes.data(), sizeof header);
    offset = std::int64_t(header.vox_offset);
  } else {
    nifti_2_header header;
    std::memcpy(&header, bytes.data(), sizeof header);
    offset = header.vox_offset;
  }
  swap_nifti_header(bytes.data(), version);
  const auto swapEach = [&](std::size_t first, std::size_t end, std::size_t size) {
    for (std::size_t at = first; at < end; at += size)
      std::reverse(bytes.begin() + std::ptrdiff_t(at), bytes.begin() + std::ptrdiff_t(at + size));
  };
  const std::size_t extension = std::size_t(headerSize) + 4;
  if (bytes[std::size_t(headerSize)]) swapEach(extension, extension + 8, 4);  // its size and code
  swapEach(std::size_t(offset), bytes.size(), std::size_t(voxelBytes));
  writeBytes(path, bytes);
}

}  // namespace test_files
