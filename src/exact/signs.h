// The two sides of the interface on a grid, as one bit a voxel (1 where Phi > 0, the outside), so
// that finding the interface voxels and growing the band are bit operations on 64 voxels at a time.
//
// Neighbours are clamped to the grid, so at the border a voxel is its own neighbour.
#pragma once

#include <algorithm>
#include <array>
#include <vector>

#include "detail/voxValues.h"
#include "grid.h"
#include "../parallel.h"

namespace tavrel::exact {

/// positive = 1 where Phi > 0. Phi holds one double a voxel.
inline void signBits(const double* Phi, Grid grid, BitGrid& positive, int threads = 1) {
  positive.reset(grid);
  parallelRanges(threads, grid.Z, [&](int first, int last) {
    for (int z = first; z < last; ++z) {
      for (int y = 0; y < grid.Y; ++y) {
        const double* values = Phi + static_cast<std::size_t>(z) * grid.plane() + 1LL * y * grid.X;
        BitGrid::Word* row = positive.row(y, z);
        for (int w = 0; w < positive.rowWords(); ++w) {
          const int count = std::min(64, grid.X - 64 * w);
          BitGrid::Word bits = 0;
          for (int b = 0; b < count; ++b)
            bits |= BitGrid::Word{isPositive(values[64 * w + b])} << b;
          row[w] = bits;
        }
      }
    }
  });
}

/// edge = 1 at every voxel that has a face neighbour on the other side.
inline void interfaceBits(const BitGrid& positive, BitGrid& edge, int threads = 1) {
  using Word = BitGrid::Word;
  const Grid grid = positive.grid();
  const int words = positive.rowWords();
  edge.reset(grid);
  parallelRanges(threads, grid.Z, [&](int first, int last) {
    for (int z = first; z < last; ++z) {
      for (int y = 0; y < grid.Y; ++y) {
        const Word* here = positive.row(y, z);
        const std::array<const Word*, 4> rows{
            positive.row(std::min(y + 1, grid.Y - 1), z), positive.row(std::max(y - 1, 0), z),
            positive.row(y, std::min(z + 1, grid.Z - 1)), positive.row(y, std::max(z - 1, 0))};
        Word* out = edge.row(y, z);
        for (int w = 0; w < words; ++w) {
          const Word s = here[w];
          // Voxels x and x+1 differ: both are interface voxels. The row's last voxel has no x+1.
          const Word after = w + 1 < words ? here[w + 1] << 63 : 0;
          const Word inside = w + 1 < words ? ~Word{0} : positive.valid(w) >> 1;
          const Word steps = (s ^ (s >> 1 | after)) & inside;
          const Word carry = w > 0 ? (here[w - 1] >> 63 ^ s) & 1 : 0;
          Word bits = steps | steps << 1 | carry;
          for (const Word* other : rows) bits |= s ^ other[w];
          out[w] = bits;
        }
      }
    }
  });
}

/// Grows the set by `width` voxels along every axis (a cube of side 2*width + 1 around each of its
/// voxels, cut off at the border). `scratch` is overwritten.
inline void dilateBox(BitGrid& set, int width, BitGrid& scratch, int threads = 1) {
  using Word = BitGrid::Word;
  const Grid grid = set.grid();
  const int words = set.rowWords();
  width = std::min(width, std::max({grid.X, grid.Y, grid.Z}));  // more steps lead nowhere
  scratch.reset(grid);
  // One axis at a time; along y and z a row becomes the union of the rows up to `width` away.
  const auto along = [&](const BitGrid& from, BitGrid& to, bool alongZ) {
    parallelRanges(threads, grid.Z, [&](int first, int last) {
      for (int z = first; z < last; ++z) {
        for (int y = 0; y < grid.Y; ++y) {
          const int centre = alongZ ? z : y;
          const int low = std::max(centre - width, 0);
          const int high = std::min(centre + width, (alongZ ? grid.Z : grid.Y) - 1);
          Word* out = to.row(y, z);
          std::fill_n(out, words, 0);
          for (int k = low; k <= high; ++k) {
            const Word* in = alongZ ? from.row(y, k) : from.row(k, z);
            for (int w = 0; w < words; ++w) out[w] |= in[w];
          }
        }
      }
    });
  };
  if (width <= 0) return;
  parallelRanges(threads, grid.Z, [&](int first, int last) {
    std::vector<Word> old(words + 2, 0);
    for (int z = first; z < last; ++z) {
      for (int y = 0; y < grid.Y; ++y) {
        Word* row = set.row(y, z);
        // Dilations along x by 1 compose; more than a row's length of them change nothing.
        for (int pass = 0; pass < std::min(width, grid.X); ++pass) {
          std::copy_n(row, words, old.begin() + 1);
          for (int w = 0; w < words; ++w) {
            const Word s = old[w + 1];
            row[w] = (s | s << 1 | s >> 1 | old[w] >> 63 | old[w + 2] << 63) & set.valid(w);
          }
        }
      }
    }
  });
  along(set, scratch, false);
  along(scratch, set, true);
}

}  // namespace tavrel::exact
