// Exact region sums: image sums over the two sides of the interface in a box of up to 21 voxels an
// axis around every interface voxel, equal in every bit to plain loops over the box.
//
// The plain sum is a chain of rounded additions in z, y, x order, and its last bits are part of the
// result. While the running sum S stays in one binade [2^e, 2^(e+1)), adding v >= 0 adds
// round(v / ulp) to S read as an integer, with ulp = 2^(e-52), whatever S is - unless v lies half
// way between two multiples of ulp. Integers may be summed in any order, so a whole piece of the
// box can be added in one step, which is valid when
//   * S is in the binade the integers were made for and still is after the step (S only grows, so
//     that it never left it), and
//   * no voxel of the piece is a half-way case, negative, or out of the tables' range.
// Where a plane of the box fails, it is split into the rows before the one in which S leaves its
// binade, that row, voxel by voxel, and the rows after it. Sums too small (or too large) for the
// tables, and planes with half-way cases, are added voxel by voxel, several boxes side by side in a
// vector, and once for all boxes that have the same window and sum.
//
// Tables. With F = floor(v * 2^B), the integer of v in the binade whose ulp drops the last k bits
// of F is (F + c_k) / 2^k, where c_k = (round F to k bits) - F is small. So one 64-bit sum of F and
// one 32-bit sum of c_k a binade serve all binades; a half-way voxel adds `tieUnit` to the latter,
// larger than all c_k of a plane together, so that it shows. Sums run over windows of 21 voxels
// along x and are accumulated along y: any set of consecutive rows of a window is the difference of
// two entries.
//
// Work is done a tile of columns at a time, plane by plane along z: each plane's tables are built
// once, in cache, and added to every interface voxel of the tile whose box contains the plane.
// Exact floating-point summation by integers: U. Kulisch, "Computer Arithmetic and Validity"
// (2008); the ulp argument: J.-M. Muller et al., "Handbook of Floating-Point Arithmetic" (2018),
// ch. 2.
//
// What is where: this file, what callers see; region_sums/tables.h, the tables of a plane and steps
// by them; split_planes.h and plain_windows.h, what is done where a step is not valid; tile.h, a
// tile from its first plane to its last; kernels.h, the same code for each instruction set;
// ../region_sums.cpp, how voxels are shared out among tiles.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "grid.h"
#include "instruction_set.h"

namespace tavrel::exact {

/// Half-width of the region box, in voxels.
inline constexpr int boxSize = 10;

/// Sums and voxel counts of the two sides of the interface in the box around a voxel.
struct RegionSums {
  double positive = 0, negative = 0;
  int nPositive = 0, nNegative = 0;
};

/// The plain loop that defines the sums: z outermost, then y, then x.
/// @param image, label  one value a voxel of the grid; label > 0 (as signed 8 bits) is positive
/// @param centre        grid index of the voxel
inline RegionSums plainRegionSums(const double* image, const char* label, Grid grid, int centre) {
  const int cx = centre % grid.X, cy = centre / grid.X % grid.Y, cz = centre / grid.plane();
  RegionSums sums;
  for (int z = std::max(cz - boxSize, 0); z <= std::min(cz + boxSize, grid.Z - 1); ++z) {
    for (int y = std::max(cy - boxSize, 0); y <= std::min(cy + boxSize, grid.Y - 1); ++y) {
      for (int x = std::max(cx - boxSize, 0); x <= std::min(cx + boxSize, grid.X - 1); ++x) {
        const int g = x + y * grid.X + z * grid.plane();
        const bool positive = static_cast<signed char>(label[g]) > 0;
        (positive ? sums.positive : sums.negative) += image[g];
        ++(positive ? sums.nPositive : sums.nNegative);
      }
    }
  }
  return sums;
}

/// Number of voxels in the box around voxel (x, y, z).
inline int boxVoxels(Grid grid, int x, int y, int z) {
  const auto extent = [](int c, int size) {
    return std::min(c + boxSize, size - 1) - std::max(c - boxSize, 0) + 1;
  };
  return extent(x, grid.X) * extent(y, grid.Y) * extent(z, grid.Z);
}

/// Region sums of many voxels at once. An object keeps its work space from call to call.
class RegionSummer {
 public:
  RegionSummer();
  ~RegionSummer();
  /// @param image, label  one value a voxel of the grid; label > 0 (as signed 8 bits) is positive
  /// @param centres       grid indices of the voxels
  /// @param sums          receives the result of centres[i] in sums[i]
  void sum(const double* image, const char* label, Grid grid, std::span<const int> centres,
           std::span<RegionSums> sums, int threads = 1,
           InstructionSet instructions = widestInstructionSet());

  /// The same in steps, for callers with other work to share out among their threads: arranges the
  /// voxels in pieces, which can then be summed in any order and at the same time. The arguments
  /// are those of sum().
  void arrange(Grid grid, std::span<const int> centres, int threads);
  int pieces() const { return static_cast<int>(tiles_.size()); }
  /// Sums piece 0 to pieces() - 1. `sums` has a place for every voxel that was arranged; those of
  /// the piece are written.
  void sumPiece(int piece, const double* image, const char* label, std::span<RegionSums> sums,
                InstructionSet instructions = widestInstructionSet());

 private:
  struct Worker;  // the tables and lists of a thread

  /// How the planes of a grid are cut into tiles.
  struct Tiling {
    Grid grid;
    int sideX, sideY;
    int tilesX() const { return (grid.X + sideX - 1) / sideX; }
    int tiles() const { return tilesX() * ((grid.Y + sideY - 1) / sideY); }
    std::size_t planesATile() const;
  };

  /// Where a voxel stands among the tiles.
  struct Key {
    std::size_t bucket;    ///< number of its tile, block and plane
    int place;             ///< index y * reach + x within the tile
    std::uint16_t column;  ///< the same within the block: y * blockSide + x
    std::uint16_t voxels;  ///< in its box
  };

  Key keyOf(int x, int y, int z) const;
  void findKeys(std::span<const int> centres, int first, int last);
  void sortByTile(std::span<const int> centres, int threads);
  void largestFirst();
  std::unique_ptr<Worker> borrowWorker();
  void returnWorker(std::unique_ptr<Worker> worker);

  Tiling tiling_{};
  std::vector<int> tiles_;
  std::vector<Key> keys_;
  std::vector<int> byColumn_, starts_, order_;
  std::vector<std::unique_ptr<Worker>> idle_;
  std::mutex lock_;
};

}  // namespace tavrel::exact
