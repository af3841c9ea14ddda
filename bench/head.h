// What the benchmarks work on: a head phantom as a scanner's bytes, prepared for the evolution.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <string>

#include "phantom.h"
#include "vox3DMat.h"
#include "voxPipeline.h"

namespace tavrel::bench {

using Image = vox3DMat<double, char>;
using Mask = vox3DMat<char, double>;

/// Sizes of a head of x voxels along x, in the proportions of 181 x 217 x 181.
inline std::array<int, 3> headSizes(int x) { return {x, x * 217 / 181, x}; }

inline std::string sizesOf(int x) {
  const auto [X, Y, Z] = headSizes(x);
  return std::to_string(X) + " x " + std::to_string(Y) + " x " + std::to_string(Z);
}

/// A phantom of x voxels along x.
class Head {
 public:
  explicit Head(int x) : sizes_(headSizes(x)) {
    const Phantom phantom = makePhantom(sizes_[0], sizes_[1], sizes_[2]);
    Image input(sizes_[0], sizes_[1], sizes_[2]);
    std::transform(phantom.image.begin(), phantom.image.end(), input.p,
                   [](double v) { return std::floor(std::clamp(230 * v, 0.0, 255.0)); });
    fill(settings_);
    prepared_ = prepare(input, settings_);
  }

  const voxPara& settings() const { return settings_; }
  const Image& image() const { return *prepared_.image; }

  /// A copy of what an evolution starts from.
  PreparedVolumes prepared() const {
    return {std::unique_ptr<Image>(prepared_.image->duplicate()),
            std::unique_ptr<Mask>(prepared_.mask->duplicate())};
  }

  /// The level-set function of the finest level after a few steps, when it is no longer a mask.
  const Image& function() {
    if (function_) return *function_;
    voxPara settings;
    fill(settings);
    settings.max_iter[settings.seg_dn] = 3;
    PreparedVolumes volumes = prepared();
    evolve(volumes, settings, {.onStep = {}, .onLevel = [this](int, const Image& Phi) {
                                 function_.reset(Phi.duplicate());
                               }});
    return *function_;
  }

 private:
  void fill(voxPara& settings) const {
    setupPipeline(settings, nullptr, nullptr, nullptr, 0, sizes_[0], sizes_[1], sizes_[2], 1.0);
  }

  std::array<int, 3> sizes_;
  voxPara settings_;
  PreparedVolumes prepared_;
  std::unique_ptr<Image> function_;
};

}  // namespace tavrel::bench
