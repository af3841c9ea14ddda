// Headerless raw volume files: voxel values one after another, x fastest, then y, then z.
//
// Format codes: 0 byte (unsigned 8-bit), 1 word (signed 16-bit), 2 float (IEEE single), 3 double
// (IEEE double); values of several bytes are little-endian. Sizes and format are not in the file.
// Files pass through a small buffer, so reading and writing need no second copy of the volume.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "detail/voxFatal.h"
#include "vox3DMat.h"
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
void toOrFromLittleEndian(V* values, std::size_t count) {
  const std::uint16_t one = 1;
  std::uint8_t lowest;
  std::memcpy(&lowest, &one, 1);
  if (lowest == 1) return;
  for (V* v = values; v != values + count; ++v) {
    auto* bytes = reinterpret_cast<std::uint8_t*>(v);
    std::reverse(bytes, bytes + sizeof(V));
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

/// Reads `count` voxels from a raw file of format `type`; nothing for a code that is no format.
/// Voxels beyond the end of the file become 0. A file that cannot be read ends the process with
/// status 0.
template <class T>
void readRaw(const char* path, int type, T* voxels, std::size_t count) {
  const std::string name = path ? path : "";
  std::ifstream file(name, std::ios::binary);
  if (!file) unreadable(name);
  withFileType(type, [&](auto zero) {
    using V = decltype(zero);
    auto buffer = fileBuffer<V>(count);
    while (count > 0 && file) {
      const std::size_t wanted = std::min(buffer.size(), count);
      file.read(reinterpret_cast<char*>(buffer.data()),
                static_cast<std::streamsize>(wanted * sizeof(V)));
      if (file.bad()) unreadable(name);
      const std::size_t got = static_cast<std::size_t>(file.gcount()) / sizeof(V);
      toOrFromLittleEndian(buffer.data(), got);
      voxels = std::transform(buffer.data(), buffer.data() + got, voxels,
                              [](V v) { return converted<T>(v); });
      count -= got;
    }
    std::fill_n(voxels, count, T{0});
  });
}

/// Removes what a failed writing has left, unless it is a device or a link, which were there
/// before.
inline void removePartial(const std::string& name) {
  std::error_code ignored;
  if (std::filesystem::is_regular_file(std::filesystem::symlink_status(name, ignored)))
    std::filesystem::remove(name, ignored);
}

/// Writes `count` voxels to a raw file of format `type`, replacing its contents; nothing but the
/// empty file for a code that is no format.
///
/// Values written as byte or word lose their fraction and all but their low 8 or 16 bits; what is
/// not a number or lies beyond 64 bits becomes 0. Values written as float are rounded to nearest.
/// A file that cannot be opened ends the process with status 0, one that cannot be written in full
/// (a full disk) is removed and ends it with status 1, both with a message on the error stream.
template <class T>
void writeRaw(const char* path, int type, const T* voxels, std::size_t count) {
  const std::string name = path ? path : "";
  std::ofstream file(name, std::ios::binary | std::ios::trunc);
  if (!file) {
    std::cerr << "  Inside  AnalyzeImage::saveAnalyzeImageData() " << std::endl;
    unreadable(name);
  }
  withFileType(type, [&](auto zero) {
    using V = decltype(zero);
    auto buffer = fileBuffer<V>(count);
    while (count > 0 && file) {
      const std::size_t taken = std::min(buffer.size(), count);
      std::transform(voxels, voxels + taken, buffer.data(), [](T v) { return converted<V>(v); });
      toOrFromLittleEndian(buffer.data(), taken);
      file.write(reinterpret_cast<const char*>(buffer.data()),
                 static_cast<std::streamsize>(taken * sizeof(V)));
      voxels += taken;
      count -= taken;
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
  ~voxRawVolumeData() {
    delete D;
    tavrel::clear(D);
  }
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

  /// Reads sizeX*sizeY*sizeZ voxels from `fn`; see `tavrel::readRaw`. Without any, or with more
  /// than `D` has, it ends the process with status 0. Returns 1.
  int read() {
    if (count() == 0) {
      tavrel::fatal("object not initialized or input size incorrect, can't read file \n", std::cout,
                    0);
    }
    tavrel::readRaw(fn, datatype, D->p, count());
    return 1;
  }

  /// Writes sizeX*sizeY*sizeZ voxels to `path` in format `type`; see `tavrel::writeRaw`. Without
  /// any, or with more than `D` has, it ends the process with status 0. Returns 1.
  int write(const char* path, int type) {
    if (count() == 0) {
      tavrel::fatal("object not initialized or input size incorrect, can't save data \n", std::cout,
                    0);
    }
    tavrel::writeRaw(path, type, static_cast<const T*>(D->p), count());
    return 1;
  }

 private:
  /// The voxels that the sizes announce, 0 if `D` does not hold as many.
  std::size_t count() const {
    if (!D || !D->p || sizeX <= 0 || sizeY <= 0 || sizeZ <= 0) return 0;
    const std::int64_t held = std::int64_t{D->mxn} * D->sizeZ, plane = std::int64_t{sizeX} * sizeY;
    return plane <= held && plane * sizeZ <= held ? static_cast<std::size_t>(plane * sizeZ) : 0;
  }
};
