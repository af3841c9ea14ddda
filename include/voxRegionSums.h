// Exact region sums: image sums over the two sides of the interface in a box of up to 21 voxels an
// axis around every interface voxel, equal in every bit to plain loops over the box.
//
// The plain sum is a chain of rounded additions in z, y, x order, and its last bits are part of the
// result. While the running sum S stays in one binade [2^e, 2^(e+1)), adding v >= 0 adds
// round(v / ulp) to S read as an integer, with ulp = 2^(e-52), whatever S is - unless v lies half way
// between two multiples of ulp. Integers may be summed in any order, so a whole piece of the box can
// be added in one step, which is valid when
//   * S is in the binade the integers were made for, and still is after the step (S only grows, so it
//     then never left it), and
//   * no voxel of the piece is a half-way case, negative, or out of the tables' range.
// Pieces that fail are split: a plane into rows, the row where S leaves its binade into voxels.
//
// Tables. With F = floor(v * 2^B), the integer of v in the binade whose ulp drops the last k bits of
// F is (F + c_k) / 2^k, where c_k = (round F to k bits) - F is small. So one 64-bit sum of F and one
// 32-bit sum of c_k a binade serve all binades; a half-way voxel adds `tieUnit` to the latter, larger
// than all c_k of a plane together, so that it shows. Sums run over windows of 21 voxels along x and
// are accumulated along y: any set of consecutive rows of a window is the difference of two entries.
//
// Work is done a tile of columns at a time, plane by plane along z: each plane's tables are built
// once, in cache, and added to every interface voxel of the tile whose box contains the plane.
// Exact floating-point summation by integers: U. Kulisch, "Computer Arithmetic and Validity" (2008);
// the ulp argument: J.-M. Muller et al., "Handbook of Floating-Point Arithmetic" (2018), ch. 2.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "voxBand.h"
#include "voxExactMath.h"
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

/// Instruction sets the kernels are compiled for. The bytes are the same for all.
enum class InstructionSet { portable, avx2, avx512 };

/// The widest instruction set of this processor.
inline InstructionSet widestInstructionSet() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl")) {
    return InstructionSet::avx512;
  }
  if (__builtin_cpu_supports("avx2")) return InstructionSet::avx2;
#endif
  return InstructionSet::portable;
}

/// Tables of one plane of one tile, and the steps that use them. See the top of this file.
class RegionTile {
 public:
  static constexpr int window = 2 * boxSize + 1;
  static constexpr int side = 64 - 2 * boxSize;  ///< columns of a tile along x and y
  static constexpr int rows = 64;                ///< rows (and voxels a row) with the box's margin
  static constexpr int pitch = 48;               ///< entries of a table row; side, rounded up

  /// Voxels of the tile, in order of their plane: slot s of the tile is voxel `slots[s]`.
  struct Slots {
    std::vector<int> place;                        ///< y * pitch + x within the tile
    std::array<std::vector<std::uint64_t>, 2> sum; ///< bit patterns of the running sums
    std::array<std::vector<int>, 2> count;
    std::vector<int> unfinished;
  };

  /// Builds the tables of the plane whose first voxel is image[0]; the tile's first column is
  /// (x0, y0). Voxels outside the grid belong to neither side.
  [[gnu::always_inline]] void build(const double* image, const char* label, int X, int Y, int x0,
                                    int y0) {
    for (auto& side : sides_) {
      std::fill_n(side.total, pitch, 0);
      for (auto& binade : side.rounding) std::fill_n(binade, pitch, 0);
      std::fill_n(side.voxels, pitch, 0);
    }
    for (int r = 0; r < rows; ++r) {
      loadRow(image, label, X, Y, x0 - boxSize, y0 - boxSize + r, r);
      for (auto& side : sides_) accumulateRow(side, r);
    }
  }

  /// Adds the plane to slots [first, last).
  [[gnu::always_inline]] void addPlane(Slots& slots, int first, int last) {
    for (int s = 0; s < 2; ++s) {
      const Side& side = sides_[s];
      int unfinished = 0;
      const int* place = slots.place.data();
      std::uint64_t* sum = slots.sum[s].data();
      int* count = slots.count[s].data();
      int* list = slots.unfinished.data();
      for (int i = first; i < last; ++i) {
        const int voxels =
            side.voxels[place[i] + window * pitch] - side.voxels[place[i]];
        count[i] += voxels;
        std::uint64_t next = sum[i];
        const bool done = addRows(side, place[i], window, next) | (voxels == 0);
        sum[i] = done ? next : sum[i];
        list[unfinished] = i;
        unfinished += !done;
      }
      for (int i = 0; i < unfinished; ++i) {
        sum[list[i]] = addRowByRow(side, place[list[i]], sum[list[i]]);
      }
    }
  }

 private:
  static constexpr int firstBinade = 5;  ///< tables serve sums from 2^5 ...
  static constexpr int binades = 9;      ///< ... to below 2^14
  static constexpr int fractionBits = 53 - firstBinade;
  static constexpr double largest = 4;   ///< table range of image values
  static constexpr std::uint32_t tieUnit = 1 << 21;
  static constexpr int padded = 96;

  /// Tables of one side of the interface. Entry [r][x] sums rows 0 to r - 1 of window x.
  struct Side {
    alignas(64) std::int64_t total[(rows + 1) * pitch];
    alignas(64) std::uint32_t rounding[binades][(rows + 1) * pitch];
    alignas(64) int voxels[(rows + 1) * pitch];
    alignas(64) double value[rows][rows];  ///< the voxel, or 0 if it is not on this side
    alignas(64) std::uint32_t member[rows];  ///< all ones where on this side
  };

  [[gnu::always_inline]] void loadRow(const double* image, const char* label, int X, int Y, int x0,
                                      int y, int r) {
    for (auto& side : sides_) {
      std::fill_n(side.value[r], rows, 0.0);
      std::fill_n(side.member, rows, 0);
    }
    std::fill_n(flags_, rows, 0);
    std::fill_n(fixed_, rows, 0);
    std::fill_n(exact_, rows, 0);
    if (y < 0 || y >= Y) return;
    const double* imageRow = image + static_cast<std::ptrdiff_t>(y) * X + x0;
    const char* labelRow = label + static_cast<std::ptrdiff_t>(y) * X + x0;
    const int begin = std::max(0, -x0);
    const int end = std::min(rows, X - x0);
    for (int j = begin; j < end; ++j) {
      const double v = imageRow[j];
      const bool positive = static_cast<signed char>(labelRow[j]) > 0;
      sides_[0].value[r][j] = positive ? v : 0.0;
      sides_[1].value[r][j] = positive ? 0.0 : v;
      sides_[0].member[j] = positive ? ~0u : 0u;
      sides_[1].member[j] = positive ? 0u : ~0u;
      const bool usable = v >= 0 && v <= largest;
      const double scaled = usable ? v * (std::int64_t{1} << fractionBits) : 0.0;
      const auto fixed = static_cast<std::int64_t>(scaled);
      fixed_[j] = fixed;
      // Half-way cases exist only where F holds all of v.
      exact_[j] = static_cast<double>(fixed) == scaled ? tieUnit : 0;
      flags_[j] = usable ? 0 : tieUnit;
    }
  }

  [[gnu::always_inline]] void accumulateRow(Side& side, int r) {
    alignas(64) std::int64_t total[padded];
    alignas(64) std::uint32_t small[padded];
    std::fill_n(total + rows, padded - rows, 0);
    std::fill_n(small + rows, padded - rows, 0);
    for (int j = 0; j < rows; ++j) {
      total[j] = fixed_[j] & static_cast<std::int32_t>(side.member[j]);
    }
    addWindows(total, side.total + r * pitch);
    for (int j = 0; j < rows; ++j) small[j] = side.member[j] & 1;
    addWindows(small, side.voxels + r * pitch);
    for (int k = 0; k < binades; ++k) {
      const std::uint32_t half = 1u << k;
      const std::uint32_t mask = 2 * half - 1;
      for (int j = 0; j < rows; ++j) {
        const auto low = static_cast<std::uint32_t>(fixed_[j]);
        const std::uint32_t rest = (low + half) & mask;
        const std::uint32_t tie = rest == 0 ? exact_[j] : 0;
        small[j] = (half - rest + (tie | flags_[j])) & side.member[j];
      }
      addWindows(small, side.rounding[k] + r * pitch);
    }
  }

  /// out[pitch + x] = out[x] + (in[x] + ... + in[x + 20]), by doubling the width of the sums.
  template <typename In, typename Out>
  [[gnu::always_inline]] static void addWindows(const In* in, Out* out) {
    static_assert(window == 21);
    alignas(64) In two[80], four[64], eight[56];
    for (int j = 0; j < 80; ++j) two[j] = in[j] + in[j + 1];
    for (int j = 0; j < 64; ++j) four[j] = two[j] + two[j + 2];
    for (int j = 0; j < 56; ++j) eight[j] = four[j] + four[j + 4];
    for (int j = 0; j < pitch; ++j) {
      out[pitch + j] = out[j] + (eight[j] + eight[j + 8] + four[j + 16] + in[j + 20]);
    }
  }

  /// Adds `count` rows of the window at `entry` to `sum` if that can be done in one step.
  [[gnu::always_inline]] static bool addRows(const Side& side, int entry, int count,
                                             std::uint64_t& sum) {
    const std::uint64_t binade = (sum >> 52) - (1023 + firstBinade);
    const bool known = binade < binades;
    const int k = known ? static_cast<int>(binade) : 0;
    const std::uint32_t* rounding = side.rounding[k] + entry;
    const std::uint32_t correction = rounding[count * pitch] - rounding[0];
    const std::int64_t total = side.total[entry + count * pitch] - side.total[entry];
    const std::int64_t step = (total + static_cast<std::int32_t>(correction)) >> (k + 1);
    const std::uint64_t next = sum + static_cast<std::uint64_t>(step);
    const bool valid = known & (correction + tieUnit / 2 < tieUnit) & ((next ^ sum) >> 52 == 0);
    sum = valid ? next : sum;
    return valid;
  }

  /// Adds one row of the window voxel by voxel.
  [[gnu::always_inline]] static std::uint64_t addVoxels(const Side& side, int row, int x,
                                                        std::uint64_t bits) {
    double sum = std::bit_cast<double>(bits);
    const double* value = side.value[row] + x;
    for (int j = 0; j < window; ++j) sum += value[j];
    return std::bit_cast<std::uint64_t>(sum);
  }

  /// Adds the plane to one sum: as many rows at once as stay in the binade, then a row voxel by
  /// voxel, and so on.
  [[gnu::always_inline]] static std::uint64_t addRowByRow(const Side& side, int place,
                                                          std::uint64_t sum) {
    const int x = place % pitch;
    const int top = place / pitch;
    for (int row = 0; row < window;) {
      const int entry = place + row * pitch;
      int low = 0;  // rows that can be added at once; fewer than `high` can
      for (int high = window - row + 1; high - low > 1;) {
        const int middle = (low + high) / 2;
        std::uint64_t trial = sum;
        if (addRows(side, entry, middle, trial)) {
          low = middle;
        } else {
          high = middle;
        }
      }
      if (low > 0) addRows(side, entry, low, sum);
      row += low;
      if (row < window) sum = addVoxels(side, top + row++, x, sum);
    }
    return sum;
  }

  std::array<Side, 2> sides_;  // positive, negative
  alignas(64) std::int64_t fixed_[rows];
  alignas(64) std::uint32_t exact_[rows];  ///< tieUnit where fixed_ holds all of the value
  alignas(64) std::uint32_t flags_[rows];  ///< tieUnit where the tables cannot serve the value
};

/// One tile from its first plane to its last. `starts[z]` is the first slot of plane z.
[[gnu::always_inline]] inline void sumTile(RegionTile& tile, RegionTile::Slots& slots,
                                           const double* image, const char* label, Grid grid,
                                           int x0, int y0, std::span<const int> starts) {
  const int first = starts.front();
  for (int z = 0; z < grid.Z; ++z) {
    const int begin = starts[std::max(z - boxSize, 0)] - first;
    const int end = starts[std::min(z + boxSize + 1, grid.Z)] - first;
    if (begin == end) continue;
    const std::ptrdiff_t plane = static_cast<std::ptrdiff_t>(z) * grid.plane();
    tile.build(image + plane, label + plane, grid.X, grid.Y, x0, y0);
    tile.addPlane(slots, begin, end);
  }
}

inline void sumTilePortable(RegionTile& tile, RegionTile::Slots& slots, const double* image,
                            const char* label, Grid grid, int x0, int y0,
                            std::span<const int> starts) {
  sumTile(tile, slots, image, label, grid, x0, y0, starts);
}
#if defined(__x86_64__)
[[gnu::target("avx2,bmi,bmi2")]] inline void sumTileAvx2(RegionTile& tile, RegionTile::Slots& slots,
                                                const double* image, const char* label, Grid grid,
                                                int x0, int y0, std::span<const int> starts) {
  sumTile(tile, slots, image, label, grid, x0, y0, starts);
}
[[gnu::target("avx2,bmi,bmi2,avx512f,avx512bw,avx512dq,avx512vl,prefer-vector-width=512")]] inline void sumTileAvx512(
    RegionTile& tile, RegionTile::Slots& slots, const double* image, const char* label, Grid grid,
    int x0, int y0, std::span<const int> starts) {
  sumTile(tile, slots, image, label, grid, x0, y0, starts);
}
#endif

/// Region sums of many voxels at once.
/// @param image, label  one value a voxel of the grid; label > 0 (as signed 8 bits) is positive
/// @param centres       grid indices of the voxels
/// @param sums          receives the result of centres[i] in sums[i]
inline void regionSums(const double* image, const char* label, Grid grid,
                       std::span<const int> centres, std::span<RegionSums> sums, int threads = 1,
                       InstructionSet instructions = widestInstructionSet()) {
  constexpr int side = RegionTile::side;
  const int tilesX = (grid.X + side - 1) / side;
  const int tilesY = (grid.Y + side - 1) / side;
  const auto bucket = [&](int g) {
    const int x = g % grid.X, y = g / grid.X % grid.Y, z = g / grid.plane();
    return (y / side * tilesX + x / side) * grid.Z + z;
  };
  // Counting sort by tile and plane.
  std::vector<int> starts(static_cast<std::size_t>(tilesX) * tilesY * grid.Z + 1, 0);
  std::vector<int> order(centres.size());
  for (const int g : centres) ++starts[bucket(g) + 1];
  for (std::size_t b = 1; b < starts.size(); ++b) starts[b] += starts[b - 1];
  {
    std::vector<int> next(starts.begin(), starts.end() - 1);
    for (std::size_t i = 0; i < centres.size(); ++i) order[next[bucket(centres[i])]++] = static_cast<int>(i);
  }
  parallelFor(threads, tilesX * tilesY, [&](int t) {
    const std::span<const int> planes(starts.data() + static_cast<std::size_t>(t) * grid.Z, grid.Z + 1);
    const int count = planes.back() - planes.front();
    if (count == 0) return;
    const int x0 = t % tilesX * side;
    const int y0 = t / tilesX * side;
    const auto tile = std::make_unique_for_overwrite<RegionTile>();
    RegionTile::Slots slots;
    slots.place.resize(count);
    slots.unfinished.resize(count);
    for (auto& sum : slots.sum) sum.assign(count, 0);
    for (auto& n : slots.count) n.assign(count, 0);
    const int* mine = order.data() + planes.front();
    for (int i = 0; i < count; ++i) {
      const int g = centres[mine[i]];
      slots.place[i] = (g / grid.X % grid.Y - y0) * RegionTile::pitch + g % grid.X - x0;
    }
#if defined(__x86_64__)
    if (instructions == InstructionSet::avx512) {
      sumTileAvx512(*tile, slots, image, label, grid, x0, y0, planes);
    } else if (instructions == InstructionSet::avx2) {
      sumTileAvx2(*tile, slots, image, label, grid, x0, y0, planes);
    } else
#endif
      sumTilePortable(*tile, slots, image, label, grid, x0, y0, planes);
    for (int i = 0; i < count; ++i) {
      sums[mine[i]] = {std::bit_cast<double>(slots.sum[0][i]), std::bit_cast<double>(slots.sum[1][i]),
                       slots.count[0][i], slots.count[1][i]};
    }
  });
}

}  // namespace tavrel
