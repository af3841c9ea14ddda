// The grid that an evolution works on, and one bit a voxel of it.
//
// Index order: x fastest, then y, then z.
#pragma once

#include "detail/voxCxx20.h"

// Nothing below compiles without it.
#include <cstddef>
#include <cstdint>
#include <vector>

namespace tavrel::exact {

/// Voxel counts along the axes.
struct Grid {
  int X = 0, Y = 0, Z = 0;
  int plane() const { return X * Y; }
  int voxels() const { return X * Y * Z; }
  bool operator==(const Grid&) const = default;
};

/// One bit a voxel. Every row along x starts at a word of its own; unused bits are 0.
class BitGrid {
 public:
  using Word = std::uint64_t;

  void reset(Grid grid) {
    if (grid == grid_) return;
    grid_ = grid;
    rowWords_ = (grid.X + 63) / 64;
    words_.assign(static_cast<std::size_t>(rowWords_) * grid.Y * grid.Z, 0);
  }
  const Grid& grid() const { return grid_; }
  int rowWords() const { return rowWords_; }
  Word* row(int y, int z) { return words_.data() + rowOffset(y, z); }
  const Word* row(int y, int z) const { return words_.data() + rowOffset(y, z); }
  /// The bits of word w that belong to voxels.
  Word valid(int w) const {
    const int rest = grid_.X - 64 * w;
    return rest >= 64 ? ~Word{0} : (Word{1} << rest) - 1;
  }
  bool test(int x, int y, int z) const { return row(y, z)[x / 64] >> (x % 64) & 1; }

 private:
  std::size_t rowOffset(int y, int z) const {
    return static_cast<std::size_t>(rowWords_) * (static_cast<std::size_t>(z) * grid_.Y + y);
  }
  Grid grid_;
  int rowWords_ = 0;
  std::vector<Word> words_;
};

}  // namespace tavrel::exact
