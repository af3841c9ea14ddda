// Labels and narrow band of a level-set function on a grid of one, two or three axes.
//
// The sign of Phi is kept as one bit a voxel (1 where Phi > 0, the outside), so that finding the
// interface voxels and growing the band are bit operations on 64 voxels at a time.
// Index order: x fastest, then y, then z; a 2-D grid is a 3-D one with a single plane. Neighbours
// are clamped to the grid, so at the border a voxel is its own neighbour.
// Narrow band: D. Adalsteinsson, J. A. Sethian, J. Comput. Phys. 118 (1995) 269-277.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <vector>

#include "voxExactMath.h"
#include "voxParallel.h"

namespace tavrel {

/// Voxel counts along the axes; Z is 1 for a 2-D grid.
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
          for (int b = 0; b < count; ++b) bits |= BitGrid::Word{values[64 * w + b] > 0} << b;
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

/// Bytes 0x01 at the bytes whose bit is set in `bits`, lowest bit first.
inline constexpr std::array<std::uint64_t, 256> byteOfBit = [] {
  std::array<std::uint64_t, 256> table{};
  for (int bits = 0; bits < 256; ++bits) {
    for (int b = 0; b < 8; ++b) table[bits] |= std::uint64_t(bits >> b & 1) << 8 * b;
  }
  return table;
}();

/// Writes a row of X bytes, eight at a time: bytesOf(word, shift) gives the bytes of the voxels
/// whose bits start at `shift` of word `word` of the row, the first one lowest.
template <typename BytesOf>
void expandRow(int X, char* out, BytesOf&& bytesOf) {
  for (int x = 0; x < X; x += 8) {
    const std::uint64_t bytes = bytesOf(x / 64, x % 64);
    if constexpr (std::endian::native == std::endian::little) {
      if (x + 8 <= X) {
        std::memcpy(out + x, &bytes, 8);
        continue;
      }
    }
    for (int b = 0; b < std::min(8, X - x); ++b) {
      out[x + b] = static_cast<char>(static_cast<signed char>(bytes >> 8 * b & 0xFF));
    }
  }
}

/// label = +-1 at edge voxels, +-3 elsewhere; the sign is the side of the voxel.
inline void labelCodes(const BitGrid& positive, const BitGrid& edge, char* label, int threads = 1) {
  const Grid grid = positive.grid();
  parallelRanges(threads, grid.Z, [&](int first, int last) {
    for (int z = first; z < last; ++z) {
      for (int y = 0; y < grid.Y; ++y) {
        const BitGrid::Word* s = positive.row(y, z);
        const BitGrid::Word* e = edge.row(y, z);
        char* out = label + static_cast<std::size_t>(z) * grid.plane() + 1LL * y * grid.X;
        expandRow(grid.X, out, [&](int w, int shift) {
          constexpr std::uint64_t ones = 0x0101010101010101;
          const std::uint64_t magnitude = 3 * ones - 2 * byteOfBit[e[w] >> shift & 0xFF];
          const std::uint64_t negative = byteOfBit[~s[w] >> shift & 0xFF];
          // A byte b is negated as (b ^ 0xFF) + 1, which never carries for b = 1 or 3.
          return (magnitude ^ negative * 0xFF) + negative;
        });
      }
    }
  });
}

/// mask = 1 where the bit is set, else 0.
inline void maskBytes(const BitGrid& set, char* mask, int threads = 1) {
  const Grid grid = set.grid();
  parallelRanges(threads, grid.Z, [&](int first, int last) {
    for (int z = first; z < last; ++z) {
      for (int y = 0; y < grid.Y; ++y) {
        const BitGrid::Word* row = set.row(y, z);
        expandRow(grid.X, mask + static_cast<std::size_t>(z) * grid.plane() + 1LL * y * grid.X,
                  [&](int w, int shift) { return byteOfBit[row[w] >> shift & 0xFF]; });
      }
    }
  });
}

/// Every bit of a half word, lowest first.
inline constexpr std::array<std::uint32_t, 32> eachBit = [] {
  std::array<std::uint32_t, 32> table{};
  for (int b = 0; b < 32; ++b) table[b] = std::uint32_t{1} << b;
  return table;
}();

/// indices = base + 1 on the positive side, base on the negative side.
inline void sideIndices(const BitGrid& positive, int base, int* indices, int threads = 1) {
  const Grid grid = positive.grid();
  parallelRanges(threads, grid.Z, [&](int first, int last) {
    for (int z = first; z < last; ++z) {
      for (int y = 0; y < grid.Y; ++y) {
        const BitGrid::Word* row = positive.row(y, z);
        int* out = indices + static_cast<std::size_t>(z) * grid.plane() + 1LL * y * grid.X;
        for (int x = 0; x < grid.X; x += 32) {
          const auto bits = static_cast<std::uint32_t>(row[x / 64] >> x % 64);
          const auto index = [=](int b) { return base + int{(bits & eachBit[b]) != 0}; };
          if (x + 32 <= grid.X) {
            for (int b = 0; b < 32; ++b) out[x + b] = index(b);
          } else {
            for (int b = 0; x + b < grid.X; ++b) out[x + b] = index(b);
          }
        }
      }
    }
  });
}

/// The four groups of band voxels, in band order.
enum Group { positiveEdge, negativeEdge, positiveTest, negativeTest };

inline std::array<BitGrid::Word, 4> groupBits(BitGrid::Word positive, BitGrid::Word edge,
                                              BitGrid::Word band) {
  return {positive & edge, ~positive & edge, positive & band & ~edge, ~positive & band & ~edge};
}

/// Number of voxels of each group in planes [first, last). `edge` must be a part of `band`.
inline std::array<int, 4> countGroups(const BitGrid& positive, const BitGrid& edge,
                                      const BitGrid& band, int first, int last) {
  std::array<int, 4> counts{};
  for (int z = first; z < last; ++z) {
    for (int y = 0; y < positive.grid().Y; ++y) {
      for (int w = 0; w < positive.rowWords(); ++w) {
        const auto bits = groupBits(positive.row(y, z)[w], edge.row(y, z)[w], band.row(y, z)[w]);
        for (int g = 0; g < 4; ++g) counts[g] += std::popcount(bits[g]);
      }
    }
  }
  return counts;
}

/// Lists the band voxels of planes [first, last), each group from its own start index:
/// ind[i] = grid index and sub[D*i ...] = coordinates, in increasing grid index.
template <int D>
void listBand(const BitGrid& positive, const BitGrid& edge, const BitGrid& band, int first,
              int last, std::array<int, 4> start, int* ind, int* sub) {
  const Grid grid = positive.grid();
  for (int z = first; z < last; ++z) {
    for (int y = 0; y < grid.Y; ++y) {
      const int rowIndex = y * grid.X + z * grid.plane();
      for (int w = 0; w < positive.rowWords(); ++w) {
        const auto groups = groupBits(positive.row(y, z)[w], edge.row(y, z)[w], band.row(y, z)[w]);
        for (int g = 0; g < 4; ++g) {
          for (BitGrid::Word bits = groups[g]; bits != 0; bits &= bits - 1) {
            const int x = 64 * w + std::countr_zero(bits);
            const int i = start[g]++;
            ind[i] = rowIndex + x;
            int* coordinates = sub + static_cast<std::size_t>(D) * i;
            coordinates[0] = x;
            coordinates[1] = y;
            if constexpr (D == 3) coordinates[2] = z;
          }
        }
      }
    }
  }
}

/// Band indices of the 2*D face neighbours of band voxels [first, last), in the order
/// +x, -x, +y, -y (, +z, -z), with coordinates clamped to the grid. Returns the largest index of a
/// neighbour up along the last axis, 0 if there is none.
template <int D>
int linkNeighbours(Grid grid, const int* indices, const int* ind, const int* sub, int first,
                   int last, int* neighbours) {
  const std::array<int, 3> size{grid.X, grid.Y, grid.Z};
  const std::array<int, 3> stride{1, grid.X, grid.plane()};
  int largest = 0;
  for (int i = first; i < last; ++i) {
    const int* at = indices + ind[i];
    const int* coordinates = sub + static_cast<std::size_t>(D) * i;
    int* out = neighbours + static_cast<std::size_t>(2 * D) * i;
    for (int axis = 0; axis < D; ++axis) {
      out[2 * axis] = at[coordinates[axis] + 1 < size[axis] ? stride[axis] : 0];
      out[2 * axis + 1] = at[coordinates[axis] > 0 ? -stride[axis] : 0];
    }
    largest = std::max(largest, out[2 * D - 2]);
  }
  return largest;
}

}  // namespace tavrel
