// A dense slice of voxels and its image operations, the 2-D twin of vox3DMat.
//
// Pixel (i, j), i along x and j along y, stands at p[i + j*sizeX]. `char` pixels are signed 8-bit
// values. Masks hold 1 inside and 0 outside; level-set functions are negative inside. Operations
// that return a matrix return a new one, which the caller deletes.
#pragma once

#include <algorithm>
#include <cstddef>

#include "detail/voxVolumeOps.h"

/// A slice of sizeX x sizeY pixels of type T. U is the pixel type of the matrices that the
/// conversions between mask and level-set function return.
template <class T, class U>
class vox2DMat {
 public:
  T* p = nullptr;  ///< the pixels, made with new[] and released by the destructor
  int sizeX = 0;   ///< pixels along x
  int sizeY = 0;   ///< pixels along y
  int mxn = 0;     ///< sizeX*sizeY

  /// An empty matrix without an array.
  vox2DMat() = default;
  /// A matrix of X x Y pixels, not initialised.
  vox2DMat(int X, int Y) { setup(X, Y); }
  ~vox2DMat() {
    delete[] p;
    tavrel::clear(p, sizeX, sizeY, mxn);
  }
  vox2DMat(const vox2DMat&) = delete;
  vox2DMat& operator=(const vox2DMat&) = delete;

  /// Gives a matrix without an array its sizes and an array that is not initialised; an array that
  /// it already has is not released. Ends the process with status 1 if the sizes are negative or
  /// too large.
  void setup(int X, int Y) {
    p = new T[tavrel::voxelCount(X, Y)];
    sizeX = X;
    sizeY = Y;
    mxn = X * Y;
  }

  /// Non-zero if the matrix has an array.
  int isnotempty() const { return p != nullptr; }
  T* dataaddress() { return p; }
  const T* dataaddress() const { return p; }
  /// A new array {sizeX, sizeY}, which the caller releases with `delete[]`.
  int* getsize() const { return new int[2]{sizeX, sizeY}; }

  /// Sets every pixel to `m`.
  void operator=(T m) { std::fill_n(p, mxn, m); }

  /// A copy of this matrix.
  vox2DMat* duplicate() const {
    auto* copy = new vox2DMat(sizeX, sizeY);
    std::copy_n(p, mxn, copy->p);
    return copy;
  }

  /// Adds `m` to every pixel.
  void operator+=(T m) { tavrel::add(p, count(), m); }

  /// The sum of all pixels as doubles; of a mask the number of pixels inside.
  double Sum() const { return tavrel::sum(p, count()); }

  /// Level-set function of this mask: 0.5 - pixel.
  vox2DMat<U, T>* VeC2Phi() const {
    auto* phi = new vox2DMat<U, T>(sizeX, sizeY);
    tavrel::maskToPhi(p, count(), phi->p);
    return phi;
  }

  /// Mask of this level-set function: 1 where a pixel is not >= 0, 0 elsewhere.
  vox2DMat<U, T>* Phi2VeC() const {
    auto* mask = new vox2DMat<U, T>(sizeX, sizeY);
    tavrel::phiToMask(p, count(), mask->p);
    return mask;
  }

  /// A mask with 1 where min <= pixel <= max. Ends the process with status 1 if min > max.
  vox2DMat<char, U>* thresholding(T min, T max) const {
    auto* mask = new vox2DMat<char, U>(sizeX, sizeY);
    tavrel::threshold(p, count(), min, max, mask->p);
    return mask;
  }

  /// One dilation by a 3 x 3 box, in place: pixels near a positive one become 1, others stay.
  /// `method` must be "box"; anything else ends the process with status 1.
  void imdilate2D1(const char* method) { imdilate2D(method, 1); }

  /// `bwt` dilations by a 3 x 3 box; nothing if `bwt` is 0 or less.
  void imdilate2D(const char* method, int bwt) { tavrel::dilate(p, sizeX, sizeY, 1, method, bwt); }

 private:
  std::size_t count() const { return static_cast<std::size_t>(mxn); }
};
