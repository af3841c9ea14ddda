// Planes in which a sum leaves its binade, added in pieces of rows.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>

#include "tables.h"

namespace tavrel::exact {

/// What has been summed so far for a voxel of the tile.
struct RegionSlot {
  std::uint64_t sum[2];  ///< bit patterns of the positive and the negative sum
  int place;             ///< index y * reach + x within the tile
  int positives;         ///< voxels of the positive side
};

/// Adds planes in pieces.
class SplitPlanes {
  using Tables = RegionTables;
  static constexpr int window = Tables::window, reach = Tables::reach;

 public:
  /// A slot to which the plane is still to be added from a row of its window on.
  struct Piece {
    std::uint64_t sum;  ///< with the rows before
    RegionSlot* slot;
    int row;  ///< offset of the row in the tables
  };

  /// Sums that leave their binade in this plane: as many rows at once as stay in it, the row
  /// where the sum leaves it voxel by voxel, then the rest. The rows are found from the sums of F
  /// alone, with a margin for the rounding of every voxel. Pieces that are still not done (a sum
  /// may leave several binades) stay in the list; returns their number. Slots with half-way cases
  /// before the row, or whose sums grow too large for the tables, go to the plain list.
  [[gnu::always_inline]] static int add(const Tables& tables, int s, Piece* list, int count,
                                        RegionSlot** plain, int& plainCount) {
    constexpr std::uint64_t margin = window * window / 2 + 1;
    const Tables::Pair* const totals = tables.totals();
    int left = 0;
    for (int first = 0; first < count; first += batch) {
      Piece* pieces = list + first;
      const int used = std::min(batch, count - first);
      const Tables::Pair* entry[batch];
      std::uint64_t limit[batch];
      for (int b = 0; b < batch; ++b) {
        const Piece& piece = pieces[std::min(b, used - 1)];
        entry[b] = totals + piece.slot->place;
        const std::uint64_t room =
            std::max(Tables::ulps - (piece.sum & (Tables::ulps - 1)), margin) - margin;
        limit[b] = entry[b][piece.row][s] + (room << (Tables::binadeOf(piece.sum) + 1));
      }
      findRows(s, limit, entry);
      const double* value[batch];
      int row[batch];  // offsets in the tables
      double sum[batch];
      bool tie[batch];
      for (int b = 0; b < batch; ++b) {
        const Piece& piece = pieces[std::min(b, used - 1)];
        const std::ptrdiff_t place = piece.slot->place, from = place + piece.row;
        const std::ptrdiff_t to = std::max(entry[b] - totals, from);
        row[b] = static_cast<int>(to - place);
        const Tables::Step found = tables.step(s, from, to, piece.sum);
        tie[b] = !found.valid;
        value[b] = tables.values(s) + to;
        sum[b] = std::bit_cast<double>(found.sum);
      }
#pragma GCC unroll 21
      for (int j = 0; j < window; ++j) {
#pragma GCC unroll 8
        for (int b = 0; b < batch; ++b) sum[b] += value[b][j];
      }
      for (int b = 0; b < used; ++b) {
        RegionSlot* const slot = pieces[b].slot;
        const int next = row[b] + reach;
        const auto bits = std::bit_cast<std::uint64_t>(sum[b]);
        const Tables::Step rest =
            tables.step(s, slot->place + next, slot->place + window * reach, bits);
        const bool done = rest.valid & !tie[b];
        const bool lost = tie[b] | (!done & (Tables::binadeOf(bits) >= Tables::binades));
        slot->sum[s] = done ? rest.sum : slot->sum[s];
        plain[plainCount] = slot;
        plainCount += lost;
        list[left] = {bits, slot, next};
        left += !(done | lost);
      }
    }
    return left;
  }

 private:
  /// Some pieces that are worked on side by side, so that their long chains of additions overlap.
  static constexpr int batch = 8;

  /// For each of a batch of windows the last of rows 0 to window - 1 before which the sums of F
  /// stay below the limit, as an entry of the table: binary searches, step by step side by side.
  /// Their ways are unpredictable, so they take no branches.
  [[gnu::always_inline]] static void findRows(int s, const std::uint64_t (&limit)[batch],
                                              const Tables::Pair* (&entry)[batch]) {
    constexpr int steps[] = {10, 5, 3, 1, 1};
#pragma GCC unroll 5
    for (int i = 0; i < 5; ++i) {
#pragma GCC unroll 8
      for (int b = 0; b < batch; ++b) {
        const bool further = entry[b][steps[i] * reach][s] < limit[b];
        entry[b] += steps[i] * reach & -std::ptrdiff_t{further};
      }
    }
  }
};

}  // namespace tavrel::exact
