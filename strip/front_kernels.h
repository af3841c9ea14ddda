// The loops over the band of a Front, compiled for each instruction set. For one source file: what
// includes this compiles all of it.
//
// Every loop reads and writes plain arrays and does the same arithmetic for each voxel, without
// branches, so that compilers make vectors of it. Three volumes are shared by the loops of a step:
// `phi` holds the function, right in sign everywhere; `distance` holds the distances of this step's
// edge voxels and, later, of the layer, and +-kBeyond elsewhere; `speed` holds speeds of edge
// voxels.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace tavrel::strip {

inline constexpr float kBeyond = 2;         ///< more than any distance in the band, in voxels
inline constexpr float kLeastStep = 1e-3f;  ///< a crossing is no nearer than this to a voxel
inline constexpr float kLeastPhi = 1e-6f;   ///< Phi is never 0: its sign is a side

using Index = std::int32_t;

/// Views of what the loops work on; `X` and `XY` are the strides along y and z.
struct FrontView {
  Index X, XY;
  // Per voxel of the band (see FrontBand); those of edge voxels first.
  const Index *voxels, *blocks;
  const float* intensity;
  float *nearestX, *nearestY, *nearestZ, *distances, *speeds;
  Index* source;
  // Per voxel of the level.
  const float *phi, *distance, *speed;
  // Per block.
  const float *meanInside, *meanOutside;
  float w3, w5;
};

/// The nearer crossing of the surface along one axis: 1 / offset, 0 where there is none.
[[gnu::always_inline]] inline float inverseOffset(float p, float forward, float backward) {
  const float f = p * forward < 0 ? p / (p - forward) : kBeyond;
  const float b = p * backward < 0 ? p / (p - backward) : kBeyond;
  const float nearer = std::max(std::min(f, b), kLeastStep);
  const float inverse = 1 / nearer;
  return nearer > 1 ? 0.0f : b < f ? -inverse : inverse;
}

/// Distance and nearest point of edge voxels [first, end): that of the plane through the crossings.
[[gnu::always_inline]] inline void crossingLoop(const FrontView& v, std::size_t first,
                                                std::size_t end, float* __restrict nx,
                                                float* __restrict ny, float* __restrict nz,
                                                float* __restrict distances) {
  const Index X = v.X, XY = v.XY;
  const Index* voxels = v.voxels;
  const float* phi = v.phi;
  for (std::size_t k = first; k < end; ++k) {
    const Index i = voxels[k];
    const float p = phi[i];
    const float x = inverseOffset(p, phi[i + 1], phi[i - 1]);
    const float y = inverseOffset(p, phi[i + X], phi[i - X]);
    const float z = inverseOffset(p, phi[i + XY], phi[i - XY]);
    const float square = 1 / (x * x + y * y + z * z);
    nx[k] = x * square;
    ny[k] = y * square;
    nz[k] = z * square;
    distances[k] = std::copysign(std::sqrt(square), p);
  }
}

/// The solution of |grad d| = 1 from the nearest known distances along the three axes.
[[gnu::always_inline]] inline float eikonal(float a, float b, float c) {
  const float low = std::min(a, std::min(b, c)), high = std::max(a, std::max(b, c));
  const float middle = std::max(std::min(a, b), std::min(std::max(a, b), c));
  const float one = low + 1;
  const float apart = low - middle;
  const float two = 0.5f * (low + middle + std::sqrt(std::max(2 - apart * apart, 0.0f)));
  const float sum = low + middle + high;
  const float root = sum * sum - 3 * (low * low + middle * middle + high * high - 1);
  const float three = (sum + std::sqrt(std::max(root, 0.0f))) * (1 / 3.0f);
  return one <= middle ? one : two <= high ? two : three;
}

/// Distance of layer voxels, and the edge voxel nearest to the surface among their neighbours.
[[gnu::always_inline]] inline void layerLoop(const FrontView& v, std::size_t first, std::size_t end,
                                             Index* __restrict source,
                                             float* __restrict distances) {
  const Index X = v.X, XY = v.XY;
  const Index* voxels = v.voxels;
  const float* d = v.distance;
  for (std::size_t k = first; k < end; ++k) {
    const Index i = voxels[k];
    const float xf = std::abs(d[i + 1]), xb = std::abs(d[i - 1]);
    const float yf = std::abs(d[i + X]), yb = std::abs(d[i - X]);
    const float zf = std::abs(d[i + XY]), zb = std::abs(d[i - XY]);
    const float x = std::min(xf, xb), y = std::min(yf, yb), z = std::min(zf, zb);
    const Index ix = xb < xf ? -1 : 1, iy = yb < yf ? -X : X, iz = zb < zf ? -XY : XY;
    const float xy = std::min(x, y);
    const Index ixy = y < x ? iy : ix;
    source[k] = i + (z < xy ? iz : ixy);
    distances[k] = std::copysign(std::min(eikonal(x, y, z), kBeyond), d[i]);
  }
}

/// Speed at edge voxels.
[[gnu::always_inline]] inline void speedLoop(const FrontView& v, std::size_t first, std::size_t end,
                                             float* __restrict speeds) {
  const Index X = v.X, XY = v.XY;
  const Index *voxels = v.voxels, *blocks = v.blocks;
  const float *d = v.distance, *intensity = v.intensity;
  const float *means = v.meanInside, *outsideMeans = v.meanOutside;
  const float w3 = v.w3, w5 = v.w5;
  for (std::size_t k = first; k < end; ++k) {
    const Index i = voxels[k];
    const float laplacian =
        (d[i + 1] + d[i - 1]) + (d[i + X] + d[i - X]) + (d[i + XY] + d[i - XY]) - 6 * d[i];
    const float curvature = std::max(-3.0f, std::min(3.0f, laplacian));
    const float inside = std::abs(intensity[k] - means[blocks[k]]);
    const float outside = std::abs(intensity[k] - outsideMeans[blocks[k]]);
    speeds[k] = w5 * outside - inside - w3 * curvature;
  }
}

/// Speed at the nearest point of the surface, from both voxels of each crossing.
[[gnu::always_inline]] inline void extensionLoop(const FrontView& v, std::size_t first,
                                                 std::size_t end, float* __restrict speeds) {
  const Index X = v.X, XY = v.XY;
  const Index* voxels = v.voxels;
  const float *nx = v.nearestX, *ny = v.nearestY, *nz = v.nearestZ;
  const float* f = v.speed;
  // Between the voxel and its neighbour where the surface crosses: square / offset is how far that
  // is.
  const auto crossing = [](float own, float other, float square, float offset) {
    const float far = std::min(1.0f, square / std::max(std::abs(offset), 1e-20f));
    return offset * offset * (own + far * (other - own));
  };
  for (std::size_t k = first; k < end; ++k) {
    const Index i = voxels[k];
    const float x = nx[k], y = ny[k], z = nz[k], own = f[i];
    const float square = x * x + y * y + z * z;
    const float sum = crossing(own, f[i + (x > 0 ? 1 : -1)], square, x) +
                      crossing(own, f[i + (y > 0 ? X : -X)], square, y) +
                      crossing(own, f[i + (z > 0 ? XY : -XY)], square, z);
    speeds[k] = sum / square;
  }
}

/// The largest speed, whatever its sign.
[[gnu::always_inline]] inline float largestLoop(const FrontView& v, std::size_t first,
                                                std::size_t end) {
  // In the bits of a float without its sign, larger numbers are larger integers.
  std::int32_t most = 0;
  for (std::size_t k = first; k < end; ++k)
    most = std::max(most, std::bit_cast<std::int32_t>(std::abs(v.speeds[k])));
  return std::bit_cast<float>(most);
}

/// Phi after a step of this length for all of the band, given speeds beside the voxels.
[[gnu::always_inline]] inline void moveLoop(const FrontView& v, std::size_t first, std::size_t end,
                                            float step) {
  for (std::size_t k = first; k < end; ++k) {
    const float moved = v.distances[k] - step * v.speeds[k];
    v.distances[k] = std::copysign(std::max(std::abs(moved), kLeastPhi), moved);
  }
}

enum class FrontLoop { crossings, layer, speeds, extension, move };

/// Runs one of the loops; `step` is for the move, and the extension gives the largest speed.
[[gnu::always_inline]] inline float runFrontLoop(FrontLoop loop, const FrontView& v,
                                                 std::size_t first, std::size_t end, float step) {
  switch (loop) {
    case FrontLoop::crossings:
      crossingLoop(v, first, end, v.nearestX, v.nearestY, v.nearestZ, v.distances);
      break;
    case FrontLoop::layer:
      layerLoop(v, first, end, v.source, v.distances);
      break;
    case FrontLoop::speeds:
      speedLoop(v, first, end, v.speeds);
      break;
    case FrontLoop::extension:
      extensionLoop(v, first, end, v.speeds);
      return largestLoop(v, first, end);
    case FrontLoop::move:
      moveLoop(v, first, end, step);
      break;
  }
  return 0;
}

}  // namespace tavrel::strip
