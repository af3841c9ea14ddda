// The tables of one plane of a tile of columns, and the steps that use them: sums of F and of c_k
// over the rows of every window. The head of ../region_sums.h tells what they mean.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "../memory.h"
#include "../region_sums.h"
#include "detail/voxExactMath.h"

namespace tavrel::exact {

/// Tables of one plane of one tile. Columns and rows are counted from the tile's margin on, which
/// is as wide as half a box: window x, which begins in column x, is that of the tile's column x.
class alignas(hugePage) RegionTables {
 public:
  static constexpr int window = 2 * boxSize + 1;
  static constexpr int side = 96;                   ///< most columns of a tile along x and y
  static constexpr int reach = side + 2 * boxSize;  ///< the same with the margin of the boxes
  /// A tile's voxels are visited block by block, so that the tables they read stay in the nearest
  /// cache.
  static constexpr int blockSide = 8;
  static constexpr int blocksARow = side / blockSide;
  static constexpr int blocks = blocksARow * blocksARow;

  static constexpr int firstBinade = 4;  ///< the tables serve sums from 2^4 ...
  static constexpr int binades = 8;      ///< ... to below 2^12
  static constexpr std::uint64_t ulps = std::uint64_t{1} << 52;  ///< of a binade

  /// One word for the positive and one for the negative side.
  typedef std::uint64_t Pair [[gnu::vector_size(16)]];

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

  /// Sums of F over rows 0 to r - 1 of window x, at [r * reach + x].
  const Pair* totals() const { return total_; }
  /// The voxels of row r at [r * reach + x], 0 if they are not on side s; room for a vector behind.
  const double* values(int s) const { return value_[s]; }
  /// Voxels of the positive side between two entries.
  int positives(std::ptrdiff_t from, std::ptrdiff_t to) const {
    return positives_[to] - positives_[from];
  }

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

 private:
  static constexpr int fractionBits = 53 - firstBinade;
  static constexpr int leastExponent = 1023 - fractionBits;  ///< they serve values from 2^-49 ...
  static constexpr int limitExponent = 1023 + 2;             ///< ... to below 4, and 0
  static constexpr std::uint32_t tieUnit = 1 << 21;
  static_assert(window * window << (binades - 1) < tieUnit / 2);

  /// Sums of c_k and of ties, by k.
  typedef std::uint32_t Rounding [[gnu::vector_size(4 * binades)]];

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

  // The tables; one of each for the positive and one for the negative side. Entry [r * reach + x]
  // of the sums is over rows 0 to r - 1 of window x.
  Pair total_[(reach + 1) * reach];  // sums of F
  Rounding rounding_[2][(reach + 1) * reach];
  int positives_[(reach + 1) * reach];  // voxels of the positive side
  double value_[2][reach * reach + 4];  // the voxel, 0 if it is not on this side; room for a vector

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

}  // namespace tavrel::exact
