// One resolution of a scan as the evolution reads it: intensities as 12-bit integers, and their
// sums over the surroundings of every block of voxels.
//
// The volume has a border of one voxel on all sides that the surface never enters, and rows of
// whole words of a BitVolume: voxel (x, y, z) of the image has the index
// ((z + 1) * rows + y + 1) * rowLength + x + 1 here, the same as its bit in a mask of `size`.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "bit_volume.h"

namespace tavrel::strip {

/// A 16-bit volume, x fastest.
struct Intensities {
  Grid grid;
  std::vector<std::uint16_t> values;  ///< 0 to kFullScale
};
inline constexpr int kFullScale = 4096;

/// Every voxel becomes the least of its six face neighbours; those on the border stay.
void minimumFilter(Intensities& image);
/// Half the resolution: the least of 2 x 2 x 2 voxels; a last odd voxel stands alone.
Intensities halved(const Intensities& image);

/// Number and sum of the intensities of some voxels in one integer, so that both are added at once:
/// sum * 2^kCountBits + number.
using CountedSum = std::int64_t;
inline constexpr int kCountBits = 24;
constexpr CountedSum counted(int intensity) { return (CountedSum{intensity} << kCountBits) + 1; }
constexpr std::int64_t countOf(CountedSum sum) { return sum & ((CountedSum{1} << kCountBits) - 1); }
/// Of at least one voxel.
constexpr double meanOf(CountedSum sum) { return double(sum >> kCountBits) / double(countOf(sum)); }

/// Intensities with the border, and the sums over windows of blocks.
class LevelImage {
 public:
  /// Half-width of a window in voxels: it is some 21 voxels wide, in whole blocks.
  static constexpr int kReach = 10;

  /// @param block  edge of a block in voxels, a power of two
  /// @throws std::length_error if it has more voxels than an int counts
  LevelImage(const Intensities& image, int block)
      : LevelImage(image, {{0, 0, 0}, image.grid.size}, block) {}
  /// Of a part of a volume.
  LevelImage(const Intensities& image, const Box& part, int block, int threads = 1);

  const Grid& grid() const { return grid_; }    ///< without the border
  const Size& size() const { return size_; }    ///< with the border
  int rowLength() const { return rowLength_; }  ///< voxels from row to row
  std::span<const std::uint16_t> values() const { return {values_.get(), voxels_}; }
  /// Of voxel (x, y, z), where the border does not count.
  int value(int x, int y, int z) const {
    return values_[(std::size_t(z + 1) * size_[1] + y + 1) * rowLength_ + x + 1];
  }
  /// Index of the block that voxel (x, y, z) is in, where the border does not count.
  std::size_t blockOf(int x, int y, int z) const {
    return (std::size_t((z + 1) / block_) * blocks_[1] + (y + 1) / block_) * blocks_[0] +
           (x + 1) / block_;
  }
  int block() const { return block_; }
  const Size& blocks() const { return blocks_; }  ///< blocks along x, y, z
  int reach() const { return kReach / block_; }   ///< of a window, in blocks
  /// Over the window around each block, all voxels of the image.
  std::span<const CountedSum> windows() const { return windows_; }
  /// The voxels without the border.
  const BitVolume& domain() const { return domain_; }

  /// A mask of the image with the border, and back.
  BitVolume withBorder(const BitVolume& mask) const;
  BitVolume withoutBorder(const BitVolume& mask) const;
  /// Sums of every block over the voxels of a mask with the border.
  std::vector<CountedSum> blockSums(const BitVolume& mask, int threads = 1) const;

 private:
  Grid grid_;
  Size size_;
  int rowLength_, block_;
  Size blocks_;
  std::size_t voxels_;  // with those between the rows
  std::unique_ptr<std::uint16_t[]> values_;
  BitVolume domain_;
  std::vector<CountedSum> windows_;
};

/// Sums over windows of 2 * reach + 1 blocks along each axis around the blocks of `box`, by running
/// sums along one axis after the other. Blocks outside the volume count nothing.
class WindowSums {
 public:
  /// @param sums    one a block, x fastest
  /// @param result  receives the sums of the blocks in `box`; what it holds for others means
  /// nothing
  void operator()(std::span<const CountedSum> sums, const Size& blocks, int reach, const Box& box,
                  std::vector<CountedSum>& result);

 private:
  std::vector<CountedSum> alongX_, alongY_, plane_;
};

}  // namespace tavrel::strip
