// One scan on its working grid from the seed to the mask: weights tried on the coarse levels, the
// chosen mask followed to the finest one.
#pragma once

#include <array>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "front.h"
#include "judge.h"
#include "level_image.h"
#include "stripping.h"
#include "weight_choice.h"

namespace tavrel::strip {

/// The weights tried on one scan, and the way from the chosen one to the mask.
class CoarseToFine {
 public:
  /// Evolves the coarse levels with several weights, or the given one, and chooses one.
  /// @param image     the working image after the minimum filter
  /// @param centre    where to begin, in mm from the image's outer corner
  /// @param settings  used as long as this lives, like the observer
  CoarseToFine(Intensities image, const std::array<double, 3>& centre,
               const StripSettings& settings, const StripObserver& observer);

  /// Evolves the finest level from the chosen mask: the mask on the working grid.
  BitVolume finest();

  /// The weight chosen.
  double w5() const { return trials_[choice_.chosen].w5; }
  /// The weights tried, in rising order.
  std::vector<TrialRecord> records() const;
  /// What speaks for and against the chosen mask, as far as the trials tell.
  Evidence evidence() const;

 private:
  using Fronts = std::vector<std::unique_ptr<Front>>;  // one a level of images_

  void runTrials();
  std::size_t trialLevel() const;
  BitVolume evolve(const LevelImage& image, Front& front, const BitVolume& from,
                   const BitVolume& domain, const FrontSettings& settings) const;
  void addTrials(std::span<const double> weights);
  std::unique_ptr<Fronts> borrowFronts();
  WeightTrial trial(double w5, Fronts& fronts) const;
  BitVolume finished(BitVolume mask) const;

  const StripSettings& settings_;
  const StripObserver& observer_;
  std::vector<Intensities> levels_;  // finest first
  std::vector<LevelImage> images_;   // of the trials' level and coarser ones
  const std::array<double, 3> centre_;
  BitVolume seed_;
  BitVolume fat_;  // of the orbits, in the chosen trial's mask
  std::mutex idleLock_;
  std::vector<std::unique_ptr<Fronts>> idle_;
  std::vector<WeightTrial> trials_;
  WeightChoice choice_;
};

}  // namespace tavrel::strip
