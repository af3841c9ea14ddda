// A dense volume of voxels and its image operations.
//
// Voxel (i, j, k), i along x, j along y, k along z, stands at p[i + j*sizeX + k*mxn]. `char` voxels
// are signed 8-bit values. Masks hold 1 inside and 0 outside; level-set functions are negative
// inside. Operations that return a matrix return a new one, which the caller deletes; those named
// self..., the single-axis resamplings, the seed, the dilations, Normalize and GammaAdjust work in
// place. Bad arguments end the process with a message.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>
#include <ostream>
#include <type_traits>
#include <utility>
#include <vector>

#include "detail/voxFatal.h"
#include "detail/voxVolumeOps.h"
#include "vox2DMat.h"
#include "voxUtility.h"

/// A volume of sizeX x sizeY x sizeZ voxels of type T. U is the voxel type of the matrices that the
/// conversions between mask and level-set function return and of the mask that `*` takes.
template <class T, class U>
class vox3DMat {
 public:
  T* p = nullptr;  ///< the voxels, made with new[] and released by the destructor
  int sizeX = 0;   ///< voxels along x
  int sizeY = 0;   ///< voxels along y
  int sizeZ = 0;   ///< voxels along z, the number of slices
  int mxn = 0;     ///< sizeX*sizeY, the voxels of one slice

  // ---- life cycle and access ----

  /// An empty matrix without an array.
  vox3DMat() = default;
  /// A matrix of X x Y x Z voxels, not initialised.
  vox3DMat(int X, int Y, int Z) { setup(X, Y, Z); }
  ~vox3DMat() {
    delete[] p;
    tavrel::clear(p, sizeX, sizeY, sizeZ, mxn);
  }
  vox3DMat(const vox3DMat&) = delete;
  vox3DMat& operator=(const vox3DMat&) = delete;

  /// Gives a matrix without an array its sizes and an array that is not initialised; an array that
  /// it already has is not released. Ends the process with status 1 if the sizes are negative or
  /// too large.
  void setup(int X, int Y, int Z) {
    p = new T[tavrel::voxelCount(X, Y, Z)];
    sizeX = X;
    sizeY = Y;
    sizeZ = Z;
    // The size of a plane may be more than an int holds if there is none.
    mxn = static_cast<int>(std::min<long long>(1LL * X * Y, std::numeric_limits<int>::max()));
  }

  /// Non-zero if the matrix has an array.
  int isnotempty() const { return p != nullptr; }
  T* dataaddress() { return p; }
  const T* dataaddress() const { return p; }
  /// A new array {sizeX, sizeY, sizeZ}, which the caller releases with `delete[]`.
  int* getsize() const { return new int[3]{sizeX, sizeY, sizeZ}; }

  /// Sets every voxel to `m`.
  void operator=(T m) { std::fill_n(p, count(), m); }
  /// Adds `m` to every voxel.
  void operator+=(T m) { tavrel::add(p, count(), m); }

  /// A copy of this matrix.
  vox3DMat* duplicate() const {
    auto* copy = new vox3DMat(sizeX, sizeY, sizeZ);
    std::copy_n(p, count(), copy->p);
    return copy;
  }

  /// The sum of all voxels as doubles; of a mask the number of voxels inside.
  double Sum() const { return tavrel::sum(p, count()); }

  // ---- slices, seed, conversions ----

  /// A copy of slice z = k. Ends the process with status 1 if there is no such slice.
  vox2DMat<T, U>* getslice(int k) const {
    checkSlice(k);
    auto* slice = new vox2DMat<T, U>(sizeX, sizeY);
    std::copy_n(plane(k), mxn, slice->p);
    return slice;
  }

  /// Copies `t` into slice z = k. Ends the process with status 1 if there is no such slice or the
  /// sizes differ.
  void setslice(vox2DMat<T, U>* t, int k) {
    checkSlice(k);
    if (t->sizeX != sizeX || t->sizeY != sizeY) {
      tavrel::fatal("getslice: matrices dimensions don't match , exit", std::cerr, 1);
    }
    std::copy_n(t->p, mxn, plane(k));
  }

  /// The voxel-by-voxel product with a mask: this matrix inside it, 0 outside. Sizes that differ or
  /// are 0 end the process with status 0.
  vox3DMat* operator*(const vox3DMat<U, T>& B) const {
    if (sizeX != B.sizeX || sizeY != B.sizeY || sizeZ != B.sizeZ || count() == 0) {
      tavrel::fatal("two matrice are of different size or empty\n", std::cerr, 0);
    }
    auto* product = new vox3DMat(sizeX, sizeY, sizeZ);
    tavrel::multiply(p, count(), B.p, product->p);
    return product;
  }

  /// A box seed: 1 from ceil(min*size) to floor(max*size) - 1 along every axis, 0 elsewhere. The
  /// fractions lie in 0..1; beyond them the box is cut off at the border.
  void setseed(double xmin, double xmax, double ymin, double ymax, double zmin, double zmax) {
    *this = T{0};
    const auto [Xl, Xh] = seedRange(xmin, xmax, sizeX);
    const auto [Yl, Yh] = seedRange(ymin, ymax, sizeY);
    const auto [Zl, Zh] = seedRange(zmin, zmax, sizeZ);
    for (int k = Zl; k < Zh; ++k) {
      for (int j = Yl; j < Yh; ++j) std::fill(row(j, k) + Xl, row(j, k) + std::max(Xl, Xh), T{1});
    }
  }

  /// Level-set function of this mask: 0.5 - voxel.
  vox3DMat<U, T>* VeC2Phi() const {
    auto* phi = new vox3DMat<U, T>(sizeX, sizeY, sizeZ);
    tavrel::maskToPhi(p, count(), phi->p);
    return phi;
  }

  /// Mask of this level-set function: 1 where a voxel is not >= 0, 0 elsewhere.
  vox3DMat<U, T>* Phi2VeC() const {
    auto* mask = new vox3DMat<U, T>(sizeX, sizeY, sizeZ);
    tavrel::phiToMask(p, count(), mask->p);
    return mask;
  }

  /// A mask with 1 where min <= voxel <= max. Ends the process with status 1 if min > max.
  vox3DMat<char, U>* thresholding(T min, T max) const {
    auto* mask = new vox3DMat<char, U>(sizeX, sizeY, sizeZ);
    tavrel::threshold(p, count(), min, max, mask->p);
    return mask;
  }

  // ---- intensities ----

  /// Maps the range of an evenly spaced sample of the voxels (all of them below 200000, otherwise
  /// 100000 to 200000) to 0..1; voxels outside the sample's range fall outside 0..1. A sample
  /// without contrast is only shifted: its value becomes 0. A sample that holds not-a-number makes
  /// every voxel one.
  /// @param report where the two sorting lines go; nullptr for nowhere. The sorted sample is only
  ///               needed for its two ends, so they are found in one pass.
  void Normalize(std::ostream* report = &std::cout) {
    if (report) *report << sortingLine() << std::endl << sortingLine() << std::endl;
    if (count() == 0) return;
    const std::size_t step = std::max<std::size_t>(count() / 100000, 1);
    const auto [min, max] = tavrel::sampledRange(p, count(), step);
    const double range = max == min ? 1.0 : max - min;
    std::transform(p, p + count(), p, [min = min, range](T v) {
      return tavrel::converted<T>((tavrel::number(v) - min) / range);
    });
  }

  /// Raises every voxel to the power `gamma`.
  void GammaAdjust(T gamma) {
    if (gamma == T{1}) return;
    const double exponent = tavrel::number(gamma);
    std::transform(p, p + count(), p, [exponent](T v) {
      return tavrel::converted<T>(std::pow(static_cast<double>(tavrel::number(v)), exponent));
    });
  }

  // ---- resampling by two ----

  /// This matrix halved dnX times along x, dnY times along y, dnZ times along z (counts below 0
  /// halve nothing) by `method`: "min" keeps the smaller of two voxels, "simple" the first. Ends
  /// the process with status 1 if a size is not divisible, or (where anything is halved) if the
  /// method is another.
  vox3DMat* downsampleby2(int dnX, int dnY, int dnZ, const char* method) const {
    auto result = halvedBy({dnX, dnY, dnZ}, method);
    return result ? result.release() : duplicate();
  }

  /// The same in place.
  void selfdownsampleby2(int dnX, int dnY, int dnZ, const char* method) {
    if (auto result = halvedBy({dnX, dnY, dnZ}, method)) swap(*result);
  }

  /// One halving along an axis, in place; the last voxel of an odd size is dropped.
  void downsampleXby2(const char* method) { swap(*halved(0, method)); }
  void downsampleYby2(const char* method) { swap(*halved(1, method)); }
  void downsampleZby2(const char* method) { swap(*halved(2, method)); }

  /// Doubles dnX times along x, dnY times along y, dnZ times along z, in place, by repeating
  /// voxels. `method` must be "simple"; where anything is doubled another one ends the process with
  /// status 1.
  void selfupsampleby2(int dnX, int dnY, int dnZ, const char* method) {
    const std::array counts{dnX, dnY, dnZ};
    for (int axis = 0; axis < 3; ++axis) {
      for (int n = 0; n < std::min(counts[axis], kSizeBits); ++n) swap(*doubled(axis, method));
    }
  }

  /// One doubling along an axis, in place.
  void upsampleXby2(const char* method) { swap(*doubled(0, method)); }
  void upsampleYby2(const char* method) { swap(*doubled(1, method)); }
  void upsampleZby2(const char* method) { swap(*doubled(2, method)); }

  // ---- borders and neighbourhoods ----

  /// This matrix surrounded by zeros: Xn voxels before and Xp after along x, and so on. Negative
  /// widths end the process with status 1.
  vox3DMat* extension(int Xn, int Xp, int Yn, int Yp, int Zn, int Zp) const {
    if (std::min({Xn, Xp, Yn, Yp, Zn, Zp}) < 0) {
      tavrel::fatal("extension: widths must not be negative, exit\n", std::cerr, 1);
    }
    const auto X = std::int64_t{Xn} + sizeX + Xp;
    const auto Y = std::int64_t{Yn} + sizeY + Yp;
    const auto Z = std::int64_t{Zn} + sizeZ + Zp;
    tavrel::voxelCount(X, Y, Z);
    auto* result = new vox3DMat(static_cast<int>(X), static_cast<int>(Y), static_cast<int>(Z));
    T* out = result->p;
    for (int k = -Zn; k < sizeZ + Zp; ++k) {
      for (int j = -Yn; j < sizeY + Yp; ++j) {
        const bool inside = k >= 0 && k < sizeZ && j >= 0 && j < sizeY;
        out = std::fill_n(out, Xn, T{0});
        out = inside ? std::copy_n(row(j, k), sizeX, out) : std::fill_n(out, sizeX, T{0});
        out = std::fill_n(out, Xp, T{0});
      }
    }
    return result;
  }

  /// Cuts such a border off, in place. Widths that are negative or exceed the sizes end the process
  /// with status 1.
  void selfdeextension(int Xn, int Xp, int Yn, int Yp, int Zn, int Zp) {
    const auto X = std::int64_t{sizeX} - Xn - Xp;
    const auto Y = std::int64_t{sizeY} - Yn - Yp;
    const auto Z = std::int64_t{sizeZ} - Zn - Zp;
    if (std::min({Xn, Xp, Yn, Yp, Zn, Zp}) < 0 || std::min({X, Y, Z}) < 0) {
      tavrel::fatal("selfdeextension: widths do not fit the sizes, exit\n", std::cerr, 1);
    }
    vox3DMat inner(static_cast<int>(X), static_cast<int>(Y), static_cast<int>(Z));
    T* out = inner.p;
    for (int k = 0; k < inner.sizeZ; ++k) {
      for (int j = 0; j < inner.sizeY; ++j) {
        out = std::copy_n(row(j + Yn, k + Zn) + Xn, inner.sizeX, out);
      }
    }
    swap(inner);
  }

  /// Every inner voxel becomes the smallest of its six face neighbours (itself not among them); the
  /// border keeps its values. Null if this matrix has no array.
  vox3DMat* filterMinNeigbor() const {
    if (!p) return nullptr;
    auto* result = new vox3DMat(sizeX, sizeY, sizeZ);
    for (int k = 0; k < sizeZ; ++k) {
      for (int j = 0; j < sizeY; ++j) filterRow(j, k, result->row(j, k));
    }
    return result;
  }

  /// Row (j, k) of the same filter, as sizeX values of any type that holds the voxels' values.
  template <class V>
  void filterRow(int j, int k, V* out) const {
    const T* in = row(j, k);
    std::transform(in, in + sizeX, out, [](T v) { return tavrel::converted<V>(v); });
    if (j == 0 || j == sizeY - 1 || k == 0 || k == sizeZ - 1) return;
    for (int i = 1; i < sizeX - 1; ++i) out[i] = tavrel::converted<V>(smallestNeighbour(in + i));
  }

  /// One dilation by a 3 x 3 x 3 box, in place: voxels near a positive one become 1, others stay.
  /// `method` must be "box"; anything else ends the process with status 1.
  void imdilate3D1(const char* method) { imdilate3D(method, 1); }

  /// `bwt` dilations by a 3 x 3 x 3 box; nothing if `bwt` is 0 or less.
  void imdilate3D(const char* method, int bwt) {
    tavrel::dilate(p, sizeX, sizeY, sizeZ, method, bwt);
  }

 private:
  /// Bits of a size: halved so often it is 0, doubled so often it no longer fits.
  static constexpr int kSizeBits = 31;

  std::size_t count() const { return static_cast<std::size_t>(mxn) * sizeZ; }
  T* plane(int k) { return p + static_cast<std::size_t>(k) * mxn; }
  const T* plane(int k) const { return p + static_cast<std::size_t>(k) * mxn; }
  T* row(int j, int k) { return plane(k) + static_cast<std::size_t>(j) * sizeX; }
  const T* row(int j, int k) const { return plane(k) + static_cast<std::size_t>(j) * sizeX; }

  void swap(vox3DMat& other) {
    std::swap(p, other.p);
    std::swap(sizeX, other.sizeX);
    std::swap(sizeY, other.sizeY);
    std::swap(sizeZ, other.sizeZ);
    std::swap(mxn, other.mxn);
  }

  void checkSlice(int k) const {
    if (k < 0 || k >= sizeZ) {
      tavrel::fatal("getslice: input slice number incorrect, exit", std::cerr, 1);
    }
  }

  /// First voxel and end of the seed along an axis, within 0..size.
  static std::pair<int, int> seedRange(double min, double max, int size) {
    const auto within = [size](double v) { return v > 0 ? std::min<double>(v, size) : 0.0; };
    return {static_cast<int>(within(std::ceil(min * size))),
            static_cast<int>(within(std::floor(max * size)))};
  }

  /// The line that `Normalize` reports for sorting values of type T.
  static constexpr const char* sortingLine() {
    if constexpr (std::is_same_v<T, char>) return "char sorting called";
    if constexpr (std::is_same_v<T, int>) return "integer sorting called";
    if constexpr (std::is_same_v<T, float>) return "float sorting called";
    return "double sorting called";
  }

  /// The smallest of the six face neighbours of an inner voxel.
  T smallestNeighbour(const T* v) const {
    const auto smaller = [](T a, T b) { return tavrel::number(b) < tavrel::number(a) ? b : a; };
    return smaller(smaller(smaller(v[1], v[-1]), smaller(v[sizeX], v[-sizeX])),
                   smaller(v[mxn], v[-mxn]));
  }

  /// A matrix of this one's sizes, except for `size` along `axis`.
  std::unique_ptr<vox3DMat> resized(int axis, std::int64_t size) const {
    std::array<std::int64_t, 3> sizes{sizeX, sizeY, sizeZ};
    sizes[axis] = size;
    const auto [X, Y, Z] = sizes;
    tavrel::voxelCount(X, Y, Z);
    return std::make_unique<vox3DMat>(static_cast<int>(X), static_cast<int>(Y),
                                      static_cast<int>(Z));
  }

  /// Voxels from one line across an axis to the next, lines along it, and blocks of such lines.
  struct Lines {
    std::size_t inner, length, outer;
  };
  using Sizes = std::array<std::size_t, 3>;
  static Lines linesAlong(int axis, Sizes size) {
    const auto [X, Y, Z] = size;
    return std::array<Lines, 3>{{{1, X, Y * Z}, {X, Y, Z}, {X * Y, Z, 1}}}[axis];
  }
  Sizes sizes() const {
    return {static_cast<std::size_t>(sizeX), static_cast<std::size_t>(sizeY),
            static_cast<std::size_t>(sizeZ)};
  }

  static void checkHalving(const char* method) {
    if (!tavrel::isNamed(method, "min") && !tavrel::isNamed(method, "simple")) {
      tavrel::fatal("downsample method incorrect,exit\n", std::cerr, 1);
    }
  }

  static void halve(const T* from, T* to, Lines lines, const char* method) {
    const auto [inner, length, outer] = lines;
    if (tavrel::isNamed(method, "min")) {
      tavrel::halveLines(from, to, inner, length, outer,
                         [](T a, T b) { return tavrel::number(b) < tavrel::number(a) ? b : a; });
    } else {
      tavrel::halveLines(from, to, inner, length, outer, [](T a, T) { return a; });
    }
  }

  std::unique_ptr<vox3DMat> halved(int axis, const char* method) const {
    checkHalving(method);
    const Lines lines = linesAlong(axis, sizes());
    auto result = resized(axis, static_cast<std::int64_t>(lines.length / 2));
    halve(p, result->p, lines, method);
    return result;
  }

  std::unique_ptr<vox3DMat> doubled(int axis, const char* method) const {
    if (!tavrel::isNamed(method, "simple"))
      tavrel::fatal("upsample method incorrect,exit\n", std::cerr, 1);
    const auto [inner, length, outer] = linesAlong(axis, sizes());
    auto result = resized(axis, 2 * static_cast<std::int64_t>(length));
    tavrel::doubleLines(p, result->p, inner, length * outer);
    return result;
  }

  /// This matrix halved counts[0] times along x and so on; null if there is nothing to halve. One
  /// plane of the result at a time, so that what is between two halvings stays in cache.
  std::unique_ptr<vox3DMat> halvedBy(std::array<int, 3> counts, const char* method) const {
    if (!istimes(sizeX, std::pow(2.0, counts[0])) || !istimes(sizeY, std::pow(2.0, counts[1])) ||
        !istimes(sizeZ, std::pow(2.0, counts[2]))) {
      tavrel::fatal("dimensions don't match, exit\n", std::cerr, 1);
    }
    for (int& count : counts) count = std::clamp(count, 0, kSizeBits);
    const int steps = counts[0] + counts[1] + counts[2];
    if (steps == 0) return nullptr;
    checkHalving(method);
    auto result =
        std::make_unique<vox3DMat>(sizeX >> counts[0], sizeY >> counts[1], sizeZ >> counts[2]);
    std::array<std::vector<T>, 2> buffers;  // what is between two halvings
    for (int k = 0; k < result->sizeZ; ++k) {
      const T* from = plane(k << counts[2]);
      Sizes size{sizes()[0], sizes()[1], std::size_t{1} << counts[2]};
      int step = 0;
      for (int axis = 0; axis < 3; ++axis) {
        for (int n = 0; n < counts[axis]; ++n) {
          const Lines lines = linesAlong(axis, size);
          size[axis] /= 2;
          std::vector<T>& buffer = buffers[++step % 2];
          if (step < steps) buffer.resize(std::max(buffer.size(), size[0] * size[1] * size[2]));
          T* const to = step < steps ? buffer.data() : result->plane(k);
          halve(from, to, lines, method);
          from = to;
        }
      }
    }
    return result;
  }
};
