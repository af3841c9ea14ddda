// A head-like phantom volume, for demonstrations and tests: scalp, skull with marrow, cerebrospinal
// fluid (CSF), and a brain with folds, grey and white matter, deep grey nuclei and ventricles,
// under a smooth intensity bias and noise.
//
// Lengths are millimetres in a frame centred on the head (x right, y forward, z up); the voxel edge
// follows from the wanted sizes, so that the head always fits. Only +, -, *, / and sqrt are used
// and the random numbers are our own, so a seed gives the same voxels with every compiler and
// library.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace tavrel {

/// Number at position `index` of a random sequence (splitmix64 finaliser), uniform in [0, 1).
inline double uniformAt(std::uint64_t seed, std::uint64_t index) {
  std::uint64_t z = seed * 0xD1342543DE82EF95u + (index + 1) * 0x9E3779B97F4A7C15u;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
  return static_cast<double>((z ^ (z >> 31)) >> 11) * 0x1p-53;
}

struct Phantom {
  std::vector<double> image;         ///< about 0 (air) to 1 (brightest tissue), x fastest
  std::vector<unsigned char> brain;  ///< 1 in grey and white matter and ventricles, else 0
};

/// Makes a phantom of `sizes` voxels.
class PhantomHead {
 public:
  PhantomHead(std::array<int, 3> sizes, std::uint64_t seed) : sizes_(sizes), seed_(seed) {
    const Point extent{82, 100, 92};  // half the field of view around the head
    for (int a = 0; a < 3; ++a) edge_ = std::max(edge_, 2 * extent[a] / sizes[a]);
  }

  Phantom make() const {
    Phantom phantom;
    const std::size_t count = std::size_t(sizes_[0]) * sizes_[1] * sizes_[2];
    phantom.image.reserve(count);
    phantom.brain.reserve(count);
    forEachVoxel([&](const Point& p) {
      const Tissue tissue = tissueAt(p);
      phantom.image.push_back(tissue.intensity);
      phantom.brain.push_back(tissue.brain);
    });
    for (int axis = 0; axis < 3; ++axis) blur(phantom.image, axis);
    addBiasAndNoise(phantom.image);
    return phantom;
  }

 private:
  using Point = std::array<double, 3>;
  struct Tissue {
    double intensity;
    bool brain;
  };

  template <class Visit>
  void forEachVoxel(Visit visit) const {
    for (int z = 0; z < sizes_[2]; ++z)
      for (int y = 0; y < sizes_[1]; ++y)
        for (int x = 0; x < sizes_[0]; ++x)
          visit(Point{(x - 0.5 * (sizes_[0] - 1)) * edge_, (y - 0.5 * (sizes_[1] - 1)) * edge_,
                      (z - 0.5 * (sizes_[2] - 1)) * edge_});
  }

  /// Smooth noise in [-1, 1] that varies over `length` millimetres: random values on a lattice,
  /// interpolated with the cubic smooth step.
  double noise(const Point& p, double length, std::uint64_t stream) const {
    std::array<std::int64_t, 3> corner;
    Point t;
    for (int a = 0; a < 3; ++a) {
      const double u = p[a] / length, whole = std::floor(u);
      corner[a] = static_cast<std::int64_t>(whole);
      t[a] = (u - whole) * (u - whole) * (3 - 2 * (u - whole));
    }
    double sum = 0;
    for (int c = 0; c < 8; ++c) {
      double weight = 1;
      std::uint64_t index = stream;
      for (int a = 0; a < 3; ++a) {
        const int step = c >> a & 1;
        weight *= step ? t[a] : 1 - t[a];
        index = index * 4096 + static_cast<std::uint64_t>(corner[a] + step + 2048);
      }
      sum += weight * (2 * uniformAt(seed_, index) - 1);
    }
    return sum;
  }

  static double length(const Point& p) {
    return std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
  }

  /// Distance below the surface of an ellipsoid along the ray from its centre (negative outside).
  static double depthInEllipsoid(const Point& p, const Point& centre, const Point& radii) {
    Point offset, scaled;
    for (int a = 0; a < 3; ++a) {
      offset[a] = p[a] - centre[a];
      scaled[a] = offset[a] / radii[a];
    }
    const double rho = length(scaled);
    return rho > 0 ? length(offset) * (1 / rho - 1) : std::min({radii[0], radii[1], radii[2]});
  }

  Tissue tissueAt(const Point& p) const {
    constexpr double kAir = 0.01, kScalp = 0.72, kBone = 0.06, kMarrow = 0.3, kCsf = 0.16;
    const Point skin{74, 92, 84};
    const double depth = depthInEllipsoid(p, {0, 0, 0}, skin) + 2.5 * noise(p, 45, 1);
    if (depth < 0) return {kAir, false};
    if (depth < 6) return {kScalp + 0.1 * noise(p, 6, 2), false};
    const double inSkull = depth - 6;
    if (inSkull < 6.5)
      return {inSkull > 2.4 && inSkull < 4.1 && noise(p, 12, 3) > 0 ? kMarrow : kBone, false};
    const double belowSkull = inSkull - 6.5 + 0.8 * noise(p, 20, 4);
    return belowSkull < 2.5 ? Tissue{kCsf, false} : brainAt(p, belowSkull - 2.5);
  }

  /// Tissue at `depth` mm below the smooth hull of the brain. The cortex follows the walls of the
  /// sulci, which are sheets standing on the hull: the zeros of a noise that depends on direction.
  Tissue brainAt(const Point& p, double depth) const {
    constexpr double kCsf = 0.16, kGrey = 0.56, kWhite = 0.8, kNucleus = 0.62;
    constexpr double kCortex = 3.5, kFissureDepth = 32;
    for (const double side : {-1.0, 1.0}) {
      if (depthInEllipsoid(p, {side * 9, 2, 8}, {4.5, 24, 7}) > 0) return {kCsf, true};
      if (depthInEllipsoid(p, {side * 17, 4, -2}, {8, 14, 10}) > 0) return {kNucleus, true};
    }
    const double fissure = length({p[0] + 1.5 * noise(p, 25, 5),
                                   std::max(0.0, depth - kFissureDepth), std::max(0.0, 4 - p[2])});
    const double wall = distanceToWall(p);
    const double floor = 16 + 6 * noise(p, 18, 12);  // depth of the sulci
    const double halfWidth = std::max(0.0, 1.1 * (1 - depth / floor));
    if (wall < halfWidth || fissure < 1) return {kCsf, false};

    const double belowFloor = std::max(0.0, depth - floor);
    const double toSulcus = length({wall, belowFloor, 0}) - halfWidth;
    return {std::min({depth, fissure - 1, toSulcus}) < kCortex ? kGrey : kWhite, true};
  }

  /// Distance to the nearest sheet of the folding: the value of a noise over the length of its
  /// gradient. The noise is taken on a sphere around the centre, warped a little with depth.
  double distanceToWall(const Point& p) const {
    const auto fold = [&](const Point& q) { return noise(q, 10, 6) + 0.3 * noise(q, 5, 7); };
    const double radius = length(p) + 1e-9;
    Point q;
    for (int a = 0; a < 3; ++a) q[a] = p[a] / radius * 65 + 2.5 * noise(p, 15, 8 + a);
    const double value = fold(q);
    double gradient2 = 0.02 * 0.02;  // keeps the distance finite where the noise is flat
    for (int a = 0; a < 3; ++a) {
      Point next = q;
      next[a] += 0.5;
      const double slope = (fold(next) - value) / 0.5;
      gradient2 += slope * slope;
    }
    return std::fabs(value) / std::sqrt(gradient2);
  }

  /// Partial volume: a 1-2-1 blur along one axis, clamped at the border.
  void blur(std::vector<double>& image, int axis) const {
    std::size_t stride = 1;
    for (int a = 0; a < axis; ++a) stride *= sizes_[a];
    std::vector<double> out(image.size());
    for (std::size_t n = 0; n < image.size(); ++n) {
      const int at = static_cast<int>(n / stride % sizes_[axis]);
      const double before = image[at > 0 ? n - stride : n];
      const double after = image[at + 1 < sizes_[axis] ? n + stride : n];
      out[n] = 0.25 * before + 0.5 * image[n] + 0.25 * after;
    }
    image.swap(out);
  }

  /// A gentle multiplicative shading, then noise of standard deviation 0.025 (nearly normal: the
  /// sum of four uniform numbers).
  void addBiasAndNoise(std::vector<double>& image) const {
    std::size_t n = 0;
    forEachVoxel([&](const Point& p) {
      double sum = -2;
      for (int k = 0; k < 4; ++k) sum += uniformAt(seed_ + 1, 4 * n + k);
      image[n] = image[n] * (1 + 0.1 * noise(p, 70, 11)) + 0.025 * 1.7320508 * sum;
      ++n;
    });
  }

  std::array<int, 3> sizes_;
  std::uint64_t seed_;
  double edge_ = 0;
};

/// A phantom of x * y * z voxels; every seed gives another head.
inline Phantom makePhantom(int x, int y, int z, std::uint64_t seed = 1) {
  return PhantomHead({x, y, z}, seed).make();
}

}  // namespace tavrel
