// Exact region sums: image sums over the two sides of the interface in a box of up to 21 voxels an
// axis around every interface voxel, equal in every bit to plain loops over the box.
//
// The plain sum is a chain of rounded additions in z, y, x order, and its last bits are part of the
// result. While the running sum S stays in one binade [2^e, 2^(e+1)), adding v >= 0 adds
// round(v / ulp) to S read as an integer, with ulp = 2^(e-52), whatever S is - unless v lies half
// way between two multiples of ulp. Integers may be summed in any order, so a whole piece of the
// box can be added in one step, which is valid when
//   * S is in the binade the integers were made for and still is after the step (S only grows, so
//     that it never left it), and
//   * no voxel of the piece is a half-way case, negative, or out of the tables' range.
// Pieces that fail are split: a plane into rows, the row where S leaves its binade into voxels.
//
// Tables. With F = floor(v * 2^B), the integer of v in the binade whose ulp drops the last k bits
// of F is (F + c_k) / 2^k, where c_k = (round F to k bits) - F is small. So one 64-bit sum of F and
// one 32-bit sum of c_k a binade serve all binades; a half-way voxel adds `tieUnit` to the latter,
// larger than all c_k of a plane together, so that it shows. Sums run over windows of 21 voxels
// along x and are accumulated along y: any set of consecutive rows of a window is the difference of
// two entries.
//
// Work is done a tile of columns at a time, plane by plane along z: each plane's tables are built
// once, in cache, and added to every interface voxel of the tile whose box contains the plane.
// Exact floating-point summation by integers: U. Kulisch, "Computer Arithmetic and Validity"
// (2008); the ulp argument: J.-M. Muller et al., "Handbook of Floating-Point Arithmetic" (2018),
// ch. 2.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <numeric>
#include <span>
#include <vector>

#include "voxBand.h"
#include "voxExactMath.h"
#include "voxMemory.h"
#include "voxParallel.h"

namespace tavrel {

/// Half-width of the region box, in voxels.
inline constexpr int boxSize = 10;

/// Sums and voxel counts of the two sides of the interface in the box around a voxel.
struct RegionSums {
  double positive = 0, negative = 0;
  int nPositive = 0, nNegative = 0;
};

/// The plain loop that defines the sums: z outermost, then y, then x.
/// @param image, label  one value a voxel of the grid; label > 0 (as signed 8 bits) is positive
/// @param centre        grid index of the voxel
inline RegionSums plainRegionSums(const double* image, const char* label, Grid grid, int centre) {
  const int cx = centre % grid.X, cy = centre / grid.X % grid.Y, cz = centre / grid.plane();
  RegionSums sums;
  for (int z = std::max(cz - boxSize, 0); z <= std::min(cz + boxSize, grid.Z - 1); ++z) {
    for (int y = std::max(cy - boxSize, 0); y <= std::min(cy + boxSize, grid.Y - 1); ++y) {
      for (int x = std::max(cx - boxSize, 0); x <= std::min(cx + boxSize, grid.X - 1); ++x) {
        const int g = x + y * grid.X + z * grid.plane();
        const bool positive = static_cast<signed char>(label[g]) > 0;
        (positive ? sums.positive : sums.negative) += image[g];
        ++(positive ? sums.nPositive : sums.nNegative);
      }
    }
  }
  return sums;
}

/// Number of voxels in the box around a voxel.
inline int boxVoxels(Grid grid, int centre) {
  const auto extent = [](int c, int size) {
    return std::min(c + boxSize, size - 1) - std::max(c - boxSize, 0) + 1;
  };
  return extent(centre % grid.X, grid.X) * extent(centre / grid.X % grid.Y, grid.Y) *
         extent(centre / grid.plane(), grid.Z);
}

/// Instruction sets the kernels are compiled for. The bytes are the same for all.
enum class InstructionSet { portable, avx2, avx512 };

/// The widest instruction set of this processor.
inline InstructionSet widestInstructionSet() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl")) {
    return InstructionSet::avx512;
  }
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi2")) return InstructionSet::avx2;
#endif
  return InstructionSet::portable;
}

/// Tables of one plane of one tile, and the steps that use them. See the top of this file.
class alignas(hugePage) RegionTile {
 public:
  static constexpr int window = 2 * boxSize + 1;
  static constexpr int side = 48;                   ///< columns of a tile along x and along y
  static constexpr int reach = side + 2 * boxSize;  ///< the same with the margin of the boxes
  /// A tile's voxels are visited block by block, so that the tables they read stay in the nearest
  /// cache.
  static constexpr int blockSide = 8;
  static constexpr int blocksARow = side / blockSide;
  static constexpr int blocks = blocksARow * blocksARow;

  /// A slot to which the plane is still to be added from row `row` of its window on.
  struct Piece {
    int slot, row;
  };

  /// The voxels of a tile by block and plane, and what has been summed for them so far.
  struct Slots {
    void reset(int count) {
      for (auto* list : {&place, &valuePlace, &unfinished}) list->resize(count);
      for (auto* list : {&starting, &leaving}) list->resize(count);
      for (auto& bits : sum) bits.assign(count, 0);
      voxels.assign(count, 0);
    }
    std::vector<int> place;       ///< index y * side + x within the tile
    std::vector<int> valuePlace;  ///< index y * reach + x
    /// Bit patterns of the positive and the negative sum.
    std::array<std::vector<std::uint64_t>, 2> sum;
    std::vector<int> voxels;      ///< positive voxels
    std::vector<int> unfinished;  ///< work lists of one plane
    std::vector<Piece> starting, leaving;
  };

  /// The part of a tile whose windows are needed: columns [x0, x1) and rows [y0, y1).
  struct Area {
    int x0 = side, x1 = 0, y0 = side, y1 = 0;
    void addBlock(int block) {
      const int x = block % blocksARow * blockSide, y = block / blocksARow * blockSide;
      x0 = std::min(x0, x);
      x1 = std::max(x1, x + blockSide);
      y0 = std::min(y0, y);
      y1 = std::max(y1, y + blockSide);
    }
  };

  /// Builds the tables of the plane that starts at image[0] for an area of the tile, whose first
  /// column is (x0, y0) of the grid. Voxels outside the grid belong to neither side. `Bytes` is the
  /// length of the vectors used.
  template <int Bytes>
  [[gnu::always_inline]] void build(const double* image, const char* label, int X, int Y, int x0,
                                    int y0, Area area) {
    area.x1 = std::min(area.x1, X - x0);
    area.y1 = std::min(area.y1, Y - y0);
    for (auto& table : tables_) {
      std::fill(table.sums[area.y0] + area.x0, table.sums[area.y0] + area.x1, Entry{});
      std::fill_n(table.value[reach], reach, 0.0);
    }
    for (int r = area.y0; r < area.y1 + window - 1; ++r) {
      RowVoxels row;
      readRow(image, label, X, Y, x0 - boxSize, y0 - boxSize + r, r, row);
      makeEntries<Bytes>(row, area.x0, area.x1 + window - 1);
      for (int s = 0; s < 2; ++s) {
        accumulateRow<Bytes>(tables_[s], row_[s], r, area.x0, area.x1);
      }
    }
  }

  /// Slots [first, last).
  struct Range {
    int first, last;
  };

  /// Adds the plane to all slots of the ranges.
  [[gnu::always_inline]] void addPlane(Slots& slots, std::span<const Range> ranges) {
    const int* place = slots.place.data();
    int* voxels = slots.voxels.data();
    for (int s = 0; s < 2; ++s) {
      const Table& table = tables_[s];
      std::uint64_t* sum = slots.sum[s].data();
      int* unfinished = slots.unfinished.data();
      int count = 0;
      for (const Range range : ranges) {
        for (int i = range.first; i < range.last; ++i) {
          const Start start(table.sums[0] + place[i], sum[i]);
          const Step step = addRows(start, window);
          sum[i] += step.valid ? step.added : 0;
          unfinished[count] = i;
          count += !step.valid;
          if (s == 0) {
            const Entry* end = start.entry + window * side;
            voxels[i] += static_cast<int>(end->voxels() - start.entry->voxels());
          }
        }
      }
      int starts = 0, leaves = 0;
      for (int i = 0; i < count; ++i) {
        const bool served = binadeOf(sum[unfinished[i]]) < binades;
        slots.starting[starts] = slots.leaving[leaves] = {unfinished[i], 0};
        starts += !served;
        leaves += served;
      }
      leaves = addFirstRows(table, slots, sum, starts, leaves);
      while (leaves > 0) leaves = addInPieces(table, slots, sum, leaves);
    }
  }

 private:
  static constexpr int firstBinade = 2;  ///< the tables serve sums from 2^2 ...
  static constexpr int binades = 12;     ///< ... to below 2^14
  static constexpr int fractionBits = 53 - firstBinade;
  static constexpr double smallest = 0x1p-50;  ///< the tables serve values from here ...
  static constexpr double limit = 4;           ///< ... to below this, and 0
  static constexpr std::uint32_t tieUnit = 1 << 21;
  static_assert(window * window << (binades - 1) < tieUnit / 2);

  /// Sums over some voxels: lanes 0 and 1 hold the 64-bit sum of F, the next `binades` lanes the
  /// sums of c_k and of ties, the one after them the number of voxels.
  struct alignas(64) Entry {
    std::uint32_t lanes[16];

    [[gnu::always_inline]] std::uint64_t total() const {
      std::uint64_t value;
      std::memcpy(&value, lanes, sizeof value);
      return value;
    }
    [[gnu::always_inline]] void setTotal(std::uint64_t value) {
      std::memcpy(lanes, &value, sizeof value);
    }
    [[gnu::always_inline]] std::uint32_t rounding(int k) const { return lanes[firstLane + k]; }
    [[gnu::always_inline]] std::uint32_t voxels() const { return lanes[firstLane + binades]; }
  };
  static constexpr int firstLane = 2;

  /// One side of the interface. sums[r][x] is over rows 0 to r - 1 of window x.
  struct Table {
    Entry sums[reach + 1][side];
    double value[reach + 1][reach];  ///< the voxel, 0 if it is not on this side; a row of zeros
  };

  /// The binade of a sum, counted from the first one served; `binades` or more if none of them.
  [[gnu::always_inline]] static std::uint64_t binadeOf(std::uint64_t sum) {
    return (sum >> 52) - (1023 + firstBinade);
  }

  /// A sum to which the rows from `entry` on are to be added.
  struct Start {
    [[gnu::always_inline]] Start(const Entry* at, std::uint64_t sum) : entry(at) {
      const std::uint64_t binade = binadeOf(sum);
      const bool known = binade < binades;
      k = known ? static_cast<int>(binade) : 0;
      // Values served are at least one ulp of the first binade, so room 1 admits only zeros.
      room = known ? (std::int64_t{1} << 52) - static_cast<std::int64_t>(sum << 12 >> 12) : 1;
      total = entry->total();
      rounding = entry->rounding(k);
    }
    const Entry* entry;
    std::uint64_t total;
    std::int64_t room;  ///< what the sum's bit pattern must stay below to keep its binade
    std::uint32_t rounding;
    int k;
  };

  /// What rows of a window add to the bit pattern of a sum, and whether that is valid.
  struct Step {
    std::int64_t added;
    bool valid;
  };
  [[gnu::always_inline]] static Step addRows(const Start& start, int rows) {
    const Entry* end = start.entry + rows * side;
    const std::uint32_t rounding = end->rounding(start.k) - start.rounding;
    const auto total = static_cast<std::int64_t>(end->total() - start.total);
    const auto added = (total + static_cast<std::int32_t>(rounding)) >> (start.k + 1);
    const bool noTie = rounding + tieUnit / 2 < tieUnit;
    return {added, bool((added < start.room) & noTie)};
  }

  /// A row of the tile with its margin, in arrays a little longer so that whole vectors fit.
  static constexpr int padded = (reach + 7) / 8 * 8;
  struct RowVoxels {
    std::uint64_t inside[2][padded];  ///< all ones where the voxel is on the side
    std::uint64_t fixed[padded];      ///< F
    std::uint32_t exact[padded];      ///< tieUnit where F holds all of v
    std::uint32_t unusable[padded];   ///< tieUnit where the tables do not serve v
  };

  /// Reads row y of the plane from x0 on as row r of the tables.
  [[gnu::always_inline]] void readRow(const double* image, const char* label, int X, int Y, int x0,
                                      int y, int r, RowVoxels& row) {
    std::uint64_t bits[padded] = {};
    std::memset(row.inside, 0, sizeof row.inside);
    if (y >= 0 && y < Y) {
      const int begin = std::max(0, -x0), end = std::min(reach, X - x0);
      const std::ptrdiff_t row0 = static_cast<std::ptrdiff_t>(y) * X + x0;
      std::memcpy(bits + begin, image + (row0 + begin), (end - begin) * sizeof(double));
      for (int j = begin; j < end; ++j) {
        const std::uint64_t positive =
            -std::uint64_t{static_cast<signed char>(label[row0 + j]) > 0};
        row.inside[0][j] = positive;
        row.inside[1][j] = ~positive;
      }
    }
    // The bit pattern of v >= 0 grows with v; F is its significand, shifted.
    constexpr auto least = std::bit_cast<std::uint64_t>(smallest);
    constexpr auto most = std::bit_cast<std::uint64_t>(limit);
    constexpr std::uint64_t implicitBit = std::uint64_t{1} << 52;
    for (int j = 0; j < padded; ++j) {
      const std::uint64_t served = -std::uint64_t{bits[j] - least < most - least};
      const std::uint64_t significand = (bits[j] & (implicitBit - 1)) | implicitBit;
      const std::uint64_t exponent = bits[j] >> 52;
      const std::uint64_t shift = (1023 + 52 - fractionBits - exponent) & 63 & served;
      const std::uint64_t fixed = (significand >> shift) & served;
      row.fixed[j] = fixed;
      row.exact[j] = (fixed << shift) == significand ? tieUnit : 0u;
      row.unusable[j] = (served | -std::uint64_t{bits[j] == 0}) == 0 ? tieUnit : 0u;
    }
    for (int s = 0; s < 2; ++s) {
      std::uint64_t masked[padded];
      for (int j = 0; j < padded; ++j) masked[j] = bits[j] & row.inside[s][j];
      std::memcpy(tables_[s].value[r], masked, sizeof tables_[s].value[r]);
    }
  }

  /// The entries of the row's voxels [first, last) for both sides, in vectors of `Bytes` bytes.
  template <int Bytes>
  [[gnu::always_inline]] void makeEntries(const RowVoxels& row, int first, int last) {
    alignas(64) std::uint32_t halves[16] = {}, lowBits[16] = {}, binadeLanes[16] = {};
    for (int k = 0; k < binades; ++k) {
      halves[firstLane + k] = 1u << k;
      lowBits[firstLane + k] = (2u << k) - 1;
      binadeLanes[firstLane + k] = ~0u;
    }
    halves[firstLane + binades] = 1;  // counts the voxel
    typedef std::uint32_t Vector [[gnu::vector_size(Bytes)]];
    for (int part = 0; part < 64; part += Bytes) {
      Vector half, low, served;
      std::memcpy(&half, halves + part / 4, Bytes);
      std::memcpy(&low, lowBits + part / 4, Bytes);
      std::memcpy(&served, binadeLanes + part / 4, Bytes);
      for (int j = first; j < last; ++j) {
        // rest is below 2^31, so that only 0 borrows into the highest bit: a half-way case.
        const Vector rest = (static_cast<std::uint32_t>(row.fixed[j]) + half) & low;
        const Vector ties = ((0 - ((rest - 1) >> 31)) & row.exact[j]) | row.unusable[j];
        const Vector lanes = half - rest + (ties & served);
        for (int s = 0; s < 2; ++s) {
          const Vector mine = lanes & static_cast<std::uint32_t>(row.inside[s][j]);
          std::memcpy(row_[s][j].lanes + part / 4, &mine, Bytes);
        }
      }
    }
    for (int s = 0; s < 2; ++s) {
      for (int j = first; j < last; ++j) row_[s][j].setTotal(row.fixed[j] & row.inside[s][j]);
    }
  }

  /// Slides the window along row r and adds it to the sums of the rows before, for windows
  /// [first, last).
  template <int Bytes>
  [[gnu::always_inline]] static void accumulateRow(Table& table, const Entry (&row)[reach], int r,
                                                   int first, int last) {
    const Entry* before = table.sums[r];
    Entry* after = table.sums[r + 1];
    typedef std::uint32_t Vector [[gnu::vector_size(Bytes)]];
    for (int part = 0; part < 64; part += Bytes) {
      Vector sum{}, next;
      for (int j = first; j < first + window - 1; ++j) {
        std::memcpy(&next, row[j].lanes + part / 4, Bytes);
        sum += next;
      }
      for (int x = first; x < last; ++x) {
        std::memcpy(&next, row[x + window - 1].lanes + part / 4, Bytes);
        sum += next;
        std::memcpy(&next, before[x].lanes + part / 4, Bytes);
        next += sum;
        std::memcpy(after[x].lanes + part / 4, &next, Bytes);
        std::memcpy(&next, row[x].lanes + part / 4, Bytes);
        sum -= next;
      }
    }
    std::uint64_t total = 0;
    for (int j = first; j < first + window - 1; ++j) total += row[j].total();
    for (int x = first; x < last; ++x) {
      total += row[x + window - 1].total();
      after[x].setTotal(before[x].total() + total);
      total -= row[x].total();
    }
  }

  /// Some pieces that are worked on side by side, so that their long chains of additions overlap.
  static constexpr int batch = 8;
  struct Batch {
    const Entry* entry[batch];   ///< the window's first entry
    const double* value[batch];  ///< its first voxel
    int row[batch];              ///< rows of the plane added so far
    std::uint64_t sum[batch];
  };

  /// The next pieces of a list; the last batch is filled up with copies of the last piece.
  [[gnu::always_inline]] static void load(const Table& table, const Slots& slots,
                                          const std::uint64_t* sums, const Piece* pieces, int used,
                                          Batch& work) {
    for (int b = 0; b < batch; ++b) {
      const Piece piece = pieces[std::min(b, used - 1)];
      work.entry[b] = table.sums[0] + slots.place[piece.slot];
      work.value[b] = table.value[0] + slots.valuePlace[piece.slot];
      work.row[b] = piece.row;
      work.sum[b] = sums[piece.slot];
    }
  }

  /// Adds one row of the window voxel by voxel to every sum; past the last row, zeros.
  [[gnu::always_inline]] static void addVoxels(const Table& table, Batch& work,
                                               const int (&row)[batch]) {
    const double* value[batch];
    double sum[batch];
    for (int b = 0; b < batch; ++b) {
      value[b] = row[b] < window ? work.value[b] + row[b] * reach : table.value[reach];
      sum[b] = std::bit_cast<double>(work.sum[b]);
    }
    for (int j = 0; j < window; ++j) {
#pragma GCC unroll 8
      for (int b = 0; b < batch; ++b) sum[b] += value[b][j];
    }
    for (int b = 0; b < batch; ++b) work.sum[b] = std::bit_cast<std::uint64_t>(sum[b]);
  }

  /// The largest number of rows, up to `most`, for which fits(end of the rows) holds; what holds
  /// for some rows must hold for fewer. A binary search; its way is unpredictable, so it takes no
  /// branches.
  template <typename Fits>
  [[gnu::always_inline]] static int mostRows(const Entry* entry, int most, Fits&& fits) {
    const Entry* const last = entry + most * side;
    const Entry* end = entry;
#pragma GCC unroll 5
    for (int step = 16; step > 0; step /= 2) {
      const Entry* const more = end + step * side;
      const bool fit = fits(std::min(more, last)) & (more <= last);
      end += step * side & -std::ptrdiff_t{fit};
    }
    return static_cast<int>((end - entry) / side);
  }

  /// Adds as many rows to every sum as can be added at once, sometimes one less: the rows are found
  /// from the sums of F alone, with a margin for the rounding of every voxel.
  [[gnu::always_inline]] static void addWholeRows(Batch& work) {
    bool ties = false;
    int rows[batch];
    for (int b = 0; b < batch; ++b) {
      const Start start(work.entry[b] + work.row[b] * side, work.sum[b]);
      const std::int64_t room = start.room - (window * window / 2 + 1);
      rows[b] = mostRows(start.entry, window - work.row[b], [&](const Entry* end) {
        return static_cast<std::int64_t>(end->total() - start.total) >> (start.k + 1) < room;
      });
      const Step found = addRows(start, rows[b]);
      ties |= !found.valid;
      work.sum[b] += found.valid ? found.added : 0;
      work.row[b] += found.valid ? rows[b] : 0;
      rows[b] = found.valid ? 0 : rows[b];
    }
    if (ties) addRowsBeforeTies(work, rows);
  }

  /// The same among rows[b] rows that hold a half-way case: those before it.
  [[gnu::always_inline]] static void addRowsBeforeTies(Batch& work, const int (&rows)[batch]) {
    for (int b = 0; b < batch; ++b) {
      const Start start(work.entry[b] + work.row[b] * side, work.sum[b]);
      const int before = mostRows(start.entry, rows[b], [&](const Entry* end) {
        return end->rounding(start.k) - start.rounding + tieUnit / 2 < tieUnit;
      });
      const Step found = addRows(start, before);
      work.sum[b] += found.valid ? found.added : 0;
      work.row[b] += found.valid ? before : 0;
    }
  }

  /// Moves every piece on to its first row with a voxel that is not 0.
  [[gnu::always_inline]] static void skipZeros(Batch& work) {
    for (int b = 0; b < batch; ++b) {
      const Start start(work.entry[b] + work.row[b] * side, 0);
      work.row[b] += mostRows(start.entry, window - work.row[b], [&](const Entry* end) {
        return ((end->total() ^ start.total) | (end->rounding(0) ^ start.rounding)) == 0;
      });
    }
  }

  /// Sums that the tables do not serve, most of all those that start from 0: rows are added voxel
  /// by voxel until they do. What is then left of the plane is appended to `leaving`, which holds
  /// `leaves` pieces; returns their new number.
  [[gnu::always_inline]] static int addFirstRows(const Table& table, Slots& slots,
                                                 std::uint64_t* sums, int starts, int leaves) {
    for (int first = 0; first < starts; first += batch) {
      const Piece* pieces = slots.starting.data() + first;
      const int used = std::min(batch, starts - first);
      Batch work;
      load(table, slots, sums, pieces, used, work);
      skipZeros(work);
      for (bool any = true; any;) {
        int row[batch];
        any = false;
        for (int b = 0; b < batch; ++b) {
          const bool add = (binadeOf(work.sum[b]) >= binades) & (work.row[b] < window);
          row[b] = add ? work.row[b] : window;
          work.row[b] += add;
          any |= add;
        }
        if (any) addVoxels(table, work, row);
      }
      for (int b = 0; b < used; ++b) {
        sums[pieces[b].slot] = work.sum[b];
        slots.leaving[leaves] = {pieces[b].slot, work.row[b]};
        leaves += work.row[b] < window;
      }
    }
    return leaves;
  }

  /// Sums that leave their binade in this plane: as many rows at once as stay in it, the row where
  /// the sum leaves it voxel by voxel, then the rest. Pieces that are still not done (a sum may
  /// leave several binades) stay in the list; returns their number.
  [[gnu::always_inline]] static int addInPieces(const Table& table, Slots& slots,
                                                std::uint64_t* sums, int count) {
    int left = 0;
    for (int first = 0; first < count; first += batch) {
      Piece* pieces = slots.leaving.data() + first;
      const int used = std::min(batch, count - first);
      Batch work;
      load(table, slots, sums, pieces, used, work);
      addWholeRows(work);
      addVoxels(table, work, work.row);
      for (int b = 0; b < used; ++b) {
        const int slot = pieces[b].slot;
        const int row = std::min(work.row[b] + 1, window);
        const Step rest = addRows(Start(work.entry[b] + row * side, work.sum[b]), window - row);
        sums[slot] = work.sum[b] + (rest.valid ? rest.added : 0);
        slots.leaving[left] = {slot, row};
        left += !rest.valid & (row < window);
      }
    }
    return left;
  }

  std::array<Table, 2> tables_;  // positive, negative
  Entry row_[2][reach];          // the row being added
};

/// One tile from its first plane to its last. `starts[block * grid.Z + z]` is the first slot of
/// plane z of a block, counted from the first entry.
template <int Bytes>
[[gnu::always_inline]] inline void sumTile(RegionTile& tile, RegionTile::Slots& slots,
                                           const double* image, const char* label, Grid grid,
                                           int x0, int y0, std::span<const int> starts) {
  std::array<RegionTile::Range, RegionTile::blocks> ranges;
  for (int z = 0; z < grid.Z; ++z) {
    int used = 0;
    RegionTile::Area area;
    for (int block = 0; block < RegionTile::blocks; ++block) {
      const int* planes = &starts[block * grid.Z];
      const int first = planes[std::max(z - boxSize, 0)] - starts[0];
      const int last = planes[std::min(z + boxSize + 1, grid.Z)] - starts[0];
      if (first == last) continue;
      ranges[used++] = {first, last};
      area.addBlock(block);
    }
    if (used == 0) continue;
    const std::ptrdiff_t plane = static_cast<std::ptrdiff_t>(z) * grid.plane();
    tile.build<Bytes>(image + plane, label + plane, grid.X, grid.Y, x0, y0, area);
    tile.addPlane(slots, std::span(ranges).first(used));
  }
}

// The same code for each instruction set.
using TileKernel = void(RegionTile&, RegionTile::Slots&, const double*, const char*, Grid, int, int,
                        std::span<const int>);

inline void sumTilePortable(RegionTile& tile, RegionTile::Slots& slots, const double* image,
                            const char* label, Grid grid, int x0, int y0,
                            std::span<const int> starts) {
  sumTile<16>(tile, slots, image, label, grid, x0, y0, starts);
}
#if defined(__x86_64__)
[[gnu::target("avx2,bmi,bmi2,popcnt")]] inline void sumTileAvx2(
    RegionTile& tile, RegionTile::Slots& slots, const double* image, const char* label, Grid grid,
    int x0, int y0, std::span<const int> starts) {
  sumTile<32>(tile, slots, image, label, grid, x0, y0, starts);
}
[[gnu::target("avx2,bmi,bmi2,popcnt,avx512f,avx512bw,avx512dq,avx512vl")]] inline void
sumTileAvx512(RegionTile& tile, RegionTile::Slots& slots, const double* image, const char* label,
              Grid grid, int x0, int y0, std::span<const int> starts) {
  sumTile<64>(tile, slots, image, label, grid, x0, y0, starts);
}
#endif

inline TileKernel* kernelFor([[maybe_unused]] InstructionSet instructions) {
#if defined(__x86_64__)
  if (instructions == InstructionSet::avx512) return sumTileAvx512;
  if (instructions == InstructionSet::avx2) return sumTileAvx2;
#endif
  return sumTilePortable;
}

/// Region sums of many voxels at once. An object keeps its work space from call to call.
class RegionSummer {
 public:
  /// @param image, label  one value a voxel of the grid; label > 0 (as signed 8 bits) is positive
  /// @param centres       grid indices of the voxels
  /// @param sums          receives the result of centres[i] in sums[i]
  void sum(const double* image, const char* label, Grid grid, std::span<const int> centres,
           std::span<RegionSums> sums, int threads = 1,
           InstructionSet instructions = widestInstructionSet()) {
    constexpr int side = RegionTile::side;
    const int tilesX = (grid.X + side - 1) / side;
    const int tilesY = (grid.Y + side - 1) / side;
    const std::size_t planesATile = static_cast<std::size_t>(RegionTile::blocks) * grid.Z;
    sortByTile(grid, centres, tilesX, planesATile * tilesX * tilesY);
    parallelFor(threads, tilesX * tilesY, [&](int t) {
      const auto starts = std::span(starts_).subspan(t * planesATile, planesATile + 1);
      const auto mine = std::span(order_).subspan(starts.front(), starts.back() - starts.front());
      if (mine.empty()) return;
      const int x0 = t % tilesX * side;
      const int y0 = t / tilesX * side;
      std::unique_ptr<Worker> worker = borrowWorker();
      RegionTile::Slots& slots = worker->slots;
      slots.reset(static_cast<int>(mine.size()));
      for (std::size_t i = 0; i < mine.size(); ++i) {
        const int x = centres[mine[i]] % grid.X - x0;
        const int y = centres[mine[i]] / grid.X % grid.Y - y0;
        slots.place[i] = y * RegionTile::side + x;
        slots.valuePlace[i] = y * RegionTile::reach + x;
      }
      kernelFor(instructions)(worker->tile, slots, image, label, grid, x0, y0, starts);
      for (std::size_t i = 0; i < mine.size(); ++i) {
        sums[mine[i]] = {std::bit_cast<double>(slots.sum[0][i]),
                         std::bit_cast<double>(slots.sum[1][i]), slots.voxels[i],
                         boxVoxels(grid, centres[mine[i]]) - slots.voxels[i]};
      }
      returnWorker(std::move(worker));
    });
  }

 private:
  struct Worker {
    Worker() { preferHugePages(&tile, sizeof tile); }
    RegionTile tile;
    RegionTile::Slots slots;
  };

  /// order_ = the voxels by tile, block and plane, starts_ = where each of these begins.
  void sortByTile(Grid grid, std::span<const int> centres, int tilesX, std::size_t buckets) {
    constexpr int side = RegionTile::side, blockSide = RegionTile::blockSide;
    const auto bucket = [&](int g) {
      const int x = g % grid.X, y = g / grid.X % grid.Y, z = g / grid.plane();
      const int block = y % side / blockSide * RegionTile::blocksARow + x % side / blockSide;
      const int tile = y / side * tilesX + x / side;
      return (static_cast<std::size_t>(tile) * RegionTile::blocks + block) * grid.Z + z;
    };
    starts_.assign(buckets + 1, 0);
    order_.resize(centres.size());
    for (const int g : centres) ++starts_[bucket(g) + 1];
    std::partial_sum(starts_.begin(), starts_.end(), starts_.begin());
    next_.assign(starts_.begin(), starts_.end() - 1);
    for (std::size_t i = 0; i < centres.size(); ++i) {
      order_[next_[bucket(centres[i])]++] = static_cast<int>(i);
    }
  }

  std::unique_ptr<Worker> borrowWorker() {
    const std::lock_guard guard(lock_);
    if (idle_.empty()) return std::make_unique<Worker>();
    std::unique_ptr<Worker> worker = std::move(idle_.back());
    idle_.pop_back();
    return worker;
  }
  void returnWorker(std::unique_ptr<Worker> worker) {
    const std::lock_guard guard(lock_);
    idle_.push_back(std::move(worker));
  }

  std::vector<int> starts_, next_, order_;
  std::vector<std::unique_ptr<Worker>> idle_;
  std::mutex lock_;
};

}  // namespace tavrel
