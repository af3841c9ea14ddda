// The summing of a tile, compiled for each instruction set. For one source file: what includes this
// compiles all of it.
#pragma once

#include "tile.h"

namespace tavrel::exact {

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

}  // namespace tavrel::exact
