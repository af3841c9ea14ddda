// Voxel loops that the 2-D and 3-D matrices share, over plain arrays and sizes.
//
// Voxel (i, j, k) of a sizeX x sizeY x sizeZ array stands at i + j*sizeX + k*sizeX*sizeY; a slice
// is a volume with sizeZ = 1. `char` voxels are signed 8-bit values. Masks hold 1 inside and 0
// outside, level-set functions are negative inside.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "../voxUtility.h"
#include "voxFatal.h"

namespace tavrel {

/// The number of voxels of an X x Y x Z volume. Sizes that are negative or whose product does not
/// fit 31 bits end the process with status 1.
inline std::size_t voxelCount(std::int64_t X, std::int64_t Y, std::int64_t Z = 1) {
  constexpr std::int64_t kMost = std::numeric_limits<int>::max();
  std::int64_t count = 1;
  const bool empty = X == 0 || Y == 0 || Z == 0;
  for (const std::int64_t size : {X, Y, Z}) {
    if (size < 0 || size > kMost || (!empty && count > kMost / size)) {
      fatal("volume of " + std::to_string(X) + " x " + std::to_string(Y) + " x " +
                std::to_string(Z) +
                " voxels: sizes must be 0 or more, with fewer than 2^31 voxels in all, exit\n",
            std::cerr, 1);
    }
    count = empty ? 0 : count * size;
  }
  return static_cast<std::size_t>(count);
}

/// Whether a selector is this name; null is none.
inline bool isNamed(const char* selector, const char* name) {
  return selector && std::strcmp(selector, name) == 0;
}

/// Adds `m` to every voxel.
template <class T>
void add(T* voxels, std::size_t count, T m) {
  for (std::size_t n = 0; n < count; ++n) voxels[n] = static_cast<T>(voxels[n] + m);
}

/// product[n] = voxels[n] * factors[n], computed in doubles. `product` may be the voxels' own
/// array.
template <class T, class U>
void multiply(const T* voxels, std::size_t count, const U* factors, T* product) {
  std::transform(voxels, voxels + count, factors, product, [](T v, U factor) {
    return converted<T>(static_cast<double>(number(factor)) * number(v));
  });
}

/// The sum of the voxels as doubles in storage order. Sums of 8-bit values are exact in any order,
/// so those are taken as integers.
template <class T>
double sum(const T* voxels, std::size_t count) {
  std::conditional_t<sizeof(T) == 1, std::int64_t, double> total = 0;
  for (std::size_t n = 0; n < count; ++n) total += number(voxels[n]);
  return static_cast<double>(total);
}

/// Level-set function of a mask: 0.5 - v, so -0.5 inside and 0.5 outside.
template <class T, class U>
void maskToPhi(const T* mask, std::size_t count, U* phi) {
  std::transform(mask, mask + count, phi,
                 [](T v) { return converted<U>(0.5 - static_cast<double>(number(v))); });
}

/// Mask of a level-set function.
template <class T, class U>
void phiToMask(const T* phi, std::size_t count, U* mask) {
  std::transform(phi, phi + count, mask, [](T v) { return static_cast<U>(isInside(v)); });
}

/// 1 where min <= voxel <= max, 0 elsewhere; min > max ends the process with status 1.
template <class T>
void threshold(const T* voxels, std::size_t count, T min, T max, char* result) {
  const auto low = number(min);
  const auto high = number(max);
  if (low > high) fatal("threshold values set incorrect, exit", std::cerr, 1);
  std::transform(voxels, voxels + count, result, [low, high](T v) {
    return static_cast<char>(number(v) >= low && number(v) <= high);
  });
}

/// Smallest and largest value of every `step`-th voxel, the ends of the sorted sample: not-a-number
/// counts as the largest value. Needs at least one voxel.
template <class T>
std::pair<double, double> sampledRange(const T* voxels, std::size_t count, std::size_t step) {
  double min = number(voxels[0]);
  double max = min;
  for (std::size_t n = step; n < count; n += step) {
    const double v = number(voxels[n]);
    if (compareNumbers(v, min) < 0) min = v;
    if (compareNumbers(v, max) >= 0) max = v;
  }
  return {min, max};
}

// ---- resampling by two -------------------------------------------------------------------------
// An array is seen as `outer` blocks of `length` lines of `inner` voxels; the axis that changes
// runs over the lines (inner is 1 along x, sizeX along y, sizeX*sizeY along z).

/// Halves the number of lines: line i becomes pick(line 2i, line 2i+1), voxel by voxel; a last odd
/// line is dropped.
template <class T, class Pick>
void halveLines(const T* from, T* to, std::size_t inner, std::size_t length, std::size_t outer,
                Pick pick) {
  for (std::size_t o = 0; o < outer; ++o, from += length * inner) {
    const T* line = from;
    if (inner == 1) {
      for (std::size_t i = 0; i < length / 2; ++i) to[i] = pick(line[2 * i], line[2 * i + 1]);
      to += length / 2;
      continue;
    }
    for (std::size_t i = 0; i < length / 2; ++i, line += 2 * inner, to += inner) {
      std::transform(line, line + inner, line + inner, to, pick);
    }
  }
}

/// Doubles the number of lines: every line is repeated.
template <class T>
void doubleLines(const T* from, T* to, std::size_t inner, std::size_t lines) {
  if (inner == 1) {
    for (std::size_t i = 0; i < lines; ++i) to[2 * i] = to[2 * i + 1] = from[i];
    return;
  }
  for (std::size_t i = 0; i < lines; ++i, from += inner, to += 2 * inner) {
    std::copy_n(from, inner, to);
    std::copy_n(from, inner, to + inner);
  }
}

// ---- dilation ----------------------------------------------------------------------------------

/// to[n] = here[n] | below[n] | above[n].
inline void unite(const std::uint8_t* below, const std::uint8_t* here, const std::uint8_t* above,
                  std::size_t count, std::uint8_t* to) {
  for (std::size_t n = 0; n < count; ++n) to[n] = here[n] | below[n] | above[n];
}

/// One pass of a box dilation, in place: every voxel with a positive voxel in the 3 x 3 x 3 block
/// around it, cut off at the border, becomes 1; all others stay as they are.
///
/// The union over the block is taken axis by axis, a plane at a time. Three united planes are kept,
/// so that plane z + 1 has been read before plane z is overwritten.
template <class T>
class BoxDilation {
 public:
  BoxDilation(T* voxels, int sizeX, int sizeY, int sizeZ)
      : voxels_(voxels), sizeX_(sizeX), sizeY_(sizeY), sizeZ_(sizeZ) {}

  void run() {
    const std::size_t plane = planeSize();
    if (plane == 0 || sizeZ_ == 0) return;
    united_.resize(3 * plane);
    rows_.resize(plane);
    padded_.resize(sizeX_ + 2);
    unitePlane(0);
    for (int z = 0; z < sizeZ_; ++z) {
      if (z + 1 < sizeZ_) unitePlane(z + 1);
      const std::uint8_t* below = united(std::max(z - 1, 0));
      const std::uint8_t* here = united(z);
      const std::uint8_t* above = united(std::min(z + 1, sizeZ_ - 1));
      T* out = voxels_ + z * plane;
      for (std::size_t n = 0; n < plane; ++n) {
        out[n] = (here[n] | below[n] | above[n]) ? T{1} : out[n];
      }
    }
  }

 private:
  std::size_t planeSize() const { return static_cast<std::size_t>(sizeX_) * sizeY_; }
  std::uint8_t* united(int z) { return united_.data() + (z % 3) * planeSize(); }

  /// Unites the positive voxels of plane z along x, then along y.
  void unitePlane(int z) {
    const T* in = voxels_ + z * planeSize();
    for (int y = 0; y < sizeY_; ++y, in += sizeX_) {
      std::transform(in, in + sizeX_, padded_.begin() + 1,
                     [](T v) { return static_cast<std::uint8_t>(number(v) > 0); });
      unite(padded_.data(), padded_.data() + 1, padded_.data() + 2, sizeX_, row(y));
    }
    std::uint8_t* out = united(z);
    for (int y = 0; y < sizeY_; ++y, out += sizeX_) {
      unite(row(std::max(y - 1, 0)), row(y), row(std::min(y + 1, sizeY_ - 1)), sizeX_, out);
    }
  }
  std::uint8_t* row(int y) { return rows_.data() + static_cast<std::size_t>(y) * sizeX_; }

  T* voxels_;
  int sizeX_, sizeY_, sizeZ_;
  std::vector<std::uint8_t> united_, rows_, padded_;
};

/// `passes` box dilations of a volume or (sizeZ = 1) slice, in place: a voxel becomes 1 if a
/// positive one lies within `passes` steps along every axis. Any method but "box" ends the process
/// with status 1, if there is a pass to make.
template <class T>
void dilate(T* voxels, int sizeX, int sizeY, int sizeZ, const char* method, int passes) {
  if (passes <= 0) return;
  if (!isNamed(method, "box")) fatal("imdilate method not valid, exit\n", std::cerr, 1);
  // A positive voxel reaches every other one in as many passes as the longest axis has steps; one
  // pass is always made, since it sets the positive voxels to 1.
  passes = std::min(passes, std::max({sizeX - 1, sizeY - 1, sizeZ - 1, 1}));
  BoxDilation<T> dilation(voxels, sizeX, sizeY, sizeZ);
  while (passes-- > 0) dilation.run();
}

}  // namespace tavrel
