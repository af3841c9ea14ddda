// Compression in memory.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace tavrel::report {

/// The bytes as a gzip file whose header has neither name nor time.
std::vector<std::byte> gzip(std::span<const std::byte> bytes);

}  // namespace tavrel::report
