// Large arrays for the narrow band: not initialised, and backed by huge pages where the system has
// them.
//
// Band arrays are read out of order, through the neighbour table, which pages of 2 MiB speed up; so
// do fewer page faults when they are first written. It is only a hint: arrays come from new[] and
// go by delete[] like any other. Whole volumes, which are mostly read from end to end, gain nothing
// and stay on the system's usual pages: a virtual machine may have given its free huge pages back
// to the host, and getting them again takes longer than clearing the small ones.
#pragma once

#include "detail/voxCxx20.h"

// Nothing below compiles without it.
#include <cstddef>
#include <cstdint>
#include <memory>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace tavrel {

inline constexpr std::size_t hugePage = std::size_t{1} << 21;

/// Asks the system to back the memory from `address` on by huge pages as it is first written to.
/// Whole huge pages only; does nothing where there are none.
inline void preferHugePages([[maybe_unused]] void* address, [[maybe_unused]] std::size_t bytes) {
#if defined(__linux__)
  const auto begin = reinterpret_cast<std::uintptr_t>(address);
  const std::uintptr_t first = (begin + hugePage - 1) / hugePage * hugePage;
  const std::uintptr_t end = (begin + bytes) / hugePage * hugePage;
  if (first < end) madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
#endif
}

/// Bytes of memory the machine has, 0 if that is not known.
inline std::uint64_t machineMemory() {
#if defined(__linux__)
  return static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)) *
         static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
#else
  return 0;
#endif
}

/// A new array of `count` elements, not initialised. Throws std::bad_alloc if there is too little
/// memory.
template <class T>
std::unique_ptr<T[]> newArray(std::size_t count) {
  auto array = std::make_unique_for_overwrite<T[]>(count);
  preferHugePages(array.get(), count * sizeof(T));
  return array;
}

/// Uninitialised storage that only grows, so that the steps of an evolution reuse it.
template <typename T>
class Buffer {
 public:
  /// At least `count` elements; their contents are lost if the storage has to grow.
  T* need(std::size_t count) {
    if (count > capacity_ || !data_) {
      data_.reset();
      capacity_ = count + count / 4 + 1;  // pages never touched cost nothing
      data_ = newArray<T>(capacity_);
    }
    return data_.get();
  }

 private:
  std::unique_ptr<T[]> data_;
  std::size_t capacity_ = 0;
};

}  // namespace tavrel
