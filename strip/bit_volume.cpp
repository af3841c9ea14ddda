#include "bit_volume.h"

#include <algorithm>
#include <functional>

namespace tavrel::strip {
namespace {

/// Whether each of eight bytes is not 0, in the lowest bits.
BitVolume::Word packEight(const char* bytes) {
  BitVolume::Word word = 0;
  for (int i = 0; i < 8; ++i)
    word |= BitVolume::Word(static_cast<unsigned char>(bytes[i])) << 8 * i;
  // Join the bits of every byte in its lowest, then bring these together in the highest byte.
  for (const int shift : {4, 2, 1}) word |= word >> shift;
  return (word & 0x0101010101010101) * 0x0102040810204080 >> 56;
}

}  // namespace

BitVolume::BitVolume(std::span<const char> mask, const Size& size) : BitVolume(size) {
  const std::size_t rows = std::size_t(size[1]) * size[2];
  for (std::size_t r = 0; r < rows; ++r) {
    const auto voxels = mask.subspan(r * size[0], size[0]);
    Word* words = words_.data() + r * wordsInRow_;
    int x = 0;
    for (; x + 8 <= size[0]; x += 8) words[x / kBits] |= packEight(&voxels[x]) << (x % kBits);
    for (; x < size[0]; ++x) words[x / kBits] |= Word(voxels[x] != 0) << (x % kBits);
  }
}

void BitVolume::setRange(int y, int z, int first, int end) {
  const auto words = row(y, z);
  for (int w = first / kBits; w * kBits < end; ++w) {
    const int from = std::max(first - w * kBits, 0), to = std::min(end - w * kBits, kBits);
    words[w] |= (to == kBits ? ~Word{0} : (Word{1} << to) - 1) & (~Word{0} << from);
  }
}

std::size_t BitVolume::count() const {
  std::size_t sum = 0;
  for (const Word word : words_) sum += std::size_t(std::popcount(word));
  return sum;
}

void BitVolume::invert() {
  if (words_.empty()) return;
  const Word last = lastWord();
  for (std::size_t w = 0; w < words_.size(); w += wordsInRow_) {
    for (int i = 0; i < wordsInRow_; ++i) words_[w + i] = ~words_[w + i];
    words_[w + wordsInRow_ - 1] &= last;
  }
}

BitVolume& BitVolume::operator&=(const BitVolume& other) {
  std::transform(words_.begin(), words_.end(), other.words_.begin(), words_.begin(),
                 std::bit_and());
  return *this;
}

BitVolume& BitVolume::operator|=(const BitVolume& other) {
  std::transform(words_.begin(), words_.end(), other.words_.begin(), words_.begin(), std::bit_or());
  return *this;
}

void BitVolume::unpack(std::span<char> mask) const {
  const std::size_t rows = std::size_t(size_[1]) * size_[2];
  for (std::size_t r = 0; r < rows; ++r) {
    const auto voxels = mask.subspan(r * size_[0], size_[0]);
    const Word* words = words_.data() + r * wordsInRow_;
    for (int x = 0; x < size_[0]; ++x) voxels[x] = char(words[x / kBits] >> (x % kBits) & 1);
  }
}

BitVolume without(BitVolume mask, BitVolume other) {
  other.invert();
  return mask &= other;
}

std::size_t countBoth(const BitVolume& a, const BitVolume& b) {
  std::size_t sum = 0;
  for (std::size_t w = 0; w < a.words().size(); ++w)
    sum += std::size_t(std::popcount(a.words()[w] & b.words()[w]));
  return sum;
}

double overlap(const BitVolume& a, const BitVolume& b) {
  const std::size_t sum = a.count() + b.count();
  return sum == 0 ? 1 : 2 * double(countBoth(a, b)) / double(sum);
}

Box boundingBox(const BitVolume& mask) {
  Box box{mask.size(), {}};
  for (int z = 0; z < mask.size()[2]; ++z)
    for (int y = 0; y < mask.size()[1]; ++y) {
      const auto words = mask.row(y, z);
      int first = -1, end = 0;
      for (int w = 0; w < mask.wordsInRow(); ++w) {
        if (!words[w]) continue;
        if (first < 0) first = w * BitVolume::kBits + std::countr_zero(words[w]);
        end = (w + 1) * BitVolume::kBits - std::countl_zero(words[w]);
      }
      if (first < 0) continue;
      const Size low = {first, y, z}, high = {end, y + 1, z + 1};
      for (int d = 0; d < 3; ++d) {
        box.first[d] = std::min(box.first[d], low[d]);
        box.end[d] = std::max(box.end[d], high[d]);
      }
    }
  return box.empty() ? Box{} : box;
}

Box grown(const Box& box, const Size& voxels, const Size& size) {
  Box result;
  for (int d = 0; d < 3; ++d) {
    result.first[d] = std::max(0, box.first[d] - voxels[d]);
    result.end[d] = std::min(size[d], box.end[d] + voxels[d]);
  }
  return result;
}

BitVolume doubled(const BitVolume& mask, const Size& size) {
  BitVolume result(size);
  for (int z = 0; z < size[2]; ++z)
    for (int y = 0; y < size[1]; ++y) {
      const auto from = mask.row(y / 2, z / 2);
      const auto to = result.row(y, z);
      for (std::size_t w = 0; w < to.size(); ++w) {
        // Every bit of half a word twice.
        BitVolume::Word bits = from[w / 2] >> (w % 2 * 32) & 0xffffffff;
        bits = (bits | bits << 16) & 0x0000ffff0000ffff;
        bits = (bits | bits << 8) & 0x00ff00ff00ff00ff;
        bits = (bits | bits << 4) & 0x0f0f0f0f0f0f0f0f;
        bits = (bits | bits << 2) & 0x3333333333333333;
        bits = (bits | bits << 1) & 0x5555555555555555;
        to[w] = bits | bits << 1;
      }
      to.back() &= result.lastWord();
    }
  return result;
}

BitVolume cropped(const BitVolume& mask, const Box& box) {
  BitVolume part(box.size());
  const int shift = box.first[0] % BitVolume::kBits, skip = box.first[0] / BitVolume::kBits;
  for (int z = 0; z < part.size()[2]; ++z)
    for (int y = 0; y < part.size()[1]; ++y) {
      const auto from = mask.row(y + box.first[1], z + box.first[2]);
      const auto to = part.row(y, z);
      for (std::size_t w = 0; w < to.size(); ++w) {
        const std::size_t i = w + std::size_t(skip);
        to[w] = from[i] >> shift;
        if (shift > 0 && i + 1 < from.size()) to[w] |= from[i + 1] << (BitVolume::kBits - shift);
      }
      to.back() &= part.lastWord();
    }
  return part;
}

BitVolume uncropped(const BitVolume& part, const Box& box, const Size& size) {
  BitVolume mask(size);
  const int shift = box.first[0] % BitVolume::kBits, skip = box.first[0] / BitVolume::kBits;
  for (int z = 0; z < part.size()[2]; ++z)
    for (int y = 0; y < part.size()[1]; ++y) {
      const auto from = part.row(y, z);
      const auto to = mask.row(y + box.first[1], z + box.first[2]);
      for (std::size_t w = 0; w < from.size(); ++w) {
        const std::size_t i = w + std::size_t(skip);
        to[i] |= from[w] << shift;
        if (shift > 0 && i + 1 < to.size()) to[i + 1] |= from[w] >> (BitVolume::kBits - shift);
      }
    }
  return mask;
}

}  // namespace tavrel::strip
