// Headerless raw volume files: voxel values one after another, x fastest, then y, then z.
//
// Format codes: 0 byte (unsigned 8-bit), 1 word (signed 16-bit), 2 float (IEEE single), 3 double
// (IEEE double); values of several bytes are little-endian. Sizes and format are not in the file.
// Files pass through a small buffer, so reading and writing need no second copy of the volume.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <span>
#include <string>
#include <vector>

#include "vox3DMat.h"
#include "voxFatal.h"
#include "voxUtility.h"

namespace tavrel {

/// Calls `action` with a value of the type that stands in files of format `type`; not at all for a
/// code that is no format.
template <class Action>
void withFileType(int type, Action action) {
  switch (type) {
    case 0:
      return action(std::uint8_t{});
    case 1:
      return action(std::int16_t{});
    case 2:
      return action(float{});
    case 3:
      return action(double{});
  }
}

/// Turns values between the machine's byte order and little-endian.
template <class V>
void toOrFromLittleEndian(std::span<V> values) {
  if constexpr (std::endian::native == std::endian::big) {
    for (V& v : values) {
      auto* bytes = reinterpret_cast<std::byte*>(&v);
      std::reverse(bytes, bytes + sizeof(V));
    }
  }
}

/// A buffer of at most 1 MiB of file values, no longer than `count`.
template <class V>
std::vector<V> fileBuffer(std::size_t count) {
  return std::vector<V>(std::min(count, (std::size_t{1} << 20) / sizeof(V)));
}

[[noreturn]] inline void unreadable(const std::string& path) {
  fatal("  Error opening file " + path + " for reading in data \n", std::cerr, 0);
}

/// Reads `voxels` from a raw file of format `type`; nothing for a code that is no format. Voxels
/// beyond the end of the file become 0. A file that cannot be read ends the process with status 0.
template <class T>
void readRaw(const char* path, int type, std::span<T> voxels) {
  const std::string name = path ? path : "";
  std::ifstream file(name, std::ios::binary);
  if (!file) unreadable(name);
  withFileType(type, [&]<class V>(V) {
    auto buffer = fileBuffer<V>(voxels.size());
    while (!voxels.empty() && file) {
      const std::size_t wanted = std::min(buffer.size(), voxels.size());
      file.read(reinterpret_cast<char*>(buffer.data()),
                static_cast<std::streamsize>(wanted * sizeof(V)));
      if (file.bad()) unreadable(name);
      const std::span read(buffer.data(), static_cast<std::size_t>(file.gcount()) / sizeof(V));
      toOrFromLittleEndian(read);
      std::ranges::transform(read, voxels.begin(), [](V v) { return converted<T>(v); });
      voxels = voxels.subspan(read.size());
    }
    std::ranges::fill(voxels, T{0});
  });
}

/// Removes what a failed writing has left, unless it is a device or a link, which were there
/// before.
inline void removePartial(const std::string& name) {
  std::error_code ignored;
  if (std::filesystem::is_regular_file(std::filesystem::symlink_status(name, ignored)))
    std::filesystem::remove(name, ignored);
}

/// Writes `voxels` to a raw file of format `type`, replacing its contents; nothing but the empty
/// file for a code that is no format.
///
/// Values written as byte or word lose their fraction and all but their low 8 or 16 bits; what is
/// not a number or lies beyond 64 bits becomes 0. Values written as float are rounded to nearest.
/// A file that cannot be opened ends the process with status 0, one that cannot be written in full
/// (a full disk) is removed and ends it with status 1, both with a message on the error stream.
template <class T>
void writeRaw(const char* path, int type, std::span<const T> voxels) {
  const std::string name = path ? path : "";
  std::ofstream file(name, std::ios::binary | std::ios::trunc);
  if (!file) {
    std::cerr << "  Inside  AnalyzeImage::saveAnalyzeImageData() " << std::endl;
    unreadable(name);
  }
  withFileType(type, [&]<class V>(V) {
    auto buffer = fileBuffer<V>(voxels.size());
    while (!voxels.empty() && file) {
      const std::span chunk(buffer.data(), std::min(buffer.size(), voxels.size()));
      std::ranges::transform(voxels.first(chunk.size()), chunk.begin(),
                             [](T v) { return converted<V>(v); });
      toOrFromLittleEndian(chunk);
      file.write(reinterpret_cast<const char*>(chunk.data()),
                 static_cast<std::streamsize>(chunk.size_bytes()));
      voxels = voxels.subspan(chunk.size());
    }
  });
  file.close();
  if (file) return;
  removePartial(name);
  fatal("  Error writing file " + name + " \n", std::cerr, 1);
}

}  // namespace tavrel

/// A volume that is read from or written to a raw file.
template <class T, class U>
class voxRawVolumeData {
 public:
  vox3DMat<T, U>* D;                    ///< the volume; owned
  int datatype = -1;                    ///< format code that `read` uses
  int sizeX = 0, sizeY = 0, sizeZ = 0;  ///< dimensions of the volume
  char* fn = nullptr;                   ///< path that `read` opens; borrowed

  /// An empty volume, to be filled by `setdata` and written.
  voxRawVolumeData() : D(new vox3DMat<T, U>) {}
  /// A volume of X x Y x Z voxels, not initialised, to be read from `file` in format `type`. The
  /// path must outlive this object.
  voxRawVolumeData(char* file, int type, int X, int Y, int Z)
      : D(new vox3DMat<T, U>(X, Y, Z)), datatype(type), sizeX(X), sizeY(Y), sizeZ(Z), fn(file) {}
  ~voxRawVolumeData() { delete D; }
  voxRawVolumeData(const voxRawVolumeData&) = delete;
  voxRawVolumeData& operator=(const voxRawVolumeData&) = delete;

  /// Replaces the volume and its sizes by a copy of `m`.
  void setdata(vox3DMat<T, U>* m) {
    auto* copy = m->duplicate();
    delete D;
    D = copy;
    sizeX = D->sizeX;
    sizeY = D->sizeY;
    sizeZ = D->sizeZ;
  }

  /// The volume, which stays owned by this object.
  vox3DMat<T, U>* getMatobject() { return D; }

  /// Reads the volume from `fn`; see `tavrel::readRaw`. Without voxels, or with sizes that are not
  /// those of `D`, it ends the process with status 0. Returns 1.
  int read() {
    if (!filled()) {
      tavrel::fatal("object not initialized or input size incorrect, can't read file \n", std::cout,
                    0);
    }
    tavrel::readRaw(fn, datatype, voxels());
    return 1;
  }

  /// Writes the volume to `path` in format `type`; see `tavrel::writeRaw`. Without voxels,
  /// or with sizes that are not those of `D`, it ends the process with status 0. Returns 1.
  int write(const char* path, int type) {
    if (!filled()) {
      tavrel::fatal("object not initialized or input size incorrect, can't save data \n", std::cout,
                    0);
    }
    tavrel::writeRaw(path, type, std::span<const T>(voxels()));
    return 1;
  }

 private:
  /// Whether `D` holds the sizeX x sizeY x sizeZ voxels that the sizes announce, and not none.
  bool filled() const {
    return D && D->p && D->sizeX == sizeX && D->sizeY == sizeY && D->sizeZ == sizeZ && sizeX > 0 &&
           sizeY > 0 && sizeZ > 0;
  }
  std::span<T> voxels() {
    return {D->p, static_cast<std::size_t>(D->mxn) * static_cast<std::size_t>(sizeZ)};
  }
};
