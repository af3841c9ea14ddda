// Small records for sorting, comparators for qsort, and reductions over arrays.
//
// All comparators sort ascending and put values that are not a number last. `char` values count as
// signed 8-bit numbers whatever the compiler's default. Nothing here keeps state between calls.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <limits>
#include <type_traits>

#include "detail/voxValues.h"

namespace tavrel {

/// -1, 0 or 1 as a < b, a == b or a > b, with not-a-number after every number.
template <class T>
int compareNumbers(T a, T b) {
  if (a < b) return -1;
  if (a > b) return 1;
  return static_cast<int>(std::isnan(a)) - static_cast<int>(std::isnan(b));
}

/// The element that a qsort comparator's argument points to.
template <class T>
const T& element(const void* address) {
  return *static_cast<const T*>(address);
}

}  // namespace tavrel

/// An index with three integer keys in a block of its own, which the record owns. Not copyable.
struct triple {
  int ind = 0;
  int* data = nullptr;

  triple() = default;
  triple(int i, int d1, int d2, int d3) { setup(i, d1, d2, d3); }
  ~triple() {
    delete[] data;
    tavrel::clear(data, ind);
  }
  triple(const triple&) = delete;
  triple& operator=(const triple&) = delete;

  /// Fills a default-constructed record; a block that it already holds is not released.
  void setup(int i, int d1, int d2, int d3) {
    ind = i;
    data = new int[3]{d1, d2, d3};
  }
};

/// An index with a distance as its sort key.
struct OrderedPtd {
  int ind = 0;
  double data = 0.0;

  OrderedPtd() = default;
  OrderedPtd(int i, double d) : ind(i), data(d) {}
  void setup(int i, double d) { *this = {i, d}; }
};

/// The twin of `OrderedPtd` for level-set functions of type float; its key is a double too.
struct OrderedPtf {
  int ind = 0;
  double data = 0.0;

  OrderedPtf() = default;
  OrderedPtf(int i, double d) : ind(i), data(d) {}
  void setup(int i, double d) { *this = {i, d}; }
};

/// Orders `triple` records by their three keys in turn. Never 0: equal keys answer -1.
inline int comparetriple(const void* a, const void* b) {
  const int* x = tavrel::element<triple>(a).data;
  const int* y = tavrel::element<triple>(b).data;
  return std::lexicographical_compare(y, y + 3, x, x + 3) ? 1 : -1;
}

/// Orders doubles.
inline int comparedouble(const void* a, const void* b) {
  return tavrel::compareNumbers(tavrel::element<double>(a), tavrel::element<double>(b));
}

/// Orders floats.
inline int comparefloat(const void* a, const void* b) {
  return tavrel::compareNumbers(tavrel::element<float>(a), tavrel::element<float>(b));
}

/// Orders ints: a - b, held within the range of int.
inline int compareint(const void* a, const void* b) {
  const auto difference = std::int64_t{tavrel::element<int>(a)} - tavrel::element<int>(b);
  return static_cast<int>(std::clamp<std::int64_t>(difference, std::numeric_limits<int>::min(),
                                                   std::numeric_limits<int>::max()));
}

/// Orders chars by their signed values: a - b.
inline int comparechar(const void* a, const void* b) {
  return tavrel::element<signed char>(a) - tavrel::element<signed char>(b);
}

/// Orders `OrderedPtd` records by distance. Never 0: equal distances answer -1.
inline int compareOrderedPtd(const void* a, const void* b) {
  using tavrel::element;
  return tavrel::compareNumbers(element<OrderedPtd>(a).data, element<OrderedPtd>(b).data) > 0 ? 1
                                                                                              : -1;
}

/// Orders `OrderedPtf` records by distance. Never 0: equal distances answer -1.
inline int compareOrderedPtf(const void* a, const void* b) {
  using tavrel::element;
  return tavrel::compareNumbers(element<OrderedPtf>(a).data, element<OrderedPtf>(b).data) > 0 ? 1
                                                                                              : -1;
}

/// Stores the largest absolute value of `array[0 .. length-1]` in `*max`; nothing if it is empty.
template <class T>
void maxabs(T* array, int length, T* max) {
  for (int i = 0; i < length; ++i) {
    const T value = tavrel::magnitude(array[i]);
    if (i == 0 || value > *max) *max = value;
  }
}

/// Stores the smallest value of `array[0 .. length-1]` and the index of its first occurrence;
/// nothing if the array is empty.
template <class T>
void minvandi(T* array, int length, T* minvalue, int* minindex) {
  for (int i = 0; i < length; ++i) {
    if (i == 0 || tavrel::number(array[i]) < tavrel::number(*minvalue)) {
      *minvalue = array[i];
      *minindex = i;
    }
  }
}

/// A new array of `m` records: record i holds index i and row i of the table `mat` of three ints a
/// row. The caller releases it with `delete[]` or `DeletetripleArray`.
inline triple* mat2DtotripleArray(int* mat, int m) {
  auto* records = new triple[static_cast<std::size_t>(std::max(m, 0))];
  for (int i = 0; i < m; ++i, mat += 3) records[i].setup(i, mat[0], mat[1], mat[2]);
  return records;
}

/// Releases an array made by `mat2DtotripleArray`, with the block of every record; null is ignored.
inline void DeletetripleArray(triple* p, int /*m*/) { delete[] p; }

/// Prints the first `m` records on standard output, a line each: "index: key key key".
inline void PrinttripleArray(triple* p, int m) {
  for (int i = 0; i < m; ++i) {
    const int* keys = p[i].data;
    std::cout << p[i].ind << ": " << keys[0] << " " << keys[1] << " " << keys[2] << std::endl;
  }
}

/// 1 if `num` is an exact multiple of `denom`, otherwise 0 (also where there is no remainder).
inline int istimes(double num, double denom) { return std::fmod(num, denom) == 0.0 ? 1 : 0; }
