// How many threads to work with where nobody has said so.
#pragma once

#include <cstdlib>
#include <string>
#include <thread>

#if defined(__linux__)
#include <sched.h>
#endif

namespace tavrel {

inline constexpr char kThreadsVariable[] = "TAVREL_THREADS";
inline constexpr int kMostThreads = 1024;

/// Processors that this process may run on (its affinity, by which schedulers grant cores), at
/// least 1.
inline int usableProcessors() {
#if defined(__linux__)
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 0) return CPU_COUNT(&set);
#endif
  const unsigned all = std::thread::hardware_concurrency();
  return all > 0 ? static_cast<int>(all) : 1;
}

/// The number that TAVREL_THREADS holds; 0 if it is not set or empty, -1 if it is no number from 1
/// to kMostThreads.
inline int threadsAsked() {
  const char* text = std::getenv(kThreadsVariable);
  if (!text || !*text) return 0;
  char* end = nullptr;
  const long number = std::strtol(text, &end, 10);
  return *end == '\0' && number >= 1 && number <= kMostThreads ? static_cast<int>(number) : -1;
}

/// As many as asked for, otherwise the usable processors.
inline int usualThreads() { return threadsAsked() > 0 ? threadsAsked() : usableProcessors(); }

/// What to say where threadsAsked() is -1.
inline std::string wrongThreadsVariable() {
  return std::string(kThreadsVariable) + ": \"" + std::getenv(kThreadsVariable) +
         "\" is not a number from 1 to " + std::to_string(kMostThreads);
}

}  // namespace tavrel
