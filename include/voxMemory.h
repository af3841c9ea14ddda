// Large arrays for voxels: not initialised, and backed by huge pages where the system has them.
//
// A fresh volume is written once from end to end, so most of its cost is the system's work of
// handing over memory page by page. Asking for pages of 2 MiB instead of 4 KiB makes that work a
// tenth or less. It is only a hint: arrays come from new[] and go by delete[] like any other.
#pragma once

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

}  // namespace tavrel
