#include "coarse_to_fine.h"

#include <algorithm>
#include <cmath>

#include "finishing.h"
#include "morphology.h"
#include "orbit_fat.h"
#include "parallel.h"

namespace tavrel::strip {
namespace {

// Lengths in mm.
constexpr double kCoarsestMm = 2.5;  // the coarsest level's voxels are larger
constexpr std::array<double, 3> kSeedHalf = {36, 43, 32};
constexpr double kTrialOpen = 2, kTrialClose = 6;  // finishing on the level of the trials
constexpr double kHold = 6;    // from the trial's finished mask to where the surface may go
constexpr double kFatRim = 3;  // of fat, which has lost its brightness to the minimum filter
constexpr int kCoarsestSteps = 200, kSteps = 12, kFinestSteps = 5;
constexpr int kTrialBlock = 2, kFinestBlock = 4;  // edges in voxels, see LevelImage
constexpr double kTrialShare = 0.95;  // of a brain's largest volume: the trials' masks are tighter
// The finest level only has to find the border near the chosen mask: there the brain's own mean
// counts more, so that the darker voxels of the gap stay out.
constexpr double kFinestW5 = 0.8;

/// The image at falling resolutions, finest first.
std::vector<Intensities> pyramid(Intensities finest) {
  std::vector<Intensities> levels;
  levels.push_back(std::move(finest));
  while (levels.back().grid.spacing[0] < kCoarsestMm) levels.push_back(halved(levels.back()));
  return levels;
}

/// A box of the seed's size around a point.
BitVolume seedBox(const Grid& grid, const std::array<double, 3>& centre) {
  Box box;
  for (int d = 0; d < 3; ++d) {
    const auto index = [&](double mm) {  // of the first voxel whose centre is not before mm
      return std::clamp(int(std::ceil(mm / grid.spacing[d] - 0.5)), 0, grid.size[d]);
    };
    box.first[d] = index(centre[d] - kSeedHalf[d]);
    box.end[d] = index(centre[d] + kSeedHalf[d]);
  }
  BitVolume seed(grid.size);
  for (int z = box.first[2]; z < box.end[2]; ++z)
    for (int y = box.first[1]; y < box.end[1]; ++y) seed.setRange(y, z, box.first[0], box.end[0]);
  return seed;
}

}  // namespace

CoarseToFine::CoarseToFine(Intensities image, const std::array<double, 3>& centre,
                           const StripSettings& settings, const StripObserver& observer)
    : settings_(settings),
      observer_(observer),
      levels_(pyramid(std::move(image))),
      centre_(centre) {
  seed_ = seedBox(levels_.back().grid, centre);
  runTrials();
}

/// The level on which weights are compared: the second coarsest.
std::size_t CoarseToFine::trialLevel() const {
  return levels_.size() - std::min<std::size_t>(2, levels_.size());
}

void CoarseToFine::runTrials() {
  for (std::size_t l = trialLevel(); l < levels_.size(); ++l)
    images_.emplace_back(levels_[l], kTrialBlock);
  if (settings_.w5)
    addTrials({{*settings_.w5}});
  else
    addTrials(kWeights);
  const auto goOn = [&] {
    return choice_.best + 1 == trials_.size() && choice_.ratings.back() < kStable &&
           trials_.back().w5 < kLargestWeight;
  };
  while (!settings_.w5 && goOn()) addTrials({{trials_.back().w5 + kWeightStep}});
  fat_ = orbitFat(images_.front(), trials_[choice_.chosen].finished, centre_);
}

BitVolume CoarseToFine::finest() {
  const WeightTrial& best = trials_[choice_.chosen];
  BitVolume fat = fat_;
  dilate(fat, levels_[trialLevel()].grid.spacing, kFatRim);
  if (trialLevel() == 0) return finished(without(best.raw, fat));
  const Intensities& image = levels_[trialLevel() - 1];
  BitVolume domain = best.finished;
  dilate(domain, levels_[trialLevel()].grid.spacing, kHold);
  domain = doubled(without(std::move(domain), fat), image.grid.size);
  const Box box = grown(boundingBox(domain), {1, 1, 1}, image.grid.size);
  const LevelImage level(image, box, kFinestBlock, settings_.threads);
  BitVolume inside = cropped(doubled(best.raw, image.grid.size), box);
  domain = cropped(domain, box);
  inside &= domain;
  idle_.clear();
  Front front(level);
  inside = evolve(level, front, inside, level.withBorder(domain),
                  {.w5 = settings_.w5.value_or(kFinestW5),
                   .mostSteps = kFinestSteps,
                   .threads = settings_.threads});
  return uncropped(finished(std::move(inside)), box, image.grid.size);
}

Evidence CoarseToFine::evidence() const {
  Evidence e;
  e.agreement = choice_.agreement;
  e.fatMl = millilitres(double(fat_.count()), levels_[trialLevel()].grid.spacing);
  for (std::size_t i = 0; i + 1 < trials_.size(); ++i)
    e.shrinking = std::max(e.shrinking, 1 - trials_[i + 1].ml / std::max(1.0, trials_[i].ml));
  const Intensities& image = levels_[trialLevel()];
  BitVolume seed = seed_;
  if (seed.size() != image.grid.size) seed = doubled(seed, image.grid.size);
  examine({image, trials_[choice_.chosen].finished, seed}, e);
  return e;
}

std::vector<TrialRecord> CoarseToFine::records() const {
  std::vector<TrialRecord> records;
  for (std::size_t i = 0; i < trials_.size(); ++i)
    records.push_back({trials_[i].w5, trials_[i].ml, choice_.ratings[i]});
  return records;
}

BitVolume CoarseToFine::evolve(const LevelImage& image, Front& front, const BitVolume& from,
                               const BitVolume& domain, const FrontSettings& settings) const {
  BitVolume inside = image.withBorder(from);
  front.evolve(inside, domain, settings, observer_.checkpoint);
  return image.withoutBorder(inside);
}

void CoarseToFine::addTrials(std::span<const double> weights) {
  const std::size_t before = trials_.size();
  trials_.resize(before + weights.size());
  parallelFor(settings_.threads, int(weights.size()), [&](int i) {
    auto fronts = borrowFronts();
    trials_[before + std::size_t(i)] = trial(weights[std::size_t(i)], *fronts);
    const std::lock_guard guard(idleLock_);
    idle_.push_back(std::move(fronts));
  });
  choice_ = chooseWeight(trials_, kTrialShare * settings_.volumes.most);
}

/// Fronts of another trial, whose memory is used again, or new ones.
std::unique_ptr<CoarseToFine::Fronts> CoarseToFine::borrowFronts() {
  const std::lock_guard guard(idleLock_);
  if (!idle_.empty()) {
    auto fronts = std::move(idle_.back());
    idle_.pop_back();
    return fronts;
  }
  auto fronts = std::make_unique<Fronts>();
  for (const LevelImage& image : images_) fronts->push_back(std::make_unique<Front>(image));
  return fronts;
}

WeightTrial CoarseToFine::trial(double w5, Fronts& fronts) const {
  WeightTrial result;
  result.w5 = w5;
  result.raw = seed_;
  int steps = kCoarsestSteps;
  for (std::size_t l = images_.size(); l-- > 0; steps = kSteps) {
    const LevelImage& image = images_[l];
    if (l + 1 < images_.size()) result.raw = doubled(result.raw, image.grid().size);
    result.raw =
        evolve(image, *fronts[l], result.raw, image.domain(), {.w5 = w5, .mostSteps = steps});
  }
  const Grid& grid = images_.front().grid();
  result.finished = result.raw;
  finishMask(result.finished, grid.spacing,
             {.openMm = kTrialOpen, .largest = true, .closeMm = kTrialClose, .fillHoles = true});
  result.ml = millilitres(double(result.finished.count()), grid.spacing);
  return result;
}

/// The minimum filter has made the brain a voxel smaller all around.
BitVolume CoarseToFine::finished(BitVolume mask) const {
  constexpr double kCube = 1.75;  // reaches the 26 neighbours
  dilate(mask, {1, 1, 1}, kCube);
  if (settings_.finish)
    finishMask(mask, levels_.front().grid.spacing, *settings_.finish, observer_.checkpoint);
  return mask;
}

}  // namespace tavrel::strip
