#include "front.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <utility>

#include "front_kernels.h"
#include "parallel.h"

namespace tavrel::strip {
namespace {

using Word = BitVolume::Word;

using Kernel = float(FrontLoop, const FrontView&, std::size_t, std::size_t, float);

float runPortable(FrontLoop loop, const FrontView& v, std::size_t first, std::size_t end,
                  float step) {
  return runFrontLoop(loop, v, first, end, step);
}
#if defined(__x86_64__)
[[gnu::target("avx2")]] float runAvx2(FrontLoop loop, const FrontView& v, std::size_t first,
                                      std::size_t end, float step) {
  return runFrontLoop(loop, v, first, end, step);
}
[[gnu::target("avx2,avx512f,avx512bw,avx512dq,avx512vl,prefer-vector-width=512")]] float runAvx512(
    FrontLoop loop, const FrontView& v, std::size_t first, std::size_t end, float step) {
  return runFrontLoop(loop, v, first, end, step);
}
#endif

Kernel* kernelFor([[maybe_unused]] InstructionSet instructions) {
#if defined(__x86_64__)
  if (instructions == InstructionSet::avx512) return runAvx512;
  if (instructions == InstructionSet::avx2) return runAvx2;
#endif
  return runPortable;
}

/// Calls f(y, z) for the rows of a box.
template <class F>
void forRowsOf(const Box& box, F&& f) {
  for (int z = box.first[2]; z < box.end[2]; ++z)
    for (int y = box.first[1]; y < box.end[1]; ++y) f(y, z);
}

/// A row of words and the rows beside it.
struct Rows {
  const Word *here, *before, *after, *below, *above;
  int words;
  Rows(const BitVolume& mask, int y, int z)
      : here(mask.row(y, z).data()),
        before(here - mask.wordsInRow()),
        after(here + mask.wordsInRow()),
        below(here - mask.wordsInPlane()),
        above(here + mask.wordsInPlane()),
        words(mask.wordsInRow()) {}
  Word left(int w) const { return here[w] << 1 | (w > 0 ? here[w - 1] >> 63 : 0); }
  Word right(int w) const { return here[w] >> 1 | (w + 1 < words ? here[w + 1] << 63 : 0); }
};

}  // namespace

Front::Front(const LevelImage& image)
    : image_(image),
      phi_(std::make_unique_for_overwrite<float[]>(image.values().size())),
      distance_(std::make_unique_for_overwrite<float[]>(image.values().size())),
      speed_(std::make_unique_for_overwrite<float[]>(image.values().size())),
      meanInside_(voxelCount(image.blocks())),
      meanOutside_(voxelCount(image.blocks())),
      edgeBits_(image.size()) {}

/// Phi is half a voxel on either side of the surface, and nothing is left of another mask's speeds,
/// of which those beyond a domain would be read.
void Front::begin(const BitVolume& inside) {
  std::fill_n(phi_.get(), image_.values().size(), 0.5f);
  std::fill_n(distance_.get(), image_.values().size(), kFar);
  std::fill_n(speed_.get(), image_.values().size(), 0.0f);
  const auto words = inside.words();
  for (std::size_t w = 0; w < words.size(); ++w)
    if (words[w])
      forBits(words[w], 0, [&](int bit) {
        phi_[w * BitVolume::kBits + bit] = -0.5f;
        distance_[w * BitVolume::kBits + bit] = -kFar;
      });
  inBlocks_ = image_.blockSums(inside);
  box_ = boundingBox(inside);
}

/// Edge voxels are those with a face neighbour on the other side, the layer those beside edge
/// voxels.
void Front::findBand(const BitVolume& inside, const BitVolume& domain) {
  FrontBand& b = band_;
  b.voxels.clear();
  b.blocks.clear();
  b.intensity.clear();
  const Box search = grown(box_, {2, 2, 2}, image_.size());
  const auto within = [&](Box box) {  // rows with neighbours
    for (int d = 1; d < 3; ++d) {
      box.first[d] = std::max(box.first[d], 1);
      box.end[d] = std::min(box.end[d], image_.size()[d] - 1);
    }
    return box;
  };
  std::fill(edgeBits_.words().begin(), edgeBits_.words().end(), 0);
  Box found{image_.size(), {}};
  const auto values = image_.values();
  forRowsOf(within(search), [&](int y, int z) {
    const Rows r(inside, y, z);
    const auto allowed = domain.row(y, z);
    const auto edges = edgeBits_.row(y, z);
    const int start = (z * image_.size()[1] + y) * image_.rowLength();
    const int blockRow =
        ((z / image_.block()) * image_.blocks()[1] + y / image_.block()) * image_.blocks()[0];
    for (int w = 0; w < r.words; ++w) {
      const Word here = r.here[w];
      const Word edge =
          allowed[w] & ((here ^ r.left(w)) | (here ^ r.right(w)) | (here ^ r.before[w]) |
                        (here ^ r.after[w]) | (here ^ r.below[w]) | (here ^ r.above[w]));
      if (!edge) continue;
      edges[w] = edge;
      const int x0 = w * BitVolume::kBits;
      forBits(edge, x0, [&](int x) {
        b.voxels.push_back(start + x);
        b.blocks.push_back(blockRow + x / image_.block());
        b.intensity.push_back(float(values[start + x]) * (1.0f / kFullScale));
      });
      found.first = {std::min(found.first[0], x0 + std::countr_zero(edge)),
                     std::min(found.first[1], y), std::min(found.first[2], z)};
      found.end = {std::max(found.end[0], x0 + BitVolume::kBits - std::countl_zero(edge)),
                   std::max(found.end[1], y + 1), std::max(found.end[2], z + 1)};
    }
  });
  edges_ = b.voxels.size();
  box_ = found;
  if (edges_ == 0) return;
  forRowsOf(within(grown(found, {1, 1, 1}, image_.size())), [&](int y, int z) {
    const Rows r(edgeBits_, y, z);
    const auto allowed = domain.row(y, z);
    const int start = (z * image_.size()[1] + y) * image_.rowLength();
    for (int w = 0; w < r.words; ++w) {
      const Word beside =
          r.left(w) | r.right(w) | r.before[w] | r.after[w] | r.below[w] | r.above[w];
      forBits(beside & ~r.here[w] & allowed[w], w * BitVolume::kBits,
              [&](int x) { b.voxels.push_back(start + x); });
    }
  });
  for (auto* array : {&b.nearestX, &b.nearestY, &b.nearestZ}) array->resize(edges_);
  b.distance.resize(b.voxels.size());
  b.speed.resize(b.voxels.size());
  b.source.resize(b.voxels.size());
}

/// The two means of every block in the band's box.
void Front::updateMeans() {
  Box box;
  for (int d = 0; d < 3; ++d) {
    box.first[d] = box_.first[d] / image_.block();
    box.end[d] = (box_.end[d] - 1) / image_.block() + 1;
  }
  const Size& blocks = image_.blocks();
  windowSums_(inBlocks_, blocks, image_.reach(), box, inWindows_);
  const auto mean = [](CountedSum sum) {
    const auto count = float(std::int32_t(sum & ((CountedSum{1} << kCountBits) - 1)));
    return float(std::int32_t(sum >> kCountBits)) / (std::max(count, 1.0f) * float(kFullScale));
  };
  const auto all = image_.windows();
  forRowsOf(box, [&](int y, int z) {
    const std::size_t row = (std::size_t(z) * blocks[1] + y) * blocks[0];
    for (std::size_t i = row + box.first[0]; i < row + box.end[0]; ++i) {
      meanInside_[i] = mean(inWindows_[i]);
      meanOutside_[i] = mean(all[i] - inWindows_[i]);
    }
  });
}

/// One step for all of the band. Returns by how many voxels the inside grew.
long Front::step(BitVolume& inside, const FrontSettings& settings) {
  Kernel* const kernel = kernelFor(settings.instructions);
  FrontBand& b = band_;
  const std::size_t all = b.voxels.size();
  const FrontView view{image_.rowLength(), image_.rowLength() * image_.size()[1],
                       b.voxels.data(),    b.blocks.data(),
                       b.intensity.data(), b.nearestX.data(),
                       b.nearestY.data(),  b.nearestZ.data(),
                       b.distance.data(),  b.speed.data(),
                       b.source.data(),    phi_.get(),
                       distance_.get(),    speed_.get(),
                       meanInside_.data(), meanOutside_.data(),
                       float(settings.w3), float(settings.w5)};
  const auto inParts = [&](std::size_t first, std::size_t end, auto&& loop) {
    constexpr std::size_t kFew = 20000;  // not worth a thread
    const int threads = end - first < kFew ? 1 : settings.threads;
    parallelRanges(threads, int(end - first), [&](int from, int to) {
      loop(first + std::size_t(from), first + std::size_t(to));
    });
  };
  std::atomic<float> fastest = 0;
  const auto run = [&](FrontLoop loop, std::size_t first, std::size_t end, float length = 0) {
    inParts(first, end, [&](std::size_t from, std::size_t to) {
      const float most = kernel(loop, view, from, to, length);
      for (float seen = fastest; seen < most && !fastest.compare_exchange_weak(seen, most);) {
      }
    });
  };
  const auto scatter = [&](std::size_t first, std::size_t end, const std::vector<float>& values,
                           float* volume) {
    inParts(first, end, [&](std::size_t from, std::size_t to) {
      for (std::size_t k = from; k < to; ++k) volume[b.voxels[k]] = values[k];
    });
  };
  run(FrontLoop::crossings, 0, edges_);
  scatter(0, edges_, b.distance, distance_.get());
  run(FrontLoop::layer, edges_, all);
  scatter(edges_, all, b.distance, distance_.get());
  run(FrontLoop::speeds, 0, edges_);
  scatter(0, edges_, b.speed, speed_.get());
  run(FrontLoop::extension, 0, edges_);
  scatter(0, edges_, b.speed, speed_.get());
  inParts(edges_, all, [&](std::size_t from, std::size_t to) {
    for (std::size_t k = from; k < to; ++k) b.speed[k] = speed_[b.source[k]];
  });
  run(FrontLoop::move, 0, all, fastest > 0 ? 1 / fastest : 0.0f);
  return takeOver(inside);
}

/// Phi, sides and the blocks' sums from the moved band.
long Front::takeOver(BitVolume& inside) {
  long grown = 0;
  const auto words = inside.words();
  const Size& size = image_.size();
  const int X = image_.rowLength();
  for (std::size_t k = 0; k < band_.voxels.size(); ++k) {
    const int v = band_.voxels[k];
    const float moved = band_.distance[k];
    const float before = std::exchange(phi_[v], moved);
    distance_[v] = moved < 0 ? -kFar : kFar;
    if ((moved < 0) == (before < 0)) continue;
    words[v / BitVolume::kBits] ^= Word{1} << (v % BitVolume::kBits);
    const int x = v % X, y = v / X % size[1], z = v / X / size[1], B = image_.block();
    CountedSum& sum =
        inBlocks_[(std::size_t(z / B) * image_.blocks()[1] + y / B) * image_.blocks()[0] + x / B];
    const CountedSum own = counted(image_.values()[v]);
    sum += moved < 0 ? own : -own;
    grown += moved < 0 ? 1 : -1;
  }
  return grown;
}

int Front::evolve(BitVolume& inside, const BitVolume& domain, const FrontSettings& settings,
                  const Checkpoint& checkpoint) {
  begin(inside);
  double now = double(inside.count()), before = now, earlier = now;
  int steps = 0;
  while (steps < settings.mostSteps) {
    pass(checkpoint);
    findBand(inside, domain);
    if (edges_ == 0) break;
    updateMeans();
    const double next = now + double(step(inside, settings));
    earlier = std::exchange(before, std::exchange(now, next));
    ++steps;
    if (steps < 3) continue;
    // The inside came to rest, or goes back and forth.
    const double change = std::min(now - before, now - earlier);
    if (std::abs(change) < settings.converged * now) break;
  }
  return steps;
}

}  // namespace tavrel::strip
