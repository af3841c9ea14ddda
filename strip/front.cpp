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
#if defined(__clang__)  // knows no preferred width here, and takes the widest by itself
[[gnu::target("avx2,avx512f,avx512bw,avx512dq,avx512vl")]]
#else
[[gnu::target("avx2,avx512f,avx512bw,avx512dq,avx512vl,prefer-vector-width=512")]]
#endif
float runAvx512(FrontLoop loop, const FrontView& v, std::size_t first, std::size_t end,
                float step) {
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

/// Sets the bits of a box's rows to those of rule(rows, word) that the domain holds.
template <class Rule>
void markRows(const BitVolume& of, const BitVolume& domain, const Box& box, int threads,
              BitVolume& bits, Rule&& rule) {
  parallelRanges(threads, box.end[2] - box.first[2], [&](int from, int to) {
    for (int z = box.first[2] + from; z < box.first[2] + to; ++z)
      for (int y = box.first[1]; y < box.end[1]; ++y) {
        const Rows rows(of, y, z);
        const Word* allowed = domain.row(y, z).data();
        Word* out = bits.row(y, z).data();
        for (int w = 0; w < rows.words; ++w) out[w] = allowed[w] & rule(rows, w);
      }
  });
}

/// Where the voxels of each plane of a box's rows come in a list of all, and the list's end.
std::vector<std::size_t> placesInList(const BitVolume& bits, const Box& box, std::size_t first) {
  std::vector<std::size_t> places = {first};
  for (int z = box.first[2]; z < box.end[2]; ++z) {
    for (int y = box.first[1]; y < box.end[1]; ++y)
      for (const Word word : bits.row(y, z))
        if (word) first += std::size_t(std::popcount(word));
    places.push_back(first);
  }
  return places;
}

/// Calls list(word, x of its first voxel, y, z, place in the list) for a box's words with voxels.
/// It returns the place after them.
template <class List>
void listRows(const BitVolume& bits, const Box& box, int threads,
              const std::vector<std::size_t>& places, List&& list) {
  parallelRanges(threads, box.end[2] - box.first[2], [&](int from, int to) {
    std::size_t k = places[std::size_t(from)];
    for (int z = box.first[2] + from; z < box.first[2] + to; ++z)
      for (int y = box.first[1]; y < box.end[1]; ++y) {
        const Word* words = bits.row(y, z).data();
        for (int w = 0; w < bits.wordsInRow(); ++w)
          if (words[w]) k = list(words[w], w * BitVolume::kBits, y, z, k);
      }
  });
}

}  // namespace

Front::Front(const LevelImage& image)
    : image_(image),
      phi_(std::make_unique_for_overwrite<float[]>(image.values().size())),
      distance_(std::make_unique_for_overwrite<float[]>(image.values().size())),
      speed_(std::make_unique_for_overwrite<float[]>(image.values().size())),
      meanInside_(voxelCount(image.blocks())),
      meanOutside_(voxelCount(image.blocks())),
      edgeBits_(image.size()),
      layerBits_(image.size()) {}

/// Phi is half a voxel on either side of the surface, and nothing is left of another mask's speeds,
/// of which those beyond a domain would be read.
void Front::begin(const BitVolume& inside, int threads) {
  const std::size_t plane = inside.wordsInPlane() * BitVolume::kBits;
  const auto words = inside.words();
  parallelRanges(threads, image_.size()[2], [&](int from, int to) {
    const std::size_t first = std::size_t(from) * plane, end = std::size_t(to) * plane;
    std::fill(phi_.get() + first, phi_.get() + end, 0.5f);
    std::fill(distance_.get() + first, distance_.get() + end, kBeyond);
    std::fill(speed_.get() + first, speed_.get() + end, 0.0f);
    for (std::size_t w = first / BitVolume::kBits; w < end / BitVolume::kBits; ++w)
      forBits(words[w], 0, [&](int bit) {
        phi_[w * BitVolume::kBits + bit] = -0.5f;
        distance_[w * BitVolume::kBits + bit] = -kBeyond;
      });
  });
  inBlocks_ = image_.blockSums(inside, threads);
  box_ = boundingBox(inside);
}

/// Edge voxels are those with a face neighbour on the other side, the layer those beside edge
/// voxels.
void Front::findBand(const BitVolume& inside, const BitVolume& domain, int threads) {
  const auto withNeighbours = [&](Box box) {  // rows that have some
    for (int d = 1; d < 3; ++d) {
      box.first[d] = std::max(box.first[d], 1);
      box.end[d] = std::min(box.end[d], image_.size()[d] - 1);
    }
    return box;
  };
  FrontBand& b = band_;
  std::fill(edgeBits_.words().begin(), edgeBits_.words().end(), 0);
  const Box search = withNeighbours(grown(box_, {2, 2, 2}, image_.size()));
  markRows(inside, domain, search, threads, edgeBits_, [](const Rows& r, int w) {
    const Word here = r.here[w];
    return (here ^ r.left(w)) | (here ^ r.right(w)) | (here ^ r.before[w]) | (here ^ r.after[w]) |
           (here ^ r.below[w]) | (here ^ r.above[w]);
  });
  const auto edgesAt = placesInList(edgeBits_, search, 0);
  edges_ = edgesAt.back();
  box_ = boundingBox(edgeBits_);
  if (edges_ == 0) return;
  const Box beside = withNeighbours(grown(box_, {1, 1, 1}, image_.size()));
  markRows(edgeBits_, domain, beside, threads, layerBits_, [](const Rows& r, int w) {
    return ~r.here[w] &
           (r.left(w) | r.right(w) | r.before[w] | r.after[w] | r.below[w] | r.above[w]);
  });
  const auto layerAt = placesInList(layerBits_, beside, edges_);
  b.resize(edges_, layerAt.back());
  listRows(edgeBits_, search, threads, edgesAt, [this](auto... row) { return listEdges(row...); });
  listRows(layerBits_, beside, threads, layerAt, [this](auto... row) { return listLayer(row...); });
}

/// Edge voxels of a word, from the k-th of the band on. Returns the number of the next.
std::size_t Front::listEdges(Word word, int x0, int y, int z, std::size_t k) {
  const int shift = std::countr_zero(unsigned(image_.block()));
  const int start = (z * image_.size()[1] + y) * image_.rowLength();
  const int blockRow = ((z >> shift) * image_.blocks()[1] + (y >> shift)) * image_.blocks()[0];
  const std::uint16_t* values = image_.values().data() + start;
  int *voxels = band_.voxels.data(), *blocks = band_.blocks.data();
  float* intensity = band_.intensity.data();
  forBits(word, x0, [&](int x) {
    voxels[k] = start + x;
    blocks[k] = blockRow + (x >> shift);
    intensity[k++] = float(values[x]) * (1.0f / kFullScale);
  });
  return k;
}

std::size_t Front::listLayer(Word word, int x0, int y, int z, std::size_t k) {
  int* voxels = band_.voxels.data();
  forBits(word, (z * image_.size()[1] + y) * image_.rowLength() + x0,
          [&](int voxel) { voxels[k++] = voxel; });
  return k;
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
    const auto count = float(std::int32_t(countOf(sum)));
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
long Front::step(BitVolume& inside, const FrontSettings& settings, int threads) {
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
  return takeOver(inside, threads);
}

/// Phi, sides and the blocks' sums from the moved band. Threads take whole planes of blocks.
long Front::takeOver(BitVolume& inside, int threads) {
  std::atomic<long> grown = 0;
  const int slab = image_.block() * image_.rowLength() * image_.size()[1];
  const auto layer = band_.voxels.begin() + std::ptrdiff_t(edges_);
  parallelRanges(threads, image_.blocks()[2], [&](int from, int to) {
    const auto part = [&](auto first, auto end) {
      const auto at = [&](int block) {
        return std::size_t(std::lower_bound(first, end, block * slab) - band_.voxels.begin());
      };
      grown += takeOverPart(inside, at(from), at(to));
    };
    part(band_.voxels.begin(), layer);
    part(layer, band_.voxels.end());
  });
  return grown;
}

long Front::takeOverPart(BitVolume& inside, std::size_t first, std::size_t end) {
  long grown = 0;
  const auto words = inside.words();
  const int X = image_.rowLength(), Y = image_.size()[1], B = image_.block();
  for (std::size_t k = first; k < end; ++k) {
    const int v = band_.voxels[k];
    const float moved = band_.distance[k];
    const float before = std::exchange(phi_[v], moved);
    distance_[v] = moved < 0 ? -kBeyond : kBeyond;
    if ((moved < 0) == (before < 0)) continue;
    words[v / BitVolume::kBits] ^= Word{1} << (v % BitVolume::kBits);
    const int x = v % X, y = v / X % Y, z = v / X / Y;
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
  constexpr std::size_t kFew = 1'000'000;  // voxels of a level that is not worth a thread
  const int threads = image_.values().size() < kFew ? 1 : settings.threads;
  begin(inside, threads);
  double now = double(inside.count()), before = now, earlier = now;
  int steps = 0;
  while (steps < settings.mostSteps) {
    pass(checkpoint);
    findBand(inside, domain, threads);
    if (edges_ == 0) break;
    updateMeans();
    const double next = now + double(step(inside, settings, threads));
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
