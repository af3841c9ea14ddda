// Pixels as PNG files, made fast rather than small.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace tavrel::scan {

/// The bytes of a PNG file.
/// @param row  gives the first pixel of a row, counted from the top, as 0xRRGGBB in the lower bits
/// @throws std::bad_alloc
std::vector<std::byte> encodePng(int width, int height,
                                 const std::function<const std::uint32_t*(int y)>& row);

}  // namespace tavrel::scan
