#include "exact/region_sums.h"

#include <array>
#include <bit>
#include <numeric>
#include <utility>

#include "parallel.h"
#include "exact/region_sums/kernels.h"

namespace tavrel::exact {
namespace {

/// The side of tiles of about the same size, none larger than `most`, in whole blocks.
int sideWithin(int size, int most) {
  const int tiles = (size + most - 1) / most;
  const int blocks =
      (size + RegionTables::blockSide * tiles - 1) / (RegionTables::blockSide * tiles);
  return blocks * RegionTables::blockSide;
}

}  // namespace

struct RegionSummer::Worker {
  Worker() { preferHugePages(&tile, sizeof tile); }
  RegionTile tile;
  RegionTile::Slots slots;
};

RegionSummer::RegionSummer() = default;
RegionSummer::~RegionSummer() = default;

std::size_t RegionSummer::Tiling::planesATile() const {
  return static_cast<std::size_t>(RegionTables::blocks) * grid.Z;
}

void RegionSummer::sum(const double* image, const char* label, Grid grid,
                       std::span<const int> centres, std::span<RegionSums> sums, int threads,
                       InstructionSet instructions) {
  arrange(grid, centres, threads);
  parallelFor(threads, pieces(), [&](int i) { sumPiece(i, image, label, sums, instructions); });
}

void RegionSummer::arrange(Grid grid, std::span<const int> centres, int threads) {
  // Smaller tiles have wider margins for their size, but keep several threads busy.
  const int side = threads > 1 ? RegionTables::side / 2 : RegionTables::side;
  tiling_ = {grid, sideWithin(grid.X, side), sideWithin(grid.Y, side)};
  sortByTile(centres, threads);
  largestFirst();
}

void RegionSummer::sumPiece(int piece, const double* image, const char* label,
                            std::span<RegionSums> sums, InstructionSet instructions) {
  const int t = tiles_[piece];
  const std::size_t planes = tiling_.planesATile();
  const auto starts = std::span(starts_).subspan(t * planes, planes + 1);
  const auto mine = std::span(order_).subspan(starts.front(), starts.back() - starts.front());
  if (mine.empty()) return;
  const int x0 = t % tiling_.tilesX() * tiling_.sideX;
  const int y0 = t / tiling_.tilesX() * tiling_.sideY;
  std::unique_ptr<Worker> worker = borrowWorker();
  RegionTile::Slots& slots = worker->slots;
  slots.resize(mine.size());
  for (std::size_t i = 0; i < mine.size(); ++i) slots.all[i] = {{}, keys_[mine[i]].place, 0};
  kernelFor(instructions)(worker->tile, slots, image, label, tiling_.grid, x0, y0, starts);
  for (std::size_t i = 0; i < mine.size(); ++i) {
    const RegionTile::Slot& slot = slots.all[i];
    sums[mine[i]] = {std::bit_cast<double>(slot.sum[0]), std::bit_cast<double>(slot.sum[1]),
                     slot.positives, keys_[mine[i]].voxels - slot.positives};
  }
  returnWorker(std::move(worker));
}

/// tiles_ = the tiles in the order in which threads take them: those with the most voxels first,
/// so that all threads end at about the same time.
void RegionSummer::largestFirst() {
  tiles_.resize(tiling_.tiles());
  std::iota(tiles_.begin(), tiles_.end(), 0);
  const std::size_t planes = tiling_.planesATile();
  const auto voxels = [&](int t) { return starts_[(t + 1) * planes] - starts_[t * planes]; };
  std::sort(tiles_.begin(), tiles_.end(), [&](int a, int b) { return voxels(a) > voxels(b); });
}

RegionSummer::Key RegionSummer::keyOf(int x, int y, int z) const {
  const auto& [grid, sideX, sideY] = tiling_;
  const int tileX = x / sideX, tileY = y / sideY;
  const int inX = x - tileX * sideX, inY = y - tileY * sideY;
  constexpr int blockSide = RegionTables::blockSide;
  const int block = inY / blockSide * RegionTables::blocksARow + inX / blockSide;
  const auto tile = static_cast<std::size_t>(tileY) * tiling_.tilesX() + tileX;
  return {(tile * RegionTables::blocks + block) * grid.Z + z, inY * RegionTables::reach + inX,
          static_cast<std::uint16_t>(inY % blockSide * blockSide + inX % blockSide),
          static_cast<std::uint16_t>(boxVoxels(grid, x, y, z))};
}

/// keys_[first] to keys_[last - 1].
void RegionSummer::findKeys(std::span<const int> centres, int first, int last) {
  const Grid grid = tiling_.grid;
  int row = 0, y = 0, z = 0;  // the first voxel of a row: mostly the next centre is on it, too
  for (int i = first; i < last; ++i) {
    const int centre = centres[i];
    if (centre < row || centre - row >= grid.X) {
      z = centre / grid.plane();
      y = (centre - z * grid.plane()) / grid.X;
      row = z * grid.plane() + y * grid.X;
    }
    keys_[i] = keyOf(centre - row, y, z);
  }
}

/// order_ = the voxels by tile, block, plane, row and column, starts_ = where each block's
/// planes begin. A radix sort of two passes.
void RegionSummer::sortByTile(std::span<const int> centres, int threads) {
  keys_.resize(centres.size());
  parallelRanges(threads, static_cast<int>(centres.size()),
                 [&](int first, int last) { findKeys(centres, first, last); });
  constexpr int blockSide = RegionTables::blockSide;
  std::array<int, blockSide * blockSide + 1> columns{};
  starts_.assign(tiling_.planesATile() * tiling_.tiles() + 1, 0);
  for (const Key& key : keys_) {
    ++columns[key.column + 1];
    ++starts_[key.bucket];
  }
  std::partial_sum(columns.begin(), columns.end(), columns.begin());
  byColumn_.resize(centres.size());
  for (std::size_t i = 0; i < centres.size(); ++i) {
    byColumn_[columns[keys_[i].column]++] = static_cast<int>(i);
  }
  std::exclusive_scan(starts_.begin(), starts_.end(), starts_.begin(), 0);
  order_.resize(centres.size());
  for (const int i : byColumn_) order_[starts_[keys_[i].bucket]++] = i;
  // Every bucket's place has moved on to the next one's.
  std::copy_backward(starts_.begin(), starts_.end() - 1, starts_.end());
  starts_.front() = 0;
}

std::unique_ptr<RegionSummer::Worker> RegionSummer::borrowWorker() {
  const std::lock_guard guard(lock_);
  if (idle_.empty()) return std::make_unique<Worker>();
  std::unique_ptr<Worker> worker = std::move(idle_.back());
  idle_.pop_back();
  return worker;
}
void RegionSummer::returnWorker(std::unique_ptr<Worker> worker) {
  const std::lock_guard guard(lock_);
  idle_.push_back(std::move(worker));
}

}  // namespace tavrel::exact
