// Masks with one bit a voxel, 64 voxels of a row to a word.
//
// A row (x) begins at a word of its own; rows follow each other along y, then z. Bit x % 64 of word
// x / 64 is voxel x. The bits beyond the end of a row are 0, so that whole words can be counted,
// joined and compared. Many mask operations then cost a few instructions for 64 voxels.
#pragma once

#include <bit>
#include <cstdint>
#include <span>
#include <vector>

#include "geometry.h"

namespace tavrel::strip {

/// A 0/1 volume.
class BitVolume {
 public:
  using Word = std::uint64_t;
  static constexpr int kBits = 64;

  BitVolume() = default;
  explicit BitVolume(const Size& size)
      : size_(size),
        wordsInRow_((size[0] + kBits - 1) / kBits),
        words_(std::size_t(wordsInRow_) * size[1] * size[2], 0) {}
  /// From a mask of one byte a voxel: what is not 0 is 1.
  BitVolume(std::span<const char> mask, const Size& size);

  const Size& size() const { return size_; }
  int wordsInRow() const { return wordsInRow_; }
  std::size_t wordsInPlane() const { return std::size_t(wordsInRow_) * size_[1]; }
  std::span<Word> words() { return words_; }
  std::span<const Word> words() const { return words_; }
  std::span<Word> row(int y, int z) {
    return words().subspan((std::size_t(z) * size_[1] + y) * wordsInRow_, wordsInRow_);
  }
  std::span<const Word> row(int y, int z) const {
    return words().subspan((std::size_t(z) * size_[1] + y) * wordsInRow_, wordsInRow_);
  }

  bool operator()(int x, int y, int z) const { return row(y, z)[x / kBits] >> (x % kBits) & 1; }
  void set(int x, int y, int z) { row(y, z)[x / kBits] |= Word{1} << (x % kBits); }
  /// Sets the voxels [first, end) of a row.
  void setRange(int y, int z, int first, int end);
  /// The word with the bits of the last word of a row that are voxels.
  Word lastWord() const {
    return size_[0] % kBits == 0 ? ~Word{0} : (Word{1} << (size_[0] % kBits)) - 1;
  }

  std::size_t count() const;
  bool none() const { return count() == 0; }
  /// 0 becomes 1 and 1 becomes 0.
  void invert();
  BitVolume& operator&=(const BitVolume& other);
  BitVolume& operator|=(const BitVolume& other);
  /// Writes 0 or 1 for every voxel, x fastest.
  void unpack(std::span<char> mask) const;
  bool operator==(const BitVolume&) const = default;

 private:
  Size size_ = {};
  int wordsInRow_ = 0;
  std::vector<Word> words_;
};

/// The voxels of a mask that are not in the other.
BitVolume without(BitVolume mask, BitVolume other);

/// Number of voxels that are 1 in both.
std::size_t countBoth(const BitVolume& a, const BitVolume& b);

/// Twice the common voxels over the sum of both (Dice); 1 where both are empty.
double overlap(const BitVolume& a, const BitVolume& b);

/// Calls f(x) for every 1 of a word that begins at voxel `first`.
template <class F>
void forBits(BitVolume::Word word, int first, F&& f) {
  for (; word; word &= word - 1) f(first + std::countr_zero(word));
}

/// Calls f(x, y, z) for the voxels of a mask in the slices [first, end).
template <class F>
void forVoxels(const BitVolume& mask, int first, int end, F&& f) {
  for (int z = first; z < end; ++z)
    for (int y = 0; y < mask.size()[1]; ++y)
      for (int w = 0; w < mask.wordsInRow(); ++w)
        forBits(mask.row(y, z)[w], w * BitVolume::kBits, [&](int x) { f(x, y, z); });
}

/// Calls f(x, y, z) for the voxels of a mask.
template <class F>
void forVoxels(const BitVolume& mask, F&& f) {
  forVoxels(mask, 0, mask.size()[2], f);
}

/// Box around the voxels at 1: first voxel and one past the last along each axis; empty masks give
/// equal bounds.
struct Box {
  Size first = {}, end = {};
  bool empty() const { return first[0] >= end[0]; }
  Size size() const { return {end[0] - first[0], end[1] - first[1], end[2] - first[2]}; }
};
Box boundingBox(const BitVolume& mask);

/// The box grown by so many voxels on all sides, as far as a volume of this size goes.
Box grown(const Box& box, const Size& voxels, const Size& size);

/// A mask on the grid of twice the resolution and this size, every voxel as 2 x 2 x 2.
BitVolume doubled(const BitVolume& mask, const Size& size);
/// The part of a mask.
BitVolume cropped(const BitVolume& mask, const Box& box);
/// A mask of this size with the part in its place and 0 elsewhere.
BitVolume uncropped(const BitVolume& part, const Box& box, const Size& size);

}  // namespace tavrel::strip
