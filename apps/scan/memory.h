// How much memory the process may still take.
#pragma once

#include <cstdint>
#include <filesystem>

namespace tavrel::scan {

/// Lets freed memory be used again for the next array instead of going back to the system, which
/// clears every page that it gives. For the main function of a command.
void keepFreedMemory();

/// Bytes that can be had without pushing others out: what is free on the machine, in each of the
/// control groups (versions 1 and 2) that the process lives in, and under the limit of its address
/// space, whichever is least. What is not known does not count.
/// @param root  where proc and sys/fs/cgroup are found
std::uint64_t availableMemory(const std::filesystem::path& root = "/");

}  // namespace tavrel::scan
