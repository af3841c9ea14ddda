#include "morphology.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>

#include "distance.h"

namespace tavrel::strip {
namespace {

using Word = BitVolume::Word;

/// Rows of a ball with the same half-width along x.
struct BallRows {
  int halfWidth;
  std::vector<std::array<int, 2>> offsets;  // dy, dz
};

/// The ball as rows, narrowest first, no wider than the volume.
std::vector<BallRows> ballRows(const Size& size, const Spacing& spacing, double mm) {
  const double limit = squaredReach(mm);
  const auto steps = [&](int d, double left) {
    const double most = std::sqrt(std::max(0.0, left)) / spacing[d] + 2;
    int n = int(std::min(most, double(size[d] - 1)));
    while (n > 0 && square(n * spacing[d]) > left) --n;
    return n;
  };
  std::vector<BallRows> rows;
  const int reachZ = steps(2, limit);
  for (int dz = -reachZ; dz <= reachZ; ++dz) {
    const double leftY = limit - square(dz * spacing[2]);
    const int reachY = steps(1, leftY);
    for (int dy = -reachY; dy <= reachY; ++dy) {
      const int width = steps(0, leftY - square(dy * spacing[1]));
      const auto same = std::find_if(rows.begin(), rows.end(),
                                     [&](const BallRows& r) { return r.halfWidth == width; });
      (same == rows.end() ? rows.emplace_back(BallRows{width, {}}) : *same)
          .offsets.push_back({dy, dz});
    }
  }
  std::sort(rows.begin(), rows.end(),
            [](const BallRows& a, const BallRows& b) { return a.halfWidth < b.halfWidth; });
  return rows;
}

/// Widens every run of 1s along x by a voxel at both ends.
void widen(BitVolume& mask) {
  const int n = mask.wordsInRow();
  const Word last = mask.lastWord();
  const auto words = mask.words();
  for (std::size_t row = 0; row < words.size(); row += std::size_t(n)) {
    Word before = 0;
    for (int i = 0; i < n; ++i) {
      const Word word = words[row + i], after = i + 1 < n ? words[row + i + 1] : 0;
      words[row + i] |= word << 1 | before >> 63 | word >> 1 | after << 63;
      before = word;
    }
    words[row + n - 1] &= last;
  }
}

/// to |= from moved by dy rows and dz planes.
void joinMoved(const BitVolume& from, int dy, int dz, BitVolume& to) {
  const auto& size = from.size();
  const std::size_t plane = from.wordsInPlane();
  const std::size_t rows = std::size_t(size[1] - std::abs(dy)) * from.wordsInRow();
  const std::size_t skip = std::size_t(std::abs(dy)) * from.wordsInRow();
  for (int z = std::max(0, dz); z < size[2] + std::min(0, dz); ++z) {
    const Word* in = from.words().data() + std::size_t(z - dz) * plane + (dy < 0 ? skip : 0);
    Word* out = to.words().data() + std::size_t(z) * plane + (dy > 0 ? skip : 0);
    for (std::size_t i = 0; i < rows; ++i) out[i] |= in[i];
  }
}

/// By distances, whose time does not grow with the radius.
void dilateFar(BitVolume& mask, const Spacing& spacing, double mm) {
  std::vector<char> voxels(voxelCount(mask.size()));
  mask.unpack(voxels);
  setWithin(voxels, squaredDistances(voxels, mask.size(), spacing, 1), mm, 1);
  mask = BitVolume(voxels, mask.size());
}

/// A run of equal voxels along x.
struct Run {
  int y, z, first, end;
};

/// The runs of 1s in the order of their first voxels, and where those of each row begin.
struct Runs {
  std::vector<Run> all;
  std::vector<std::uint32_t> rowStarts;
};

Runs findRuns(const BitVolume& mask) {
  Runs runs;
  const auto& size = mask.size();
  runs.rowStarts.reserve(std::size_t(size[1]) * size[2] + 1);
  for (int z = 0; z < size[2]; ++z)
    for (int y = 0; y < size[1]; ++y) {
      runs.rowStarts.push_back(std::uint32_t(runs.all.size()));
      Word before = 0;
      const auto words = mask.row(y, z);
      for (int w = 0; w <= mask.wordsInRow(); ++w) {
        const Word word = w < mask.wordsInRow() ? words[w] : 0;
        forBits(word ^ (word << 1 | before >> 63), w * BitVolume::kBits, [&](int x) {
          const Word bit = word >> (x % BitVolume::kBits) & 1;
          if (bit)
            runs.all.push_back({y, z, x, x});
          else
            runs.all.back().end = x;
        });
        before = word;
      }
    }
  runs.rowStarts.push_back(std::uint32_t(runs.all.size()));
  return runs;
}

/// Face-connected pieces as sets of runs (union-find; the set's name is its first run).
class Pieces {
 public:
  Pieces(const BitVolume& mask) : runs_(findRuns(mask)), parent_(runs_.all.size()) {
    std::iota(parent_.begin(), parent_.end(), 0u);
    const auto& size = mask.size();
    for (int z = 0; z < size[2]; ++z)
      for (int y = 0; y < size[1]; ++y) {
        const std::size_t row = std::size_t(z) * size[1] + y;
        if (y > 0) joinRows(row, row - 1);
        if (z > 0) joinRows(row, row - size[1]);
      }
  }

  const std::vector<Run>& runs() const { return runs_.all; }
  std::uint32_t piece(std::uint32_t run) {
    while (parent_[run] != run) run = parent_[run] = parent_[parent_[run]];
    return run;
  }

 private:
  void join(std::uint32_t a, std::uint32_t b) {
    a = piece(a);
    b = piece(b);
    parent_[std::max(a, b)] = std::min(a, b);
  }

  void joinRows(std::size_t r, std::size_t s) {
    std::uint32_t i = runs_.rowStarts[r], j = runs_.rowStarts[s];
    while (i < runs_.rowStarts[r + 1] && j < runs_.rowStarts[s + 1]) {
      const Run &a = runs_.all[i], &b = runs_.all[j];
      if (a.first < b.end && b.first < a.end) join(i, j);
      if (a.end < b.end)
        ++i;
      else
        ++j;
    }
  }

  Runs runs_;
  std::vector<std::uint32_t> parent_;
};

}  // namespace

void dilate(BitVolume& mask, const Spacing& spacing, double mm) {
  constexpr std::size_t kFewRows = 4000;
  if (!(mm > 0) || mask.words().empty()) return;
  double rowsOfBall = M_PI * square(mm) / (spacing[1] * spacing[2]);
  if (rowsOfBall > kFewRows) return dilateFar(mask, spacing, mm);
  BitVolume widened = mask;
  int width = 0;
  for (const BallRows& rows : ballRows(mask.size(), spacing, mm)) {
    for (; width < rows.halfWidth; ++width) widen(widened);
    for (const auto& [dy, dz] : rows.offsets) joinMoved(widened, dy, dz, mask);
  }
}

void erode(BitVolume& mask, const Spacing& spacing, double mm) {
  mask.invert();
  dilate(mask, spacing, mm);
  mask.invert();
}

std::size_t keepLargest(BitVolume& mask) {
  Pieces pieces(mask);
  const auto& runs = pieces.runs();
  if (runs.empty()) return 0;
  std::vector<std::size_t> voxels(runs.size(), 0);
  for (std::uint32_t r = 0; r < runs.size(); ++r)
    voxels[pieces.piece(r)] += std::size_t(runs[r].end - runs[r].first);
  const auto largest =
      std::uint32_t(std::max_element(voxels.begin(), voxels.end()) - voxels.begin());
  std::fill(mask.words().begin(), mask.words().end(), 0);
  for (std::uint32_t r = 0; r < runs.size(); ++r)
    if (pieces.piece(r) == largest) mask.setRange(runs[r].y, runs[r].z, runs[r].first, runs[r].end);
  voxels[largest] = 0;
  return *std::max_element(voxels.begin(), voxels.end());
}

void fillHoles(BitVolume& mask) {
  const Size size = mask.size();
  BitVolume background = mask;
  background.invert();
  Pieces pieces(background);
  const auto& runs = pieces.runs();
  std::vector<char> open(runs.size(), 0);
  for (std::uint32_t r = 0; r < runs.size(); ++r) {
    const auto& [y, z, first, end] = runs[r];
    if (first == 0 || end == size[0] || y == 0 || y == size[1] - 1 || z == 0 || z == size[2] - 1)
      open[pieces.piece(r)] = 1;
  }
  for (std::uint32_t r = 0; r < runs.size(); ++r)
    if (!open[pieces.piece(r)]) mask.setRange(runs[r].y, runs[r].z, runs[r].first, runs[r].end);
}

}  // namespace tavrel::strip
