#include "stripping.h"

#include <algorithm>
#include <chrono>

#include "interrupt.h"

namespace tavrel::nifti {
namespace {

using Clock = std::chrono::steady_clock;

std::span<const double> voxels(const Image& image) {
  return {image.p, std::size_t(image.mxn) * std::size_t(image.sizeZ)};
}

std::unique_ptr<Image> imageOnGrid(std::unique_ptr<Image> image, const Grid& from, const Grid& to) {
  if (from.size == to.size && from.spacing == to.spacing) return image;
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

/// A prepared image that can be evolved several times.
class Evolution {
 public:
  Evolution(std::unique_ptr<Image> image, const Size& size, int threads) : threads_(threads) {
    char none[] = "";
    setupPipeline(P_, none, none, none, 3, size[0], size[1], size[2], 0);
    volumes_ = prepare(*image, P_);
    seed_.reset(volumes_.mask->duplicate());
  }

  struct Result {
    std::vector<char> mask;
    std::vector<double> phi;
    std::vector<LevelRecord> levels;
  };

  Result run(double w5, bool wantPhi, const StripObserver& observer) {
    Result result;
    P_.w5 = w5;
    volumes_.mask.reset(seed_->duplicate());
    auto start = Clock::now();
    LevelRecord record;
    EvolutionObserver watch;
    watch.onStep = [&](const StepReport& step) {
      checkInterrupted();
      record.iterations = step.iteration + 1;
      record.inside = step.inside;
      if (observer.onStep) observer.onStep(step);
    };
    watch.onLevel = [&](int level, Image& phi) {
      record.size = {phi.sizeX, phi.sizeY, phi.sizeZ};
      record.seconds = std::chrono::duration<double>(Clock::now() - start).count();
      start = Clock::now();
      result.levels.push_back(std::exchange(record, {}));
      if (observer.onLevel) observer.onLevel(level, result.levels.back());
      if (wantPhi && level == P_.seg_dn) result.phi = withoutPadding(phi, P_);
    };
    evolve(volumes_, P_, watch, threads_);
    Image noImage;  // the slices are refined only where the evolution ran on a coarser grid
    finish(*volumes_.mask, noImage, P_);
    result.mask.assign(volumes_.mask->p,
                       volumes_.mask->p + voxelCount({P_.sizeX, P_.sizeY, P_.sizeZ}));
    return result;
  }

 private:
  voxPara P_;
  PreparedVolumes volumes_;
  std::unique_ptr<vox3DMat<char, double>> seed_;
  int threads_;
};

}  // namespace

Stripped stripScan(std::unique_ptr<Image> image, const Grid& grid, const StripSettings& settings,
                   const StripObserver& observer) {
  Stripped result;
  result.grid = settings.resampleMm ? isotropicGrid(grid, *settings.resampleMm) : grid;
  result.w5 = settings.w5.value_or(1.0);
  Evolution evolution(imageOnGrid(std::move(image), grid, result.grid), result.grid.size,
                      settings.threads);
  checkInterrupted();
  if (observer.onRun) observer.onRun(result.w5, false);
  auto evolved = evolution.run(result.w5, settings.phi, observer);
  result.levels = std::move(evolved.levels);
  result.mask = std::move(evolved.mask);
  if (settings.finish)
    finishMask(result.mask, result.grid.size, result.grid.spacing, *settings.finish);
  if (settings.resampleMm) result.mask = resampleMask(result.mask, result.grid, grid);
  if (settings.phi) {
    if (settings.resampleMm) evolved.phi = resample(evolved.phi, result.grid, grid);
    result.phi.assign(evolved.phi.begin(), evolved.phi.end());
  }
  return result;
}

}  // namespace tavrel::nifti
