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
// Where a plane of the box fails, it is split into the rows before the one in which S leaves its
// binade, that row, voxel by voxel, and the rows after it. Sums too small (or too large) for the
// tables, and planes with half-way cases, are added voxel by voxel, several boxes side by side in a
// vector, and once for all boxes that have the same window and sum.
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
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <numeric>
#include <span>
#include <utility>
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

/// Number of voxels in the box around voxel (x, y, z).
inline int boxVoxels(Grid grid, int x, int y, int z) {
  const auto extent = [](int c, int size) {
    return std::min(c + boxSize, size - 1) - std::max(c - boxSize, 0) + 1;
  };
  return extent(x, grid.X) * extent(y, grid.Y) * extent(z, grid.Z);
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
  static constexpr int side = 96;                   ///< most columns of a tile along x and y
  static constexpr int reach = side + 2 * boxSize;  ///< the same with the margin of the boxes
  /// A tile's voxels are visited block by block, so that the tables they read stay in the nearest
  /// cache.
  static constexpr int blockSide = 8;
  static constexpr int blocksARow = side / blockSide;
  static constexpr int blocks = blocksARow * blocksARow;

  /// What has been summed so far for a voxel of the tile.
  struct Slot {
    std::uint64_t sum[2];  ///< bit patterns of the positive and the negative sum
    int place;             ///< index y * reach + x within the tile
    int positives;         ///< voxels of the positive side
  };

  /// A slot to which the plane is still to be added from a row of its window on.
  struct Piece {
    std::uint64_t sum;  ///< with the rows before
    Slot* slot;
    int row;  ///< offset of the row in the tables
  };

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
    std::vector<Piece> pieces;
    std::vector<Slot*> plain;  ///< for their positive sums, then for their negative ones
    std::vector<int> next;     ///< number of the next plain sum of the same window; -1: none
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

  /// Goes to the tile whose first column is (x0, y0) of a grid with planes of X x Y voxels. What
  /// lies outside the grid belongs to neither side.
  void enter(int X, int Y, int x0, int y0) {
    X_ = X;
    Y_ = Y;
    x0_ = x0 - boxSize;
    y0_ = y0 - boxSize;
    begin_ = std::max(0, -x0_);
    end_ = std::min(reach, X - x0_);
    for (int j = 0; j < padded; ++j) inGrid_[j] = -std::uint64_t{j >= begin_ && j < end_};
    for (auto& values : value_) std::fill(std::begin(values), std::end(values), 0.0);
    row_ = {};
  }

  /// Starts the tables of the plane with these first voxels for an area of the tile: no rows.
  void start(const double* image, const char* label, Area area) {
    image_ = image;
    label_ = label;
    windows_ = {area.x0, std::min(area.x1, X_ - x0_ - boxSize)};
    columns_ = {std::max(windows_[0], begin_), std::min(windows_[1] + window - 1, end_)};
    const int first = area.y0 * reach + area.x0, last = area.y0 * reach + area.x1;
    std::fill(total_ + first, total_ + last, Pair{});
    for (auto& rounding : rounding_) std::fill(rounding + first, rounding + last, Rounding{});
    std::fill(positives_ + first, positives_ + last, 0);
  }

  /// Adds rows [first, last) to the tables of the area's columns.
  [[gnu::always_inline]] void addRows(int first, int last) {
    for (int r = first; r < last; ++r) {
      const int y = y0_ + r;
      if (y < 0 || y >= Y_) {
        repeatRow(r);
        continue;
      }
      readRow(r, y);
      roundRow();
      slideOver(r);
    }
  }

  /// Adds the plane to all slots of the ranges.
  [[gnu::always_inline]] void addPlane(Slots& slots, std::span<const std::span<Slot>> ranges) {
    Slot** unfinished[2] = {slots.unfinished[0].data(), slots.unfinished[1].data()};
    for (const std::span<Slot> range : ranges) {
      for (Slot& slot : range) {
        const std::ptrdiff_t at = slot.place;
        slot.positives += positives_[at + window * reach] - positives_[at];
        const Pair failed = stepBoth(at, at + window * reach, slot.sum);
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
        const bool served = binadeOf(slot->sum[s]) < binades;
        slots.plain[plain] = slot;
        slots.pieces[pieces] = {slot->sum[s], slot, 0};
        plain += !served;
        pieces += served;
      }
      while (pieces > 0) pieces = addInPieces(s, slots, pieces, plain);
    }
    if (plain > 0) addPlainly(slots, plainPositive, plain);
  }

 private:
  static constexpr int firstBinade = 4;  ///< the tables serve sums from 2^4 ...
  static constexpr int binades = 8;      ///< ... to below 2^12
  static constexpr int fractionBits = 53 - firstBinade;
  static constexpr int leastExponent = 1023 - fractionBits;  ///< they serve values from 2^-49 ...
  static constexpr int limitExponent = 1023 + 2;             ///< ... to below 4, and 0
  static constexpr std::uint64_t ulps = std::uint64_t{1} << 52;  ///< of a binade
  static constexpr std::uint32_t tieUnit = 1 << 21;
  static_assert(window * window << (binades - 1) < tieUnit / 2);

  /// Sums of c_k and of ties, by k.
  typedef std::uint32_t Rounding [[gnu::vector_size(4 * binades)]];

  /// One word for the positive and one for the negative side.
  typedef std::uint64_t Pair [[gnu::vector_size(16)]];

  /// The binade of a sum, counted from the first one served; `binades` or more if none of them.
  [[gnu::always_inline]] static std::uint64_t binadeOf(std::uint64_t sum) {
    return (sum >> 52) - (1023 + firstBinade);
  }

  /// A sum with some rows added, or as it was where that is not valid.
  struct Step {
    std::uint64_t sum;
    bool valid;
  };
  /// Adds the rows between two entries of the tables to a sum of side s.
  [[gnu::always_inline]] Step step(int s, std::ptrdiff_t from, std::ptrdiff_t to,
                                   std::uint64_t sum) const {
    const std::uint64_t binade = binadeOf(sum);
    const bool served = binade < binades;
    const std::uint64_t k = served ? binade : 0;
    const std::uint64_t rounding = roundingOf(s, from, to, k);
    const std::uint64_t next = sum + ((total_[to][s] - total_[from][s] + rounding) >> (k + 1));
    const std::uint64_t leaves = (next ^ sum) >> (served ? 52 : 0);
    const std::uint64_t ties = (rounding + tieUnit / 2) / tieUnit;
    const bool valid = (leaves | ties) == 0;
    return {valid ? next : sum, valid};
  }
  /// The same for both sums of a slot. Returns all ones for a side where it is not valid.
  [[gnu::always_inline]] Pair stepBoth(std::ptrdiff_t from, std::ptrdiff_t to,
                                       std::uint64_t (&sums)[2]) const {
    Pair sum;
    load(sum, sums);
    const Pair binade = (sum >> 52) - (1023 + firstBinade);
    const auto served = (Pair)((binade & -std::uint64_t{binades}) == 0);
    const Pair k = binade & served;
    const Pair rounding{roundingOf(0, from, to, k[0]), roundingOf(1, from, to, k[1])};
    const Pair next = sum + ((total_[to] - total_[from] + rounding) >> (k + 1));
    const Pair leaves = (next ^ sum) & (~served | -ulps);
    const Pair ties = (rounding + tieUnit / 2) & -std::uint64_t{tieUnit};
    const auto valid = (Pair)((leaves | ties) == 0);
    sum = (next & valid) | (sum & ~valid);
    std::memcpy(sums, &sum, sizeof sum);
    return ~valid;
  }
  /// The sum of c_k between two entries, with its sign.
  [[gnu::always_inline]] std::uint64_t roundingOf(int s, std::ptrdiff_t from, std::ptrdiff_t to,
                                                  std::uint64_t k) const {
    const std::uint32_t rounding = lane(rounding_[s][to], k) - lane(rounding_[s][from], k);
    return static_cast<std::uint64_t>(static_cast<std::int32_t>(rounding));
  }
  [[gnu::always_inline]] static std::uint32_t lane(const Rounding& rounding, std::uint64_t k) {
    std::uint32_t value;
    std::memcpy(&value, reinterpret_cast<const char*>(&rounding) + 4 * k, 4);
    return value;
  }

  /// Arrays of a row of the tile with its margin are a little longer, so that whole vectors fit.
  static constexpr int lanes = 4;
  static constexpr int padded = (reach + lanes - 1) / lanes * lanes;
  typedef std::uint64_t Words [[gnu::vector_size(8 * lanes)]];
  typedef std::int64_t SignedWords [[gnu::vector_size(8 * lanes)]];
  // By reference, since passing vectors by value depends on the instruction set.
  template <typename Vector, typename T>
  [[gnu::always_inline]] static void load(Vector& to, const T* from) {
    std::memcpy(&to, from, sizeof to);
  }
  template <typename Vector, typename T>
  [[gnu::always_inline]] static void store(T* to, const Vector& from) {
    std::memcpy(to, &from, sizeof from);
  }

  /// Adds nothing to the sums of the rows before.
  void repeatRow(int r) {
    const int before = r * reach + windows_[0], after = before + reach;
    const int count = windows_[1] - windows_[0];
    std::copy_n(total_ + before, count, total_ + after);
    for (auto& rounding : rounding_) std::copy_n(rounding + before, count, rounding + after);
    std::copy_n(positives_ + before, count, positives_ + after);
  }

  /// Reads row r of the tile, which is row y of the plane. F of a voxel is the significand of v,
  /// shifted.
  [[gnu::always_inline]] void readRow(int r, int y) {
    const std::ptrdiff_t voxel = static_cast<std::ptrdiff_t>(y) * X_ + x0_;
    const double* values = rowValues_;
    const char* labels = rowLabels_;
    if (y > 0 && y < Y_ - 1 && X_ >= lanes) {
      values = image_ + voxel;
      labels = label_ + voxel;
    } else {  // vectors might reach beyond the plane
      const std::size_t count = end_ - begin_;
      std::memcpy(rowValues_ + begin_, image_ + (voxel + begin_), count * sizeof(double));
      std::memcpy(rowLabels_ + begin_, label_ + (voxel + begin_), count);
    }
    for (int j = columns_[0] / lanes * lanes; j < columns_[1]; j += lanes) {
      typedef signed char Labels [[gnu::vector_size(lanes)]];
      Labels label;
      Words bits, inGrid;
      load(label, labels + j);
      load(bits, values + j);
      load(inGrid, inGrid_ + j);
      const auto positive = (Words)(__builtin_convertvector(label, SignedWords) > 0);
      const Words inside[2] = {positive & inGrid, ~positive & inGrid};
      const Words exponent = bits >> 52;  // and the sign
      const auto served = (Words)(((SignedWords)exponent >= leastExponent) &
                                  ((SignedWords)exponent < limitExponent));
      const Words significand = (bits & (ulps - 1)) | ulps;
      const Words shift = (1023 + 52 - fractionBits - exponent) & 63 & served;
      const Words fixed = (significand >> shift) & served;
      const auto exact = (Words)((fixed << shift) == significand);
      const auto unusable = (Words)(bits != 0) & ~served;
      store(row_.fixed + j, fixed);
      store(row_.exact + j, exact & tieUnit);
      store(row_.unusable + j, unusable & tieUnit);
      for (int s = 0; s < 2; ++s) {
        store(row_.inside[s] + j, inside[s]);
        store(value_[s] + r * reach + j, bits & inside[s]);
      }
    }
  }

  /// What each of the row's voxels adds to the sums of c_k of both sides.
  [[gnu::always_inline]] void roundRow() {
    Rounding half, mask;
    for (int k = 0; k < binades; ++k) {
      half[k] = 1u << k;
      mask[k] = (2u << k) - 1;
    }
    for (int j = columns_[0]; j < columns_[1]; ++j) {
      const auto low = [j](const std::uint64_t* row) { return static_cast<std::uint32_t>(row[j]); };
      const Rounding rest = (low(row_.fixed) + half) & mask;
      const Rounding ties = ((Rounding)(rest == 0) & low(row_.exact)) + low(row_.unusable);
      const Rounding all = half - rest + ties;
      for (int s = 0; s < 2; ++s) row_.rounding[s][j] = all & low(row_.inside[s]);
      row_.total[j] = Pair{row_.inside[0][j], row_.inside[1][j]} & row_.fixed[j];
    }
  }

  /// Slides the window along the row and adds it to the sums of the rows before.
  [[gnu::always_inline]] void slideOver(int r) {
    Rounding rounding[2] = {};
    Pair total{};
    int positives = 0;
    const auto enter = [&](int j) {
      for (int s = 0; s < 2; ++s) rounding[s] += row_.rounding[s][j];
      total += row_.total[j];
      positives -= static_cast<int>(row_.inside[0][j]);
    };
    for (int j = windows_[0]; j < windows_[0] + window - 1; ++j) enter(j);
    for (int x = windows_[0]; x < windows_[1]; ++x) {
      enter(x + window - 1);
      const int before = r * reach + x, after = before + reach;
      for (int s = 0; s < 2; ++s) {
        rounding_[s][after] = rounding_[s][before] + rounding[s];
        rounding[s] -= row_.rounding[s][x];
      }
      total_[after] = total_[before] + total;
      total -= row_.total[x];
      positives_[after] = positives_[before] + positives;
      positives += static_cast<int>(row_.inside[0][x]);
    }
  }

  /// Sums of windows that follow each other along x.
  struct Group {
    const double* value;  ///< first voxel of the first window
    alignas(8 * lanes) std::uint64_t sum[lanes];
    int side;
  };
  /// The plain sums of a group: the first one of each lane's list; -1: none.
  struct Members {
    int first[lanes];
  };
  static constexpr int groups = 8;

  /// Adds the windows' voxels to the sums of `count` groups, all groups side by side so that their
  /// chains of additions overlap.
  template <int count>
  [[gnu::always_inline]] static void addWindows(std::array<Group, groups>& group) {
    typedef double Vector [[gnu::vector_size(8 * lanes)]];
    const double* value[count];
    Vector sum[count];
    for (int g = 0; g < count; ++g) {
      value[g] = group[g].value;
      load(sum[g], group[g].sum);
    }
    for (int row = 0; row < window; ++row) {
#pragma GCC unroll 21
      for (int j = 0; j < window; ++j) {
#pragma GCC unroll 8
        for (int g = 0; g < count; ++g) {
          Vector v;
          load(v, value[g] + j);
          sum[g] += v;
        }
      }
      for (const double*& v : value) v += reach;
    }
    for (int g = 0; g < count; ++g) std::memcpy(group[g].sum, &sum[g], sizeof sum[g]);
  }

  /// Lists of the plain sums of a row of blocks: a list a window, those of the positive side first.
  struct WindowLists {
    static constexpr int windows = blockSide * reach;
    WindowLists() { first.fill(-1); }
    std::array<int, 2 * windows + lanes> first;                 ///< of each window; -1: none
    std::array<std::uint64_t, 2 * windows / 64 + 2> waiting{};  ///< a bit a window: has a list
  };

  /// Adds the plane voxel by voxel to the plain sums, of which the first `positive` are positive
  /// ones. Up to four windows that follow each other along x are summed side by side in a vector,
  /// and equal sums of the same window, as those of boxes above each other are before the first
  /// voxel of their side, are taken together.
  [[gnu::always_inline]] void addPlainly(Slots& slots, int positive, int count) {
    Slot* const* const plain = slots.plain.data();
    int* const next = slots.next.data();
    const int firstPlace = plain[0]->place / WindowLists::windows * WindowLists::windows;
    for (int i = 0; i < count; ++i) {
      const int w = plain[i]->place - firstPlace + (i < positive ? 0 : WindowLists::windows);
      next[i] = std::exchange(lists_.first[w], i);
      lists_.waiting[w / 64] |= std::uint64_t{1} << w % 64;
    }
    const int words = static_cast<int>(lists_.waiting.size());
    for (int word = 0; word < words;) {
      std::array<Group, groups> group;
      std::array<Members, groups> members;
      int used = 0;
      while (used < groups && word < words) {
        if (lists_.waiting[word] == 0) {
          ++word;
        } else {
          const int w = word * 64 + std::countr_zero(lists_.waiting[word]);
          members[used] = takeGroup(slots, firstPlace, w, group[used]);
          ++used;
        }
      }
      if (used == 0) break;
      std::fill(group.begin() + used, group.end(), group[0]);
      used > groups / 2 ? addWindows<groups>(group) : addWindows<groups / 2>(group);
      for (int g = 0; g < used; ++g) {
        for (int l = 0; l < lanes; ++l) {
          for (int i = members[g].first[l]; i >= 0; i = next[i]) {
            plain[i]->sum[group[g].side] = group[g].sum[l];
          }
        }
      }
    }
  }

  /// Takes a sum of window w, and of each of the next windows that have any, off the lists.
  [[gnu::always_inline]] Members takeGroup(Slots& slots, int firstPlace, int w, Group& group) {
    const int s = w >= WindowLists::windows;
    group = {value_[s] + (w - s * WindowLists::windows + firstPlace), {}, s};
    Members members;
    std::uint64_t done = 0;
    for (int l = 0; l < lanes; ++l) {
      const int first = lists_.first[w + l];
      members.first[l] = first;
      if (first < 0) continue;
      group.sum[l] = slots.plain[first]->sum[s];
      lists_.first[w + l] = takeEqual(slots, s, first);
      done |= std::uint64_t{lists_.first[w + l] < 0} << l;
    }
    lists_.waiting[w / 64] &= ~(done << w % 64);
    lists_.waiting[w / 64 + 1] &= ~(done >> 1 >> (63 - w % 64));
    return members;
  }

  /// Splits a window's list into the sums equal to its first one, which stay in it, and the rest,
  /// which is returned.
  [[gnu::always_inline]] static int takeEqual(Slots& slots, int s, int first) {
    int rest = -1, last = first;
    for (int i = slots.next[first]; i >= 0;) {
      const int after = slots.next[i];
      if (slots.plain[i]->sum[s] == slots.plain[first]->sum[s]) {
        last = slots.next[last] = i;
      } else {
        slots.next[i] = std::exchange(rest, i);
      }
      i = after;
    }
    slots.next[last] = -1;
    return rest;
  }

  /// Some pieces that are worked on side by side, so that their long chains of additions overlap.
  static constexpr int batch = 8;

  /// For each of a batch of windows the last of rows 0 to window - 1 before which the sums of F
  /// stay below the limit, as an entry of the table: binary searches, step by step side by side.
  /// Their ways are unpredictable, so they take no branches.
  [[gnu::always_inline]] static void findRows(int s, const std::uint64_t (&limit)[batch],
                                              const Pair* (&entry)[batch]) {
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

  /// Sums that leave their binade in this plane: as many rows at once as stay in it, the row
  /// where the sum leaves it voxel by voxel, then the rest. The rows are found from the sums of F
  /// alone, with a margin for the rounding of every voxel. Pieces that are still not done (a sum
  /// may leave several binades) stay in the list; returns their number. Slots with half-way cases
  /// before the row, or whose sums grow too large for the tables, go to the plain list.
  [[gnu::always_inline]] int addInPieces(int s, Slots& slots, int count, int& plain) const {
    constexpr std::uint64_t margin = window * window / 2 + 1;
    int left = 0;
    for (int first = 0; first < count; first += batch) {
      Piece* pieces = slots.pieces.data() + first;
      const int used = std::min(batch, count - first);
      const Pair* entry[batch];
      std::uint64_t limit[batch];
      for (int b = 0; b < batch; ++b) {
        const Piece& piece = pieces[std::min(b, used - 1)];
        entry[b] = total_ + piece.slot->place;
        const std::uint64_t room = std::max(ulps - (piece.sum & (ulps - 1)), margin) - margin;
        limit[b] = entry[b][piece.row][s] + (room << (binadeOf(piece.sum) + 1));
      }
      findRows(s, limit, entry);
      const double* value[batch];
      int row[batch];  // offsets in the tables
      double sum[batch];
      bool tie[batch];
      for (int b = 0; b < batch; ++b) {
        const Piece& piece = pieces[std::min(b, used - 1)];
        const std::ptrdiff_t place = piece.slot->place, from = place + piece.row;
        const std::ptrdiff_t to = std::max(entry[b] - total_, from);
        row[b] = static_cast<int>(to - place);
        const Step found = step(s, from, to, piece.sum);
        tie[b] = !found.valid;
        value[b] = value_[s] + to;
        sum[b] = std::bit_cast<double>(found.sum);
      }
#pragma GCC unroll 21
      for (int j = 0; j < window; ++j) {
#pragma GCC unroll 8
        for (int b = 0; b < batch; ++b) sum[b] += value[b][j];
      }
      for (int b = 0; b < used; ++b) {
        Slot* const slot = pieces[b].slot;
        const int next = row[b] + reach;
        const auto bits = std::bit_cast<std::uint64_t>(sum[b]);
        const Step rest = step(s, slot->place + next, slot->place + window * reach, bits);
        const bool done = rest.valid & !tie[b];
        const bool lost = tie[b] | (!done & (binadeOf(bits) >= binades));
        slot->sum[s] = done ? rest.sum : slot->sum[s];
        slots.plain[plain] = slot;
        plain += lost;
        slots.pieces[left] = {bits, slot, next};
        left += !(done | lost);
      }
    }
    return left;
  }

  // The tables; one of each for the positive and one for the negative side. Entry [r * reach + x]
  // of the sums is over rows 0 to r - 1 of window x.
  Pair total_[(reach + 1) * reach];  // sums of F
  Rounding rounding_[2][(reach + 1) * reach];
  int positives_[(reach + 1) * reach];  // voxels of the positive side
  double value_[2][reach * reach + 4];  // the voxel, 0 if it is not on this side; room for a vector
  WindowLists lists_;                   // empty between planes

  int X_ = 0, Y_ = 0;              // of the grid
  int x0_ = 0, y0_ = 0;            // where the tile with its margin begins in it
  int begin_ = 0, end_ = 0;        // columns within the grid
  const double* image_ = nullptr;  // the plane
  const char* label_ = nullptr;
  std::array<int, 2> windows_{};       // windows of the area
  std::array<int, 2> columns_{};       // their voxels within the grid
  std::uint64_t inGrid_[padded] = {};  // all ones where the column is within the grid
  double rowValues_[padded] = {};      // a row of the plane
  char rowLabels_[padded] = {};
  // What every voxel of the row brings to the tables.
  struct Row {
    std::uint64_t inside[2][padded];  // all ones where the voxel is on the side
    std::uint64_t fixed[padded];      // F
    std::uint64_t exact[padded];      // tieUnit where F holds all of v
    std::uint64_t unusable[padded];   // tieUnit where the tables do not serve v
    Rounding rounding[2][padded];
    Pair total[padded];
  };
  Row row_{};
};

/// One tile from its first plane to its last. `starts[block * grid.Z + z]` is the first slot of
/// plane z of a block, counted from the first entry.
[[gnu::always_inline]] inline void sumTile(RegionTile& tile, RegionTile::Slots& slots,
                                           const double* image, const char* label, Grid grid,
                                           int x0, int y0, std::span<const int> starts) {
  constexpr int blocksARow = RegionTile::blocksARow, blockSide = RegionTile::blockSide;
  std::array<std::span<RegionTile::Slot>, RegionTile::blocks> ranges;  // of one plane
  tile.enter(grid.X, grid.Y, x0, y0);
  for (int z = 0; z < grid.Z; ++z) {
    RegionTile::Area area;
    for (int block = 0; block < RegionTile::blocks; ++block) {
      const int* planes = &starts[block * grid.Z];
      const int first = planes[std::max(z - boxSize, 0)] - starts[0];
      const int last = planes[std::min(z + boxSize + 1, grid.Z)] - starts[0];
      ranges[block] = std::span(slots.all).subspan(first, last - first);
      if (first != last) area.addBlock(block);
    }
    if (area.x0 >= area.x1) continue;
    const std::ptrdiff_t plane = static_cast<std::ptrdiff_t>(z) * grid.plane();
    tile.start(image + plane, label + plane, area);
    // Blocks are served as soon as the tables reach far enough, while these are in cache.
    int rows = area.y0;
    for (int y = area.y0; y < area.y1; y += blockSide) {
      const int last = y + blockSide + RegionTile::window - 1;
      tile.addRows(rows, last);
      rows = last;
      tile.addPlane(slots, std::span(ranges).subspan(y / blockSide * blocksARow, blocksARow));
    }
  }
}

// The same code for each instruction set.
using TileKernel = void(RegionTile&, RegionTile::Slots&, const double*, const char*, Grid, int, int,
                        std::span<const int>);

inline void sumTilePortable(RegionTile& tile, RegionTile::Slots& slots, const double* image,
                            const char* label, Grid grid, int x0, int y0,
                            std::span<const int> starts) {
  sumTile(tile, slots, image, label, grid, x0, y0, starts);
}
#if defined(__x86_64__)
[[gnu::target("avx2,bmi,bmi2,popcnt")]] inline void sumTileAvx2(
    RegionTile& tile, RegionTile::Slots& slots, const double* image, const char* label, Grid grid,
    int x0, int y0, std::span<const int> starts) {
  sumTile(tile, slots, image, label, grid, x0, y0, starts);
}
[[gnu::target("avx2,bmi,bmi2,popcnt,avx512f,avx512bw,avx512dq,avx512vl")]] inline void
sumTileAvx512(RegionTile& tile, RegionTile::Slots& slots, const double* image, const char* label,
              Grid grid, int x0, int y0, std::span<const int> starts) {
  sumTile(tile, slots, image, label, grid, x0, y0, starts);
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
    arrange(grid, centres, threads);
    parallelFor(threads, pieces(), [&](int i) { sumPiece(i, image, label, sums, instructions); });
  }

  /// The same in steps, for callers with other work to share out among their threads: arranges the
  /// voxels in pieces, which can then be summed in any order and at the same time. The arguments
  /// are those of sum().
  void arrange(Grid grid, std::span<const int> centres, int threads) {
    // Smaller tiles have wider margins for their size, but keep several threads busy.
    const int side = threads > 1 ? RegionTile::side / 2 : RegionTile::side;
    tiling_ = {grid, sideWithin(grid.X, side), sideWithin(grid.Y, side)};
    sortByTile(centres, threads);
    largestFirst();
  }
  int pieces() const { return static_cast<int>(tiles_.size()); }
  /// Sums piece 0 to pieces() - 1. `sums` has a place for every voxel that was arranged; those of
  /// the piece are written.
  void sumPiece(int piece, const double* image, const char* label, std::span<RegionSums> sums,
                InstructionSet instructions = widestInstructionSet()) {
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

 private:
  struct Worker {
    Worker() { preferHugePages(&tile, sizeof tile); }
    RegionTile tile;
    RegionTile::Slots slots;
  };

  /// How the planes of a grid are cut into tiles.
  struct Tiling {
    Grid grid;
    int sideX, sideY;
    int tilesX() const { return (grid.X + sideX - 1) / sideX; }
    int tiles() const { return tilesX() * ((grid.Y + sideY - 1) / sideY); }
    std::size_t planesATile() const {
      return static_cast<std::size_t>(RegionTile::blocks) * grid.Z;
    }
  };

  /// The side of tiles of about the same size, none larger than `most`, in whole blocks.
  static int sideWithin(int size, int most) {
    const int tiles = (size + most - 1) / most;
    const int blocks = (size + RegionTile::blockSide * tiles - 1) / (RegionTile::blockSide * tiles);
    return blocks * RegionTile::blockSide;
  }

  /// tiles_ = the tiles in the order in which threads take them: those with the most voxels first,
  /// so that all threads end at about the same time.
  void largestFirst() {
    tiles_.resize(tiling_.tiles());
    std::iota(tiles_.begin(), tiles_.end(), 0);
    const std::size_t planes = tiling_.planesATile();
    const auto voxels = [&](int t) { return starts_[(t + 1) * planes] - starts_[t * planes]; };
    std::sort(tiles_.begin(), tiles_.end(), [&](int a, int b) { return voxels(a) > voxels(b); });
  }

  /// Where a voxel stands among the tiles.
  struct Key {
    std::size_t bucket;    ///< number of its tile, block and plane
    int place;             ///< index y * reach + x within the tile
    std::uint16_t column;  ///< the same within the block: y * blockSide + x
    std::uint16_t voxels;  ///< in its box
  };

  Key keyOf(int x, int y, int z) const {
    const auto& [grid, sideX, sideY] = tiling_;
    const int tileX = x / sideX, tileY = y / sideY;
    const int inX = x - tileX * sideX, inY = y - tileY * sideY;
    constexpr int blockSide = RegionTile::blockSide;
    const int block = inY / blockSide * RegionTile::blocksARow + inX / blockSide;
    const auto tile = static_cast<std::size_t>(tileY) * tiling_.tilesX() + tileX;
    return {(tile * RegionTile::blocks + block) * grid.Z + z, inY * RegionTile::reach + inX,
            static_cast<std::uint16_t>(inY % blockSide * blockSide + inX % blockSide),
            static_cast<std::uint16_t>(boxVoxels(grid, x, y, z))};
  }

  /// keys_[first] to keys_[last - 1].
  void findKeys(std::span<const int> centres, int first, int last) {
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
  void sortByTile(std::span<const int> centres, int threads) {
    keys_.resize(centres.size());
    parallelRanges(threads, static_cast<int>(centres.size()),
                   [&](int first, int last) { findKeys(centres, first, last); });
    constexpr int blockSide = RegionTile::blockSide;
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

  Tiling tiling_{};
  std::vector<int> tiles_;
  std::vector<Key> keys_;
  std::vector<int> byColumn_, starts_, order_;
  std::vector<std::unique_ptr<Worker>> idle_;
  std::mutex lock_;
};

}  // namespace tavrel
