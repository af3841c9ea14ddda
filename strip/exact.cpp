#include <algorithm>
#include <chrono>
#include <cmath>

#include "body.h"
#include "stripping.h"

namespace tavrel::strip {
namespace {

// The automatic choice takes kUsualW5, kThinW5 where the mask of the half resolution is thin and
// does not leak with it, and less than kUsualW5 in steps of kW5Step while the mask leaks.
constexpr double kUsualW5 = 1.0, kThinW5 = 1.1, kLeastW5 = 0.7, kW5Step = 0.1;

using Clock = std::chrono::steady_clock;

std::span<const double> voxels(const Image& image) {
  return {image.p, std::size_t(image.mxn) * std::size_t(image.sizeZ)};
}

std::unique_ptr<Image> imageOnGrid(std::unique_ptr<Image> image, const Grid& from, const Grid& to) {
  if (from.size == to.size && from.spacing == to.spacing) return image;
  // What is not a finite number must not spread to its neighbours.
  for (double& value : std::span(image->p, voxelCount(from.size)))
    if (!std::isfinite(value)) value = 0;
  const auto values = resample(voxels(*image), from, to);
  auto result = std::make_unique<Image>(to.size[0], to.size[1], to.size[2]);
  std::copy(values.begin(), values.end(), result->p);
  return result;
}

/// The level-set function of the last level without the padding.
std::vector<double> withoutPadding(const Image& padded, const voxPara& P) {
  std::vector<double> result;
  result.reserve(std::size_t(P.sizeX) * std::size_t(P.sizeY) * std::size_t(P.sizeZ));
  for (int z = 0; z < P.sizeZ; ++z)
    for (int y = 0; y < P.sizeY; ++y) {
      const double* row = padded.p + std::ptrdiff_t(z + P.Zn) * padded.mxn +
                          std::ptrdiff_t(y + P.Yn) * padded.sizeX + P.Xn;
      result.insert(result.end(), row, row + P.sizeX);
    }
  return result;
}

/// The mask that a level-set function stands for.
std::vector<char> insideOf(const Image& phi) {
  const auto values = voxels(phi);
  std::vector<char> mask(values.size());
  std::transform(values.begin(), values.end(), mask.begin(),
                 [](double v) { return char(isInside(v)); });
  return mask;
}

/// The grid of a level of half the resolution.
Grid halfGrid(const Image& phi, const Spacing& spacing) {
  return {{phi.sizeX, phi.sizeY, phi.sizeZ}, {2 * spacing[0], 2 * spacing[1], 2 * spacing[2]}};
}

/// A prepared image that can be evolved several times.
class ExactRuns {
 public:
  ExactRuns(std::unique_ptr<Image> image, const Grid& grid, int threads)
      : grid_(grid), threads_(threads) {
    const Size& size = grid.size;
    char none[] = "";
    setupPipeline(P_, none, none, none, 3, size[0], size[1], size[2], 0);
    volumes_ = prepare(*image, P_);
    seed_.reset(volumes_.mask->duplicate());
  }

  struct Result {
    std::vector<char> mask;
    std::vector<double> phi;
    std::vector<LevelRecord> levels;
    std::optional<MaskBody> body;  // of the level before the last
  };

  /// Evolves and finishes, or gives up before the last level where `goOn` says so.
  template <class GoOn>
  std::optional<Result> run(double w5, const StripSettings& settings, const StripObserver& observer,
                            GoOn&& goOn) {
    if (observer.onRun) observer.onRun(w5);
    Result result;
    P_.w5 = w5;
    volumes_.mask.reset(seed_->duplicate());
    auto start = Clock::now();
    LevelRecord record;
    EvolutionObserver watch;
    watch.onStep = [&](const StepReport& step) {
      pass(observer.checkpoint);
      record.iterations = step.iteration + 1;
      if (observer.onStep) observer.onStep(step);
    };
    watch.onLevel = [&](int level, Image& phi) {
      record.size = {phi.sizeX, phi.sizeY, phi.sizeZ};
      record.seconds = std::chrono::duration<double>(Clock::now() - start).count();
      start = Clock::now();
      result.levels.push_back(std::exchange(record, {}));
      if (observer.onLevel) observer.onLevel(level, result.levels.back());
      if (level == P_.seg_dn && settings.phi) result.phi = withoutPadding(phi, P_);
      if (level != P_.seg_dn - 1) return;
      result.body.emplace(insideOf(phi), halfGrid(phi, grid_.spacing));
      if (!goOn(*result.body)) throw GivenUp();
    };
    try {
      evolve(volumes_, P_, watch, threads_);
    } catch (const GivenUp&) {
      return std::nullopt;
    }
    finish(*volumes_.mask, P_);
    result.mask.assign(volumes_.mask->p, volumes_.mask->p + voxelCount(grid_.size));
    return result;
  }

  /// Whether a mask goes far beyond the body of its run.
  bool leaks(const MaskBody& body, std::span<const char> mask) const {
    return body.leaks(mask, grid_.size, {P_.Xn, P_.Yn, P_.Zn});
  }

 private:
  struct GivenUp {};

  voxPara P_;
  PreparedVolumes volumes_;
  std::unique_ptr<vox3DMat<char, double>> seed_;
  Grid grid_;
  int threads_;
};

/// What a run is worth once its mask is finished.
struct Candidate {
  double w5;
  ExactRuns::Result result;
  bool leaks;
};

/// Runs the evolution with one weight and finishes the mask; nothing if `goOn` gave it up.
template <class GoOn>
std::optional<Candidate> tryWeight(ExactRuns& evolution, double w5, const Grid& grid,
                                   const StripSettings& settings, const StripObserver& observer,
                                   GoOn&& goOn) {
  auto result = evolution.run(w5, settings, observer, goOn);
  if (!result) return std::nullopt;
  if (settings.finish) {
    BitVolume mask(result->mask, grid.size);
    finishMask(mask, grid.spacing, *settings.finish, observer.checkpoint);
    mask.unpack(result->mask);
  }
  const bool leaks = result->body && evolution.leaks(*result->body, result->mask);
  return Candidate{w5, std::move(*result), leaks};
}

/// Looks for a weight with which the mask neither leaks nor is thin.
Candidate chooseExactWeight(ExactRuns& evolution, const Grid& grid, const StripSettings& settings,
                            const StripObserver& observer) {
  const auto attempt = [&](double w5, auto&& goOn) {
    return tryWeight(evolution, w5, grid, settings, observer, goOn);
  };
  const auto tight = [](const MaskBody& body) { return !body.leaks(); };
  bool thin = false;
  auto usual = attempt(kUsualW5, [&](const MaskBody& body) {
    thin = body.thin() && !body.leaks();
    return tight(body) && !thin;
  });
  if (usual && !usual->leaks) return std::move(*usual);
  if (thin) {
    auto larger = attempt(kThinW5, tight);
    if (larger && !larger->leaks) return std::move(*larger);
    usual = attempt(kUsualW5, tight);
    if (usual && !usual->leaks) return std::move(*usual);
  }
  for (int step = 1;; ++step) {
    const double w5 = kUsualW5 - step * kW5Step;
    const bool last = w5 < kLeastW5 + kW5Step / 2;
    auto smaller = attempt(w5, [&](const MaskBody& body) { return last || tight(body); });
    if (smaller && (last || !smaller->leaks)) return std::move(*smaller);
  }
}

}  // namespace

Grid exactGrid(const Grid& grid, const StripSettings& settings) {
  return settings.resampleMm ? isotropicGrid(grid, *settings.resampleMm) : grid;
}

Stripped stripExactly(std::unique_ptr<Image> image, const Grid& grid, const StripSettings& settings,
                      const StripObserver& observer) {
  const Grid work = exactGrid(grid, settings);
  ExactRuns evolution(imageOnGrid(std::move(image), grid, work), work, settings.threads);
  pass(observer.checkpoint);
  Candidate chosen = settings.w5 ? *tryWeight(evolution, *settings.w5, work, settings, observer,
                                              [](const MaskBody&) { return true; })
                                 : chooseExactWeight(evolution, work, settings, observer);
  Stripped result;
  result.w5 = chosen.w5;
  result.levels = std::move(chosen.result.levels);
  result.mask = std::move(chosen.result.mask);
  std::vector<double>& phi = chosen.result.phi;
  if (settings.resampleMm) {
    result.mask = resampleMask(result.mask, work, grid);
    if (settings.phi) phi = resample(phi, work, grid);
  }
  result.judgement = judgeVolume(
      millilitres(double(std::count(result.mask.begin(), result.mask.end(), 1)), grid.spacing),
      settings.volumes);
  if (chosen.leaks) {
    result.judgement.flags.push_back({"leak", "the mask seems to leak out of the skull"});
    result.judgement.confidence *= 0.4;
  }
  result.phi.assign(phi.begin(), phi.end());
  return result;
}

}  // namespace tavrel::strip
