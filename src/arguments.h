// Command-line text to numbers, and what the two parameter records share.
//
// Conversions never fail, in the manner of the C library: text that is not a number gives 0, and
// what follows a number is ignored.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <memory>

#include "voxPara.h"

namespace tavrel {

/// A base-10 integer; beyond the range of int its nearest end. Null gives 0.
inline int toInteger(const char* text) {
  constexpr long kMin = std::numeric_limits<int>::min(), kMax = std::numeric_limits<int>::max();
  return text ? static_cast<int>(std::clamp(std::strtol(text, nullptr, 10), kMin, kMax)) : 0;
}

/// A decimal floating-point number. Null gives 0.
inline double toReal(const char* text) { return text ? std::strtod(text, nullptr) : 0.0; }

/// Takes the arguments of a vector one after another, from argv[1] on. Null pointers count as
/// absent: paths are null and numbers 0. A vector that begins with one is empty, any other has to
/// reach to the last argument that is read.
class ArgumentReader {
 public:
  explicit ArgumentReader(char** argv) : next_(argv[1] ? argv + 1 : nullptr) {}

  void read(char*& path) { path = take(); }
  void read(int& value) { value = toInteger(take()); }
  void read(double& value) { value = toReal(take()); }

  /// Reads several fields in turn.
  template <class... Fields>
  void operator()(Fields&... fields) {
    (read(fields), ...);
  }

 private:
  char* take() { return next_ ? *next_++ : nullptr; }

  char** next_;  ///< null: there are none
};

/// Stores in `before` and `after` the padding of an axis that is halved dn + seg_dn times.
inline void setPadding(int size, int dn, int seg_dn, int& before, int& after) {
  constexpr long long kMin = std::numeric_limits<int>::min(),
                      kMax = std::numeric_limits<int>::max();
  const auto halvings =
      static_cast<int>(std::clamp(dn + static_cast<long long>(seg_dn), kMin, kMax));
  const std::unique_ptr<int[]> padding(calextension(size, halvings));
  before = padding[0];
  after = padding[1];
}

/// Stores the padding of all three axes of a parameter record.
template <class Record>
void setPadding(Record& P) {
  setPadding(P.sizeX, P.dnX, P.seg_dn, P.Xn, P.Xp);
  setPadding(P.sizeY, P.dnY, P.seg_dn, P.Yn, P.Yp);
  setPadding(P.sizeZ, P.dnZ, P.seg_dn, P.Zn, P.Zp);
}

/// A path to print; null prints as nothing.
inline const char* printable(const char* path) { return path ? path : ""; }

/// Prints the lines with sizes, halvings and padding of a parameter record.
template <class Record>
void printGeometry(const Record& P, const char* segLabel) {
  std::cout << "sizX:" << P.sizeX << " sizY:" << P.sizeY << " sizZ:" << P.sizeZ << std::endl;
  std::cout << "downsample X:" << P.dnX << "downsample Y:" << P.dnY << "downsample Z:" << P.dnZ
            << segLabel << P.seg_dn << std::endl;
  std::cout << "extension X:" << P.Xn << " " << P.Xp << "extension Y:" << P.Yn << " " << P.Yp
            << "extension Z:" << P.Zn << " " << P.Zp << std::endl;
}

}  // namespace tavrel
