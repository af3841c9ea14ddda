#include "level_image.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "parallel.h"

namespace tavrel::strip {
namespace {

using Value = std::uint16_t;

template <class T>
void add(T* to, const T* from, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) to[i] += from[i];
}
template <class T>
void subtract(T* to, const T* from, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) to[i] -= from[i];
}

/// Index of a block's window as long as it is inside: [first, end).
struct Range {
  int first, end;
};
Range reached(const Box& box, int d, int reach, const Size& blocks) {
  return {std::max(0, box.first[d] - reach), std::min(blocks[d], box.end[d] + reach)};
}

}  // namespace

void minimumFilter(Intensities& image) {
  const auto& [X, Y, Z] = image.grid.size;
  if (X < 3 || Y < 3) return;
  const std::ptrdiff_t row = X, plane = row * Y;
  // The planes below and at z as they were; that above has not been changed yet.
  std::vector<Value> below(image.values.begin(), image.values.begin() + plane), here = below;
  for (int z = 1; z + 1 < Z; ++z) {
    Value* out = image.values.data() + z * plane;
    const Value* above = out + plane;
    std::copy_n(out, plane, here.begin());
    for (std::ptrdiff_t i = row; i < plane - row; i += row)
      for (std::ptrdiff_t v = i + 1; v < i + row - 1; ++v) {
        const Value x = std::min(here[v - 1], here[v + 1]);
        const Value y = std::min(here[v - row], here[v + row]);
        out[v] = std::min(std::min(x, y), std::min(below[v], above[v]));
      }
    std::swap(below, here);
  }
}

Intensities halved(const Intensities& image) {
  Intensities half;
  const Size& size = image.grid.size;
  for (int d = 0; d < 3; ++d) {
    half.grid.size[d] = (size[d] + 1) / 2;
    half.grid.spacing[d] = 2 * image.grid.spacing[d];
  }
  const auto& [X, Y, Z] = half.grid.size;
  half.values.resize(voxelCount(half.grid.size));
  std::vector<Value> row(std::size_t(2) * X);
  Value* out = half.values.data();
  for (int z = 0; z < Z; ++z)
    for (int y = 0; y < Y; ++y, out += X) {
      const auto in = [&](int dy, int dz) {
        const int yy = std::min(2 * y + dy, size[1] - 1), zz = std::min(2 * z + dz, size[2] - 1);
        return image.values.data() + (std::size_t(zz) * size[1] + yy) * size[0];
      };
      const Value *a = in(0, 0), *b = in(1, 0), *c = in(0, 1), *d = in(1, 1);
      for (int x = 0; x < size[0]; ++x)
        row[x] = std::min(std::min(a[x], b[x]), std::min(c[x], d[x]));
      if (size[0] % 2) row[size[0]] = row[size[0] - 1];
      for (int x = 0; x < X; ++x) out[x] = std::min(row[2 * x], row[2 * x + 1]);
    }
  return half;
}

LevelImage::LevelImage(const Intensities& image, const Box& part, int block, int threads)
    : grid_{part.size(), image.grid.spacing},
      size_{grid_.size[0] + 2, grid_.size[1] + 2, grid_.size[2] + 2},
      block_(block),
      domain_(size_) {
  rowLength_ = domain_.wordsInRow() * BitVolume::kBits;
  voxels_ = std::size_t(rowLength_) * size_[1] * size_[2];
  if (voxels_ > std::size_t(std::numeric_limits<int>::max()))
    throw std::length_error("has more voxels than fit the 32-bit sizes of the method");
  values_ = std::make_unique_for_overwrite<Value[]>(voxels_);
  for (int d = 0; d < 3; ++d) blocks_[d] = (size_[d] + block - 1) / block;
  const auto fillRow = [&](int y, int z) {
    Value* out = values_.get() + (std::size_t(z) * size_[1] + y) * rowLength_;
    std::fill_n(out, rowLength_, Value{0});
    if (y == 0 || y > grid_.size[1] || z == 0 || z > grid_.size[2]) return;
    const Value* in =
        image.values.data() +
        (std::size_t(part.first[2] + z - 1) * image.grid.size[1] + part.first[1] + y - 1) *
            image.grid.size[0] +
        part.first[0];
    std::copy_n(in, grid_.size[0], out + 1);
    domain_.setRange(y, z, 1, 1 + grid_.size[0]);
  };
  parallelRanges(threads, size_[2], [&](int from, int to) {
    for (int z = from; z < to; ++z)
      for (int y = 0; y < size_[1]; ++y) fillRow(y, z);
  });
  const auto sums = blockSums(domain_, threads);
  WindowSums()(sums, blocks_, reach(), {{0, 0, 0}, blocks_}, windows_);
}

BitVolume LevelImage::withBorder(const BitVolume& mask) const {
  BitVolume result(size_);
  for (int z = 0; z < grid_.size[2]; ++z)
    for (int y = 0; y < grid_.size[1]; ++y) {
      const auto from = mask.row(y, z);
      const auto to = result.row(y + 1, z + 1);
      for (std::size_t w = 0; w < to.size(); ++w)
        to[w] = (w < from.size() ? from[w] << 1 : 0) | (w > 0 ? from[w - 1] >> 63 : 0);
    }
  return result;
}

BitVolume LevelImage::withoutBorder(const BitVolume& mask) const {
  BitVolume result(grid_.size);
  for (int z = 0; z < grid_.size[2]; ++z)
    for (int y = 0; y < grid_.size[1]; ++y) {
      const auto from = mask.row(y + 1, z + 1);
      const auto to = result.row(y, z);
      for (std::size_t w = 0; w < to.size(); ++w)
        to[w] = from[w] >> 1 | (w + 1 < from.size() ? from[w + 1] << 63 : 0);
    }
  return result;
}

std::vector<CountedSum> LevelImage::blockSums(const BitVolume& mask, int threads) const {
  std::vector<CountedSum> sums(voxelCount(blocks_), 0);
  const auto addRow = [&](int y, int z) {
    const Value* values = values_.get() + (std::size_t(z) * size_[1] + y) * rowLength_;
    CountedSum* out =
        sums.data() + (std::size_t(z / block_) * blocks_[1] + y / block_) * blocks_[0];
    const auto words = mask.row(y, z);
    const int block = block_;
    for (int w = 0; w < mask.wordsInRow(); ++w)
      forBits(words[w], w * BitVolume::kBits, [&](int x) { out[x / block] += counted(values[x]); });
  };
  parallelRanges(threads, blocks_[2], [&](int from, int to) {
    for (int z = from * block_; z < std::min(to * block_, size_[2]); ++z)
      for (int y = 0; y < size_[1]; ++y) addRow(y, z);
  });
  return sums;
}

void WindowSums::operator()(std::span<const CountedSum> sums, const Size& blocks, int reach,
                            const Box& box, std::vector<CountedSum>& result) {
  const std::size_t row = std::size_t(blocks[0]), plane = row * blocks[1];
  const std::size_t width = std::size_t(box.end[0] - box.first[0]);
  for (auto* buffer : {&alongX_, &alongY_, &result}) buffer->resize(plane * blocks[2]);
  const Range ys = reached(box, 1, reach, blocks), zs = reached(box, 2, reach, blocks);
  for (int z = zs.first; z < zs.end; ++z)
    for (int y = ys.first; y < ys.end; ++y) {
      const CountedSum* in = sums.data() + z * plane + y * row;
      CountedSum* out = alongX_.data() + z * plane + y * row;
      CountedSum sum = 0;
      for (int x = std::max(0, box.first[0] - reach); x < std::min(blocks[0], box.first[0] + reach);
           ++x)
        sum += in[x];
      for (int x = box.first[0]; x < box.end[0]; ++x) {
        if (x + reach < blocks[0]) sum += in[x + reach];
        out[x] = sum;
        if (x >= reach) sum -= in[x - reach];
      }
    }
  plane_.resize(plane);
  for (int z = zs.first; z < zs.end; ++z) {
    const auto at = [&](std::vector<CountedSum>& v, int y) {
      return v.data() + z * plane + y * row + box.first[0];
    };
    CountedSum* sum = plane_.data();
    std::fill_n(sum, width, 0);
    for (int y = ys.first; y < std::min(blocks[1], box.first[1] + reach); ++y)
      add(sum, at(alongX_, y), width);
    for (int y = box.first[1]; y < box.end[1]; ++y) {
      if (y + reach < blocks[1]) add(sum, at(alongX_, y + reach), width);
      std::copy_n(sum, width, at(alongY_, y));
      if (y >= reach) subtract(sum, at(alongX_, y - reach), width);
    }
  }
  // Along z for all rows of the box at once.
  const std::size_t first = box.first[1] * row + box.first[0];
  const std::size_t length = std::size_t(box.end[1] - box.first[1] - 1) * row + width;
  const auto at = [&](std::vector<CountedSum>& v, int z) { return v.data() + z * plane + first; };
  CountedSum* sum = plane_.data();
  std::fill_n(sum, length, 0);
  for (int z = zs.first; z < std::min(blocks[2], box.first[2] + reach); ++z)
    add(sum, at(alongY_, z), length);
  for (int z = box.first[2]; z < box.end[2]; ++z) {
    if (z + reach < blocks[2]) add(sum, at(alongY_, z + reach), length);
    std::copy_n(sum, length, at(result, z));
    if (z >= reach) subtract(sum, at(alongY_, z - reach), length);
  }
}

}  // namespace tavrel::strip
