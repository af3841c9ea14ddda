// The choice of W5 by what is stable: the finished mask that changes least when W5 changes.
//
// A surface that lies on the brain stays there over a range of weights; one that leaks, or that has
// stopped in the cortex, moves with every change. So the coarse levels are evolved with several
// weights, and the least weight is taken whose mask agrees with those of its neighbours nearly as
// well as any (the idea of maximally stable regions: Matas et al., "Robust Wide-Baseline Stereo
// from Maximally Stable Extremal Regions", Image Vis. Comput. 22, 2004). The very best agreement is
// not asked for: it sits at the edge of leaks.
#pragma once

#include <span>
#include <vector>

#include "bit_volume.h"

namespace tavrel::strip {

/// The weights that are tried, and how they go on while the last one is the best and not yet
/// stable.
inline constexpr double kWeights[] = {0.75, 1.0, 1.25, 1.5, 1.75, 2.0};
inline constexpr double kWeightStep = 0.5, kLargestWeight = 4;
inline constexpr double kStable = 0.98;

/// What came of one weight on the coarse levels.
struct WeightTrial {
  double w5 = 0;
  BitVolume raw;  ///< as evolved
  BitVolume finished;
  double ml = 0;  ///< of the finished mask
};

/// How the trials compare.
struct WeightChoice {
  std::size_t chosen = 0, best = 0;  ///< the least weight that is good enough, the best rated one
  double agreement = 1;              ///< of the chosen mask with its neighbours', 0 to 1
  std::vector<double> ratings;       ///< the same of all masks
};

/// Rates trials of rising weight.
/// @param mostMl  masks of more than this are no brains
WeightChoice chooseWeight(std::span<const WeightTrial> trials, double mostMl);

}  // namespace tavrel::strip
