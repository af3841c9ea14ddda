#include "head.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "morphology.h"

namespace tavrel::strip {
namespace {

// Lengths in mm, areas in mm^2.
constexpr double kBlockMm = 4;
constexpr double kUpperPart = 120;  // of the head, whose centre is in the brain
constexpr double kDepth = 180;      // from the top down to what can be brain
constexpr double kMargin = 8;       // around the head's box
constexpr double kTopArea = 1200;   // of the highest slice that counts
constexpr double kClose = 12, kBelowSkin = 10;
constexpr double kLeastHeadMl = 300;
// Of the way from air to Otsu's threshold: darker tissue belongs to the head.
constexpr double kAirShare = 0.6;

/// Means of blocks of whole voxels.
struct BlockMeans {
  Grid grid;
  Size voxels;  // of a block
  std::vector<float> values;
};

BlockMeans blockMeans(const ScanView& scan, int threads) {
  BlockMeans means;
  const Grid whole = Axes(scan).anatomical();
  for (int d = 0; d < 3; ++d) {
    means.voxels[d] = std::max(1, int(std::lround(kBlockMm / whole.spacing[d])));
    means.grid.size[d] = (whole.size[d] + means.voxels[d] - 1) / means.voxels[d];
    means.grid.spacing[d] = whole.spacing[d] * means.voxels[d];
  }
  const auto offsets =
      offsetsInto(scan, means.grid.size, [&](int axis, int i) { return i / means.voxels[axis]; });
  const std::size_t n = voxelCount(means.grid.size);
  std::vector<double> sums(n, 0);
  std::vector<int> counts(n, 0);
  forStoredVoxels(scan, offsets, threads, [&](std::ptrdiff_t block, float value) {
    if (!std::isfinite(value)) return;
    sums[block] += double(value);
    ++counts[block];
  });
  means.values.assign(n, std::numeric_limits<float>::infinity());
  float least = std::numeric_limits<float>::infinity();
  for (std::size_t i = 0; i < n; ++i)
    if (counts[i]) least = std::min(least, means.values[i] = float(sums[i] / counts[i]));
  // Blocks of nothing but not-a-number are as dark as the darkest.
  for (float& value : means.values)
    if (!std::isfinite(value)) value = std::isfinite(least) ? least : 0;
  return means;
}

/// The value below which a share of the values lies; 0 of none.
float percentile(std::vector<float> values, double share) {
  if (values.empty()) return 0;
  const std::size_t k = std::min(values.size() - 1, std::size_t(share * double(values.size())));
  std::nth_element(values.begin(), values.begin() + std::ptrdiff_t(k), values.end());
  return values[k];
}

/// The threshold between two classes whose means differ most for their sizes.
double otsuThreshold(std::span<const float> values, double low, double high) {
  constexpr int kBins = 256;
  std::array<double, kBins> bins{};
  for (const float value : values)
    ++bins[std::size_t(std::clamp(int((value - low) / (high - low) * kBins), 0, kBins - 1))];
  double sum = 0, below = 0, sumBelow = 0, best = -1;
  for (int i = 0; i < kBins; ++i) sum += i * bins[i];
  int threshold = 0;
  const double n = double(values.size());
  for (int i = 0; i + 1 < kBins; ++i) {
    below += bins[i];
    sumBelow += i * bins[i];
    if (below == 0 || below == n) continue;
    const double apart = sumBelow / below - (sum - sumBelow) / (n - below);
    const double between = below * (n - below) * apart * apart;
    if (between <= best) continue;
    best = between;
    threshold = i;
  }
  return low + (threshold + 1) * (high - low) / kBins;
}

/// What is brighter than the air, in one piece, without holes; tells how large the next piece is.
BitVolume brightPiece(const BlockMeans& means, double threshold, double& otherPiece) {
  std::vector<char> bright(means.values.size());
  std::transform(means.values.begin(), means.values.end(), bright.begin(),
                 [&](float v) { return char(v > threshold); });
  BitVolume head(bright, means.grid.size);
  const double block = means.grid.spacing[0];
  erode(head, means.grid.spacing, block);
  const std::size_t second = keepLargest(head);
  otherPiece = double(second) / std::max(1.0, double(head.count()));
  dilate(head, means.grid.spacing, block);
  fillHoles(head);
  return head;
}

/// The highest slice of the head that is no wisp; -1 for none.
int topSlice(const BitVolume& head, const Spacing& spacing) {
  for (int z = head.size()[2] - 1; z >= 0; --z) {
    std::size_t voxels = 0;
    for (int y = 0; y < head.size()[1]; ++y)
      for (const auto word : head.row(y, z)) voxels += std::size_t(std::popcount(word));
    if (double(voxels) * spacing[0] * spacing[1] >= kTopArea) return z;
  }
  return -1;
}

int slicesFromTop(int top, double mm, double spacing) {
  return std::max(0, int(top + 1 - mm / spacing));
}

/// Centre of gravity of the upper part.
std::array<double, 3> centreOf(const BitVolume& head, int top, const Spacing& spacing) {
  std::array<double, 3> sum{}, centre{};
  double voxels = 0;
  forVoxels(head, slicesFromTop(top, kUpperPart, spacing[2]), top + 1, [&](int x, int y, int z) {
    sum = {sum[0] + x, sum[1] + y, sum[2] + z};
    ++voxels;
  });
  for (int d = 0; d < 3; ++d) centre[d] = (sum[d] / voxels + 0.5) * spacing[d];
  return centre;
}

/// The scan's voxels around the part of the head that can hold the brain.
Box workBox(const BitVolume& head, int top, const BlockMeans& means, const Grid& scan) {
  BitVolume part(head.size());
  forVoxels(head, slicesFromTop(top, kDepth, means.grid.spacing[2]), top + 1,
            [&](int x, int y, int z) { part.set(x, y, z); });
  const Box blocks = boundingBox(part);
  Box box;
  for (int d = 0; d < 3; ++d) {
    const int margin = int(std::ceil(kMargin / scan.spacing[d]));
    box.first[d] = std::max(0, blocks.first[d] * means.voxels[d] - margin);
    box.end[d] = std::min(scan.size[d], blocks.end[d] * means.voxels[d] + margin);
  }
  return box;
}

/// Intensities of voxels below the head's surface, about one every 2 mm.
std::vector<float> samplesInside(const ScanView& scan, BitVolume inner, const BlockMeans& means,
                                 int top) {
  erode(inner, means.grid.spacing, kBelowSkin);
  std::vector<char> wanted(voxelCount(inner.size()));
  inner.unpack(wanted);
  const int lowest = slicesFromTop(top, kDepth, means.grid.spacing[2]);
  const Grid whole = Axes(scan).anatomical();
  const auto offsets = offsetsInto(scan, means.grid.size, [&](int axis, int i) {
    const int every = std::max(1, int(std::lround(2 / whole.spacing[axis])));
    const int block = i / means.voxels[axis];
    return i % every || (axis == 2 && (block < lowest || block > top)) ? -1 : block;
  });
  std::vector<float> samples;
  forStoredVoxels(scan, offsets, 1, [&](std::ptrdiff_t block, float value) {
    if (wanted[block] && std::isfinite(value)) samples.push_back(value);
  });
  return samples;
}

}  // namespace

Box largestWorkBox(const ScanView& scan) {
  const Grid whole = Axes(scan).anatomical();
  const double most = (kDepth + kMargin + 2 * kBlockMm) / whole.spacing[2] + 1;
  Box box{{0, 0, 0}, whole.size};
  box.first[2] = std::max(0, whole.size[2] - int(std::min(most, double(whole.size[2]))));
  return box;
}

std::optional<Head> findHead(const ScanView& scan, int threads) {
  BlockMeans means = blockMeans(scan, threads);
  const float low = percentile(means.values, 0.001), high = percentile(means.values, 0.995);
  if (!(high > low)) return std::nullopt;
  for (float& value : means.values) value = std::clamp(value, low, high);
  const double threshold = otsuThreshold(means.values, low, high);
  std::vector<float> dark;
  std::copy_if(means.values.begin(), means.values.end(), std::back_inserter(dark),
               [&](float v) { return v < threshold; });
  Head head;
  head.blocks = means.grid;
  const float air = percentile(std::move(dark), 0.5);
  const BitVolume bright = brightPiece(means, air + kAirShare * (threshold - air), head.otherPiece);
  const Spacing& spacing = means.grid.spacing;
  head.mask = bright;
  dilate(head.mask, spacing, kClose);
  erode(head.mask, spacing, kClose);
  fillHoles(head.mask);
  const int top = topSlice(head.mask, spacing);
  if (top < 0 || millilitres(double(head.mask.count()), spacing) < kLeastHeadMl)
    return std::nullopt;
  head.centre = centreOf(head.mask, top, spacing);
  head.box = workBox(head.mask, top, means, Axes(scan).anatomical());
  const auto inside = samplesInside(scan, bright, means, top);
  if (inside.empty()) return std::nullopt;
  head.low = percentile(inside, 0.005);
  head.high = percentile(inside, 0.98);
  // Air far below all tissue (-1000) would press the tissue into a few grey levels.
  if (head.low - low < 0.2f * (head.high - head.low)) head.low = std::min(head.low, low);
  if (!(head.high > head.low)) return std::nullopt;
  return head;
}

}  // namespace tavrel::strip
