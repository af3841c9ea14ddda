// One place that knows which C++ type a NIfTI datatype code stands for.
#pragma once

#include <nifti/nifti1.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <type_traits>

namespace tavrel::scan {

/// Calls `f` with a std::type_identity of the type of one voxel. The 128-bit type is the machine's
/// `long double`, as in the reference library.
template <class F>
decltype(auto) withVoxelType(int datatype, F&& f) {
  switch (datatype) {
    case NIFTI_TYPE_UINT8:
      return f(std::type_identity<std::uint8_t>{});
    case NIFTI_TYPE_INT8:
      return f(std::type_identity<std::int8_t>{});
    case NIFTI_TYPE_INT16:
      return f(std::type_identity<std::int16_t>{});
    case NIFTI_TYPE_UINT16:
      return f(std::type_identity<std::uint16_t>{});
    case NIFTI_TYPE_INT32:
      return f(std::type_identity<std::int32_t>{});
    case NIFTI_TYPE_UINT32:
      return f(std::type_identity<std::uint32_t>{});
    case NIFTI_TYPE_INT64:
      return f(std::type_identity<std::int64_t>{});
    case NIFTI_TYPE_UINT64:
      return f(std::type_identity<std::uint64_t>{});
    case NIFTI_TYPE_FLOAT32:
      return f(std::type_identity<float>{});
    case NIFTI_TYPE_FLOAT64:
      return f(std::type_identity<double>{});
    case NIFTI_TYPE_FLOAT128:
      return f(std::type_identity<long double>{});
  }
  throw std::logic_error("a datatype that no header passes with");
}

/// The value whose bytes begin at `p`, of either byte order.
template <class T>
T loadVoxel(const std::byte* p, bool swapped) {
  T value;
  std::byte bytes[sizeof(T)];
  if (swapped) {
    std::reverse_copy(p, p + sizeof(T), bytes);
    p = bytes;
  }
  std::memcpy(&value, p, sizeof value);
  return value;
}

/// Writes a value's bytes to `p` in either byte order.
template <class T>
void storeVoxel(T value, std::byte* p, bool swapped) {
  std::memcpy(p, &value, sizeof value);
  if (swapped) std::reverse(p, p + sizeof value);
}

}  // namespace tavrel::scan
