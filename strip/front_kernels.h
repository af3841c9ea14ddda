// The loops over the band of a Front, compiled for each instruction set. For one source file: what
// includes this compiles all of it.
//
// Every loop reads and writes plain arrays and does the same arithmetic for each voxel, without
// branches, so that compilers make vectors of it. Three volumes are shared by the loops of a step:
// `phi` holds the function, right in sign everywhere; `distance` holds the distances of this step's
// edge voxels and, later, of the layer, and +-kFar elsewhere; `speed` holds speeds of edge voxels.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

namespace tavrel::strip {

inline constexpr float kFar = 2;            ///< more than any distance in the band, in voxels
inline constexpr float kLeastStep = 1e-3f;  ///< a crossing is no nearer than this to a voxel
inline constexpr float kLeastPhi = 1e-6f;   ///< Phi is never 0: its sign is a side

/// Views of what the loops work on; `X` and `XY` are the strides along y and z.
struct FrontView {
  int X, XY;
  const int* voxels;
  const int* blocks;
  const float* intensity;
  float *nearestX, *nearestY, *nearestZ, *result, *speed;
  int* source;
  float *phi, *distance, *volumeSpeed;
  const float *meanInside, *meanOutside;
  float w3, w5;
};

/// The nearer crossing of the surface along one axis: 1 / offset, 0 where there is none.
inline float inverseOffset(float p, float forward, float backward) {
  const float f = p * forward < 0 ? p / (p - forward) : kFar;
  const float b = p * backward < 0 ? p / (p - backward) : kFar;
  const float nearer = std::max(std::min(f, b), kLeastStep);
  const float inverse = 1 / nearer;
  return nearer > 1 ? 0.0f : b < f ? -inverse : inverse;
}

/// Distance and nearest point of edge voxels [first, end): that of the plane through the crossings.
inline void crossingLoop(const FrontView& v, std::size_t first, std::size_t end) {
  for (std::size_t k = first; k < end; ++k) {
    const float* p = v.phi + v.voxels[k];
    const float x = inverseOffset(*p, p[1], p[-1]);
    const float y = inverseOffset(*p, p[v.X], p[-v.X]);
    const float z = inverseOffset(*p, p[v.XY], p[-v.XY]);
    const float square = 1 / (x * x + y * y + z * z);
    v.nearestX[k] = x * square;
    v.nearestY[k] = y * square;
    v.nearestZ[k] = z * square;
    const float distance = std::sqrt(square);
    v.result[k] = *p < 0 ? -distance : distance;
  }
}

/// The solution of |grad d| = 1 from the nearest known distances along the three axes.
inline float eikonal(float a, float b, float c) {
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
inline void layerLoop(const FrontView& v, std::size_t first, std::size_t end) {
  for (std::size_t k = first; k < end; ++k) {
    const int i = v.voxels[k];
    const float* d = v.distance + i;
    const float xf = std::abs(d[1]), xb = std::abs(d[-1]), yf = std::abs(d[v.X]),
                yb = std::abs(d[-v.X]), zf = std::abs(d[v.XY]), zb = std::abs(d[-v.XY]);
    const float x = std::min(xf, xb), y = std::min(yf, yb), z = std::min(zf, zb);
    const int ix = xb < xf ? -1 : 1, iy = yb < yf ? -v.X : v.X, iz = zb < zf ? -v.XY : v.XY;
    const float xy = std::min(x, y);
    const int ixy = y < x ? iy : ix;
    v.source[k] = i + (z < xy ? iz : ixy);
    const float far = std::min(eikonal(x, y, z), kFar);
    v.result[k] = *d < 0 ? -far : far;
  }
}

/// Speed at edge voxels.
inline void speedLoop(const FrontView& v, std::size_t first, std::size_t end) {
  for (std::size_t k = first; k < end; ++k) {
    const float* d = v.distance + v.voxels[k];
    const float laplacian =
        (d[1] + d[-1]) + (d[v.X] + d[-v.X]) + (d[v.XY] + d[-v.XY]) - 6 * d[0];
    const float curvature = std::max(-3.0f, std::min(3.0f, laplacian));
    const int b = v.blocks[k];
    const float inside = std::abs(v.intensity[k] - v.meanInside[b]);
    const float outside = std::abs(v.intensity[k] - v.meanOutside[b]);
    v.speed[k] = v.w5 * outside - inside - v.w3 * curvature;
  }
}

/// Speed at the nearest point of the surface, from both voxels of each crossing; returns the largest.
inline float extensionLoop(const FrontView& v, std::size_t first, std::size_t end) {
  float most = 0;
  for (std::size_t k = first; k < end; ++k) {
    const float x = v.nearestX[k], y = v.nearestY[k], z = v.nearestZ[k];
    const float square = x * x + y * y + z * z;
    const float* f = v.volumeSpeed + v.voxels[k];
    const float own = f[0];
    const auto along = [&](float offset, int stride) {
      // At the crossing along this axis: square / offset is how far it is.
      const float far = offset != 0 ? std::min(1.0f, square / std::abs(offset)) : 0.0f;
      return own + far * (f[offset > 0 ? stride : -stride] - own);
    };
    const float sum = x * x * along(x, 1) + y * y * along(y, v.X) + z * z * along(z, v.XY);
    const float speed = sum / square;
    v.speed[k] = speed;
    most = std::max(most, std::abs(speed));
  }
  return most;
}

/// Phi after a step of this length for all of the band, given speeds beside the voxels.
inline void moveLoop(const FrontView& v, std::size_t first, std::size_t end, float step) {
  for (std::size_t k = first; k < end; ++k) {
    const float moved = v.result[k] - step * v.speed[k];
    const float least = moved < 0 ? -kLeastPhi : kLeastPhi;
    v.result[k] = std::abs(moved) < kLeastPhi ? least : moved;
  }
}

enum class FrontLoop { crossings, layer, speeds, extension, move };

/// Runs one of the loops; `step` is for the move, and the extension gives the largest speed.
inline float runFrontLoop(FrontLoop loop, const FrontView& v, std::size_t first, std::size_t end,
                          float step) {
  switch (loop) {
    case FrontLoop::crossings: crossingLoop(v, first, end); break;
    case FrontLoop::layer: layerLoop(v, first, end); break;
    case FrontLoop::speeds: speedLoop(v, first, end); break;
    case FrontLoop::extension: return extensionLoop(v, first, end);
    case FrontLoop::move: moveLoop(v, first, end, step); break;
  }
  return 0;
}

}  // namespace tavrel::strip
