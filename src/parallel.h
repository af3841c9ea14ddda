// Work sharing for independent pieces of one stage. The pieces never overlap in what they write,
// so the result is the same for every thread count.
#pragma once

#include "detail/voxCxx20.h"

// Nothing below compiles without it.
#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace tavrel {

/// Calls task(i) once for every i in [0, count), on up to `threads` threads (the caller's is one of
/// them, and the only one where no other can be made). Pieces are handed out in increasing order.
/// The first exception is rethrown at the end.
template <typename Task>
void parallelFor(int threads, int count, Task&& task) {
  threads = std::min(threads, count);
  if (threads <= 1) {
    for (int i = 0; i < count; ++i) task(i);
    return;
  }
  std::atomic<int> next{0};
  std::exception_ptr error;
  std::mutex errorLock;
  auto work = [&] {
    try {
      for (int i = next++; i < count; i = next++) task(i);
    } catch (...) {
      const std::lock_guard guard(errorLock);
      if (!error) error = std::current_exception();
    }
  };
  {
    std::vector<std::jthread> helpers;
    try {
      for (int t = 1; t < threads; ++t) helpers.emplace_back(work);
    } catch (const std::system_error&) {
    }
    work();
  }
  if (error) std::rethrow_exception(error);
}

/// Splits [0, size) into about 4 ranges a thread and calls task(begin, end) for each.
template <typename Task>
void parallelRanges(int threads, int size, Task&& task) {
  const int pieces = threads <= 1 ? 1 : 4 * threads;
  parallelFor(threads, pieces, [&](int i) {
    const auto bound = [&](int k) { return static_cast<int>(1LL * size * k / pieces); };
    if (bound(i) < bound(i + 1)) task(bound(i), bound(i + 1));
  });
}

}  // namespace tavrel
