// One tile of columns, plane by plane along z: the sums of all its interface voxels.
#pragma once

#include <algorithm>
#include <array>
#include <span>
#include <vector>

#include "plain_windows.h"
#include "split_planes.h"
#include "tables.h"

namespace tavrel::exact {

/// The tables of a tile and the work lists of one plane.
class RegionTile {
 public:
  static constexpr int window = RegionTables::window, reach = RegionTables::reach;
  using Slot = RegionSlot;

  /// The voxels of a tile by block and plane, and the work lists of one plane.
  struct Slots {
    void resize(std::size_t count) {
      for (auto* list : {&unfinished[0], &unfinished[1]}) list->resize(count + 1);
      pieces.resize(count + 1);
      plain.resize(2 * count + 1);
      next.resize(2 * count + 1);
      all.resize(count);
    }
    std::vector<Slot> all;
    std::array<std::vector<Slot*>, 2> unfinished;
    std::vector<SplitPlanes::Piece> pieces;
    std::vector<Slot*> plain;  ///< for their positive sums, then for their negative ones
    std::vector<int> next;     ///< number of the next plain sum of the same window; -1: none
  };

  RegionTables tables;

  /// Adds the plane to all slots of the ranges.
  [[gnu::always_inline]] void addPlane(Slots& slots, std::span<const std::span<Slot>> ranges) {
    Slot** unfinished[2] = {slots.unfinished[0].data(), slots.unfinished[1].data()};
    for (const std::span<Slot> range : ranges) {
      for (Slot& slot : range) {
        const std::ptrdiff_t at = slot.place;
        slot.positives += tables.positives(at, at + window * reach);
        const RegionTables::Pair failed = tables.stepBoth(at, at + window * reach, slot.sum);
#pragma GCC unroll 2
        for (int s = 0; s < 2; ++s) {
          *unfinished[s] = &slot;
          unfinished[s] -= static_cast<std::ptrdiff_t>(failed[s]);
        }
      }
    }
    int plain = 0, plainPositive = 0;
    for (int s = 0; s < 2; ++s) {
      plainPositive = plain;
      int pieces = 0;
      for (Slot* slot : std::span(slots.unfinished[s].data(), unfinished[s])) {
        const bool served = RegionTables::binadeOf(slot->sum[s]) < RegionTables::binades;
        slots.plain[plain] = slot;
        slots.pieces[pieces] = {slot->sum[s], slot, 0};
        plain += !served;
        pieces += served;
      }
      while (pieces > 0) {
        pieces =
            SplitPlanes::add(tables, s, slots.pieces.data(), pieces, slots.plain.data(), plain);
      }
    }
    if (plain > 0)
      windows_.add(tables, slots.plain.data(), slots.next.data(), plainPositive, plain);
  }

 private:
  PlainWindows windows_;
};

/// One tile from its first plane to its last. `starts[block * grid.Z + z]` is the first slot of
/// plane z of a block, counted from the first entry.
[[gnu::always_inline]] inline void sumTile(RegionTile& tile, RegionTile::Slots& slots,
                                           const double* image, const char* label, Grid grid,
                                           int x0, int y0, std::span<const int> starts) {
  constexpr int blocksARow = RegionTables::blocksARow, blockSide = RegionTables::blockSide;
  RegionTables& tables = tile.tables;
  std::array<std::span<RegionTile::Slot>, RegionTables::blocks> ranges;  // of one plane
  tables.enter(grid.X, grid.Y, x0, y0);
  for (int z = 0; z < grid.Z; ++z) {
    RegionTables::Area area;
    for (int block = 0; block < RegionTables::blocks; ++block) {
      const int* planes = &starts[block * grid.Z];
      const int first = planes[std::max(z - boxSize, 0)] - starts[0];
      const int last = planes[std::min(z + boxSize + 1, grid.Z)] - starts[0];
      ranges[block] = std::span(slots.all).subspan(first, last - first);
      if (first != last) area.addBlock(block);
    }
    if (area.x0 >= area.x1) continue;
    const std::ptrdiff_t plane = static_cast<std::ptrdiff_t>(z) * grid.plane();
    tables.start(image + plane, label + plane, area);
    // Blocks are served as soon as the tables reach far enough, while these are in cache.
    int rows = area.y0;
    for (int y = area.y0; y < area.y1; y += blockSide) {
      const int last = y + blockSide + RegionTables::window - 1;
      tables.addRows(rows, last);
      rows = last;
      tile.addPlane(slots, std::span(ranges).subspan(y / blockSide * blocksARow, blocksARow));
    }
  }
}

}  // namespace tavrel::exact
