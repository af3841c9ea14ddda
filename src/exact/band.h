// The narrow band around the zero level of a function: its arrays, its voxels, their links.
//
// Narrow band: D. Adalsteinsson, J. A. Sethian, J. Comput. Phys. 118 (1995) 269-277.
#pragma once

#include <array>
#include <bit>
#include <cstddef>

#include "grid.h"

namespace tavrel::exact {

/// Stands for a distance or coordinate that is not known (yet).
inline constexpr double unknownDistance = 100000;

/// Views of the arrays of a band. Band order: positive edge, negative edge,
/// positive test, negative test voxels; slots n_nbt and n_nbt + 1 stand for voxels outside the band
/// on the negative and the positive side.
struct Band {
  int n_pedge = 0, n_edge = 0, n_ptest = 0, n_nbt = 0;
  const int* ind;         ///< grid index
  const int* sub;         ///< 3 coordinates a voxel
  const int* neighbours;  ///< 6 band indices a voxel: +x, -x, +y, -y, +z, -z
  const double* Phi;      ///< n_nbt values
  double* F;              ///< speed, n_nbt + 1
  double* Fext;           ///< extension velocity, n_nbt + 2
  double* exact;          ///< interface point, 3 coordinates a slot, n_nbt + 2 slots
  double* usdf;           ///< unsigned distance, n_nbt + 2
  double* sdf;            ///< signed distance, n_nbt + 2

  const int* links(int i) const { return neighbours + 6 * static_cast<std::size_t>(i); }
  const int* coordinates(int i) const { return sub + 3 * static_cast<std::size_t>(i); }
  double* point(int i) const { return exact + 3 * static_cast<std::size_t>(i); }
};

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
/// ind[i] = grid index and sub[3*i ...] = coordinates, in increasing grid index.
inline void listBand(const BitGrid& positive, const BitGrid& edge, const BitGrid& band, int first,
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
            int* coordinates = sub + 3 * static_cast<std::size_t>(i);
            coordinates[0] = x;
            coordinates[1] = y;
            coordinates[2] = z;
          }
        }
      }
    }
  }
}

/// What the index map holds at voxels outside the band; band indices in it are 0 or more.
enum Outside { negativeSide = -2, positiveSide = -1 };

/// The band index or slot that an entry of the index map means in a band of n_nbt voxels.
inline int slotOf(int entry, int n_nbt) { return entry >= 0 ? entry : entry + 2 + n_nbt; }

/// Band indices of the six face neighbours of band voxels [first, last), in the order +x, -x, +y,
/// -y, +z, -z, with coordinates clamped to the grid.
inline void linkNeighbours(Grid grid, const int* indices, const Band& band, int first, int last,
                           int* neighbours) {
  const std::array<int, 3> size{grid.X, grid.Y, grid.Z};
  const std::array<int, 3> stride{1, grid.X, grid.plane()};
  for (int i = first; i < last; ++i) {
    const int* at = indices + band.ind[i];
    const int* coordinates = band.coordinates(i);
    int* out = neighbours + 6 * static_cast<std::size_t>(i);
    for (int axis = 0; axis < 3; ++axis) {
      const int up = at[coordinates[axis] + 1 < size[axis] ? stride[axis] : 0];
      const int down = at[coordinates[axis] > 0 ? -stride[axis] : 0];
      out[2 * axis] = slotOf(up, band.n_nbt);
      out[2 * axis + 1] = slotOf(down, band.n_nbt);
    }
  }
}

}  // namespace tavrel::exact
