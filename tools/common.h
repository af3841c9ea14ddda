// What the helper programs share: arguments, whole raw volumes in and out, one way to fail.
#pragma once

#include <cstdint>
#include <exception>
#include <filesystem>
#include <iostream>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "vox3DMat.h"
#include "voxRawVolumeData.h"

namespace tavrel {

/// A usage error or a file that does not fit: printed as one line, exit status 1.
struct ToolError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Runs a tool's body over its arguments and turns errors into a line on the error stream.
template <class Body>
int runTool(int argc, char** argv, Body body) {
  try {
    body(std::vector<std::string>(argv + 1, argv + argc));
    return 0;
  } catch (const std::exception& error) {
    std::cerr << argv[0] << ": " << error.what() << '\n';
    return 1;
  }
}

/// A size from 1 to 2000 voxels.
inline int parseSize(const std::string& text) {
  const int size = std::atoi(text.c_str());
  if (size < 1 || size > 2000) throw ToolError("not a size from 1 to 2000: " + text);
  return size;
}

/// The code of a format word: byte 0, word 1, float 2.
inline int parseFormat(const std::string& word) {
  int code = 0;
  for (const char* known : {"byte", "word", "float"}) {
    if (word == known) return code;
    ++code;
  }
  throw ToolError("not a voxel format (byte, word, float): " + word);
}

/// Reads a raw volume after checking that the file has the right length.
inline std::vector<double> readVolume(std::string path, int format, int x, int y, int z) {
  const std::uintmax_t wanted = (std::uintmax_t{1} << format) * x * y * z;
  std::error_code error;
  if (std::filesystem::file_size(path, error) != wanted || error)
    throw ToolError(path + " is not a file of " + std::to_string(wanted) + " bytes");
  voxRawVolumeData<double, char> file(path.data(), format, x, y, z);
  file.read();
  const double* p = file.getMatobject()->p;
  return {p, p + std::size_t(x) * y * z};
}

/// Writes a raw volume, creating or replacing the file.
template <class Value>
void writeVolume(std::string path, int format, int x, int y, int z, const std::vector<Value>& v) {
  vox3DMat<double, char> volume(x, y, z);
  std::copy(v.begin(), v.end(), volume.p);
  voxRawVolumeData<double, char> file;
  file.setdata(&volume);
  file.write(path.data(), format);
}

}  // namespace tavrel
