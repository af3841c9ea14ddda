#include "distance.h"

#include <limits>

namespace tavrel::strip {
namespace {

constexpr double kFar = std::numeric_limits<double>::infinity();

/// Lower envelope of the parabolas f[i] + (spacing * (x - i))^2, evaluated at every i, in place.
class Envelope {
 public:
  Envelope(int length, double spacing)
      : spacing2_(spacing * spacing), at_(length), from_(length), height_(length) {}

  void transform(std::span<double> f) {
    int top = -1;
    for (int i = 0; i < int(f.size()); ++i) {
      if (f[i] == kFar) continue;
      double start = -kFar;
      while (top >= 0 && (start = crossing(top, f[i], i)) <= from_[top]) --top;
      if (top < 0) start = -kFar;
      ++top;
      at_[top] = i;
      height_[top] = f[i];
      from_[top] = start;
    }
    if (top < 0) return;
    for (int i = 0, k = 0; i < int(f.size()); ++i) {
      while (k < top && from_[k + 1] < i) ++k;
      const double steps = i - at_[k];
      f[i] = height_[k] + spacing2_ * (steps * steps);
    }
  }

 private:
  /// Where the parabola rooted at i with height f falls below parabola k of the envelope.
  double crossing(int k, double f, int i) const {
    const double j = at_[k];
    return ((f - height_[k]) / spacing2_ + (double(i) * i - j * j)) / (2 * (i - j));
  }

  double spacing2_;
  std::vector<int> at_;
  std::vector<double> from_, height_;
};

/// Transforms lines that lie `stride` apart in memory, `width` neighbouring lines at a time so that
/// whole cache lines are used.
void transformLines(std::span<double> volume, int length, std::size_t stride, double spacing) {
  constexpr std::size_t kWidth = 8;
  Envelope envelope(length, spacing);
  std::vector<double> block(std::size_t(length) * kWidth);
  const std::size_t planes = volume.size() / (stride * std::size_t(length));
  for (std::size_t plane = 0; plane < planes; ++plane)
    for (std::size_t first = 0; first < stride; first += kWidth) {
      double* base = volume.data() + plane * stride * std::size_t(length) + first;
      const std::size_t width = std::min(kWidth, stride - first);
      for (int i = 0; i < length; ++i)
        for (std::size_t w = 0; w < width; ++w) block[w * length + i] = base[i * stride + w];
      for (std::size_t w = 0; w < width; ++w)
        envelope.transform(std::span(block).subspan(w * length, std::size_t(length)));
      for (int i = 0; i < length; ++i)
        for (std::size_t w = 0; w < width; ++w) base[i * stride + w] = block[w * length + i];
    }
}

/// Squared distances along x, where every voxel is 0 or infinitely far.
void scanRows(std::span<double> volume, int length, double spacing) {
  for (std::size_t row = 0; row < volume.size(); row += std::size_t(length)) {
    double* f = volume.data() + row;
    for (int i = 1; i < length; ++i)
      if (f[i] != 0) f[i] = f[i - 1] + 1;
    for (int i = length - 2; i >= 0; --i) f[i] = std::min(f[i], f[i + 1] + 1);
    for (int i = 0; i < length; ++i) f[i] = (spacing * f[i]) * (spacing * f[i]);
  }
}

}  // namespace

std::vector<double> squaredDistances(std::span<const char> mask, const Size& size,
                                     const Spacing& spacing, char target) {
  std::vector<double> distances(mask.size());
  for (std::size_t v = 0; v < mask.size(); ++v) distances[v] = mask[v] == target ? 0 : kFar;
  if (mask.empty()) return distances;
  scanRows(distances, size[0], spacing[0]);
  transformLines(distances, size[1], std::size_t(size[0]), spacing[1]);
  transformLines(distances, size[2], std::size_t(size[0]) * std::size_t(size[1]), spacing[2]);
  return distances;
}

void setWithin(std::span<char> mask, std::span<const double> squaredDistances, double radius,
               char value) {
  const double limit = squaredReach(radius);
  for (std::size_t v = 0; v < mask.size(); ++v)
    if (squaredDistances[v] <= limit) mask[v] = value;
}

}  // namespace tavrel::strip
