#include "voxPipeline.h"

#include <array>
#include <cmath>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "exact/step.h"
#include "vox2DLevelSet.h"

namespace tavrel {
namespace {

constexpr int bandWidth = 2;
constexpr double sliceThreshold = 0.002;  ///< convergence of a slice

/// The ratio of computeratio, from the history alone.
double relativeChange(int i, const double* lt) {
  if (i < 2) return std::numeric_limits<double>::infinity();
  const double oneStep = lt[i - 1] - lt[i - 2];
  const double twoSteps = i > 2 ? lt[i - 1] - lt[i - 3] : oneStep;
  return std::abs(std::min(oneStep, twoSteps)) / lt[i - 1];
}

/// Makes steps until the inside count stops changing or `limit` of them have been made. `step`
/// makes one and returns what it did, `onStep(iteration, inside, ratio, result)` is told of it.
template <typename Step, typename OnStep>
void stepUntilSteady(double inside, int limit, double threshold, Step&& step, OnStep&& onStep) {
  std::vector<double> lt;
  for (int i = 0; i < limit; ++i) {
    const exact::StepResult result = step();
    inside += result.insideChange;
    lt.push_back(inside);
    const double ratio = relativeChange(i, lt.data());
    onStep(i, inside, ratio, result);
    // Without an interface no later step changes anything.
    if ((i > 1 && ratio < threshold) || result.n_edge == 0) return;
  }
}

int iterationLimit(const voxPara& P, int level) {
  return P.max_iter && level < P.levels() ? P.max_iter[level] : 0;
}

// ---- sizes -------------------------------------------------------------------------------------

using Sizes = std::array<std::int64_t, 3>;

template <class Volume>
Sizes sizesOf(const Volume& volume) {
  return {volume.sizeX, volume.sizeY, volume.sizeZ};
}

Sizes inputSizes(const voxPara& P) { return {P.sizeX, P.sizeY, P.sizeZ}; }

std::string text(const Sizes& s) {
  return std::to_string(s[0]) + " x " + std::to_string(s[1]) + " x " + std::to_string(s[2]);
}

void requireSizes(const char* what, const Sizes& got, const Sizes& wanted) {
  if (got == wanted) return;
  throw std::invalid_argument(std::string(what) + " has " + text(got) + " voxels instead of " +
                              text(wanted));
}

/// Halves a size `times` times.
std::int64_t halved(std::int64_t size, int times) {
  const std::int64_t part = std::int64_t{1} << std::clamp(times, 0, 32);
  if (size % part == 0) return size / part;
  throw std::invalid_argument("a size of " + std::to_string(size) + " voxels cannot be halved " +
                              std::to_string(times) + " times");
}

Sizes halved(const Sizes& size, const std::array<int, 3>& times) {
  return {halved(size[0], times[0]), halved(size[1], times[1]), halved(size[2], times[2])};
}

/// The input's sizes with the padding.
Sizes paddedSizes(const voxPara& P) {
  const Sizes size{std::int64_t{P.sizeX} + P.Xn + P.Xp, std::int64_t{P.sizeY} + P.Yn + P.Yp,
                   std::int64_t{P.sizeZ} + P.Zn + P.Zp};
  if (std::min({P.Xn, P.Xp, P.Yn, P.Yp, P.Zn, P.Zp}) < 0)
    throw std::invalid_argument("a padding is negative");
  long double voxels = 1;  // a size of 0 does not make room for the others
  for (const std::int64_t s : size) voxels *= static_cast<long double>(std::max<std::int64_t>(s, 1));
  if (voxels > Pyramid::mostVoxels)
    throw std::length_error("a padded volume of " + text(size) + " voxels is too large");
  return size;
}

/// The sizes of the finest level, at which the evolution ends.
Sizes preparedSizes(const voxPara& P) { return halved(paddedSizes(P), {P.dnX, P.dnY, P.dnZ}); }

// ---- preparation -------------------------------------------------------------------------------

template <class T>
bool allFinite(const vox3DMat<T, char>& volume) {
  if constexpr (std::is_integral_v<T>) return true;
  const std::size_t count = static_cast<std::size_t>(volume.mxn) * volume.sizeZ;
  return std::all_of(volume.p, volume.p + count, [](T v) { return std::isfinite(v); });
}

template <class T>
std::unique_ptr<vox3DMat<T, char>> finiteCopy(const vox3DMat<T, char>& volume) {
  std::unique_ptr<vox3DMat<T, char>> copy(volume.duplicate());
  const std::size_t count = static_cast<std::size_t>(copy->mxn) * copy->sizeZ;
  std::replace_if(
      copy->p, copy->p + count, [](T v) { return !std::isfinite(v); }, T{0});
  return copy;
}

/// The minimum-filtered volume with its padding, row by row, so that nothing else of its size is
/// needed.
template <class T>
std::unique_ptr<vox3DMat<double, char>> filteredAndPadded(const vox3DMat<T, char>& source,
                                                          const voxPara& P) {
  const Sizes size = paddedSizes(P);
  auto result = std::make_unique<vox3DMat<double, char>>(
      static_cast<int>(size[0]), static_cast<int>(size[1]), static_cast<int>(size[2]));
  double* row = result->p;
  for (int k = -P.Zn; k < source.sizeZ + P.Zp; ++k) {
    for (int j = -P.Yn; j < source.sizeY + P.Yp; ++j, row += result->sizeX) {
      std::fill_n(row, result->sizeX, 0.0);
      const bool inside = k >= 0 && k < source.sizeZ && j >= 0 && j < source.sizeY;
      if (inside) source.filterRow(j, k, row + P.Xn);
    }
  }
  return result;
}

// ---- last stage --------------------------------------------------------------------------------

/// Brings an evolved mask to the input's grid, if it is not there yet.
void restoreGrid(vox3DMat<char, double>& mask, const voxPara& P) {
  if (sizesOf(mask) == inputSizes(P)) return;
  requireSizes("the mask", sizesOf(mask), preparedSizes(P));
  mask.selfupsampleby2(P.dnX, P.dnY, P.dnZ, "simple");
  mask.selfdeextension(P.Xn, P.Xp, P.Yn, P.Yp, P.Zn, P.Zp);
}

/// Evolves the mask of one slice.
std::unique_ptr<vox2DMat<char, double>> refined(const vox2DMat<char, double>& mask,
                                                vox2DMat<double, char>& image, const voxPara& P) {
  const std::unique_ptr<vox2DMat<double, char>> Phi(mask.VeC2Phi());
  double inside = mask.Sum();
  const auto step = [&]() -> exact::StepResult {
    vox2DLevelSet<double, char> ls;
    ls.UpdatePhi(Phi.get(), bandWidth, &image, P.w1, P.w2, P.w3, P.w4, P.w5, P.w6, P.w7, Phi.get());
    const std::unique_ptr<vox2DMat<char, double>> after(Phi->Phi2VeC());
    const double before = std::exchange(inside, after->Sum());
    return {ls.n_edge, ls.n_nbt, static_cast<int>(inside - before)};
  };
  stepUntilSteady(inside, iterationLimit(P, 0), sliceThreshold, step, [](auto&&...) {});
  return std::unique_ptr<vox2DMat<char, double>>(Phi->Phi2VeC());
}

}  // namespace

void setupPipeline(voxPara& P, char* inputPath, char* maskPath, char* strippedPath, int format,
                   int sizeX, int sizeY, int sizeZ, double W5) {
  constexpr int byteFormat = 0;
  constexpr int noHalving = 0;
  constexpr double gamma = 1.0;
  constexpr double seedMin = 0.3, seedMax = 0.7;
  constexpr double w1 = 0.0, w2 = 0.0, w3 = 0.01, w4 = 1.0, w6 = 0.0, w7 = 0.0;
  constexpr int maxIter = 1000;
  P.setupBalloonParameters(inputPath, maskPath, strippedPath, format, byteFormat, format, sizeX,
                           sizeY, sizeZ, noHalving, noHalving, noHalving, Pyramid::halvings, gamma,
                           seedMin, seedMax, seedMin, seedMax, seedMin, seedMax, w1, w2, w3, w4, W5,
                           w6, w7, maxIter, maxIter, maxIter);
}

template <class T>
PreparedVolumes prepare(const vox3DMat<T, char>& input, const voxPara& P, std::ostream* report) {
  requireSizes("the input", sizesOf(input), inputSizes(P));
  const int halvings = P.levels() - 1;
  halved(preparedSizes(P), {halvings, halvings, halvings});
  PreparedVolumes volumes;
  std::unique_ptr<vox3DMat<T, char>> finite;
  if (!allFinite(input)) finite = finiteCopy(input);
  auto work = filteredAndPadded(finite ? *finite : input, P);
  finite.reset();
  // The matrix would refuse counts so far below 0 that the power of two vanishes.
  const int dnX = std::max(P.dnX, 0), dnY = std::max(P.dnY, 0), dnZ = std::max(P.dnZ, 0);
  if (dnX > 0 || dnY > 0 || dnZ > 0) work.reset(work->downsampleby2(dnX, dnY, dnZ, "min"));
  work->Normalize(report);
  work->GammaAdjust(P.gamma);
  volumes.image = std::move(work);

  const auto& size = *volumes.image;
  volumes.mask = std::make_unique<vox3DMat<char, double>>(size.sizeX, size.sizeY, size.sizeZ);
  volumes.mask->setseed(P.seedxmin, P.seedxmax, P.seedymin, P.seedymax, P.seedzmin, P.seedzmax);
  volumes.mask->selfdownsampleby2(halvings, halvings, halvings, "simple");
  return volumes;
}

template PreparedVolumes prepare(const vox3DMat<double, char>&, const voxPara&, std::ostream*);
template PreparedVolumes prepare(const vox3DMat<float, char>&, const voxPara&, std::ostream*);
template PreparedVolumes prepare(const vox3DMat<short, char>&, const voxPara&, std::ostream*);
template PreparedVolumes prepare(const vox3DMat<unsigned char, char>&, const voxPara&,
                                 std::ostream*);

void evolve(PreparedVolumes& volumes, const voxPara& P, const EvolutionObserver& observer,
            int threads) {
  if (!volumes.image || !volumes.mask) throw std::invalid_argument("nothing to evolve");
  const int levels = P.levels();
  const Sizes finest = sizesOf(*volumes.image);
  requireSizes("the mask", sizesOf(*volumes.mask),
               halved(finest, {levels - 1, levels - 1, levels - 1}));
  exact::Workspace memory;
  for (int level = 0; level < levels; ++level) {
    const int halvings = levels - 1 - level;
    std::unique_ptr<vox3DMat<double, char>> reduced;
    if (halvings > 0)
      reduced.reset(volumes.image->downsampleby2(halvings, halvings, halvings, "min"));
    const vox3DMat<double, char>& image = reduced ? *reduced : *volumes.image;
    if (level > 0) volumes.mask->selfupsampleby2(1, 1, 1, "simple");
    const std::unique_ptr<vox3DMat<double, char>> Phi(volumes.mask->VeC2Phi());
    const double seeded = volumes.mask->Sum();
    volumes.mask.reset();
    {
      exact::Level steps(Phi->p, image.p, {image.sizeX, image.sizeY, image.sizeZ}, memory, threads,
                         bandWidth);
      stepUntilSteady(
          seeded, iterationLimit(P, level), Pyramid::threshold,
          [&] {
            return steps.step({P.w1, P.w3, P.w4, P.w5, P.w7});
          },
          [&](int i, double inside, double ratio, const exact::StepResult& result) {
            if (observer.onStep)
              observer.onStep({level, levels, i, inside, ratio, result.n_edge, result.n_nbt});
          });
    }
    volumes.mask.reset(Phi->Phi2VeC());
    if (observer.onLevel) observer.onLevel(level, *Phi);
  }
}

void refineSlices(vox3DMat<char, double>& mask, const vox3DMat<double, char>& input,
                  const voxPara& P) {
  requireSizes("the input", sizesOf(input), inputSizes(P));
  restoreGrid(mask, P);
  if (mask.mxn == 0) return;
  for (int j = 0; j < mask.sizeZ; ++j) {
    const std::unique_ptr<vox2DMat<char, double>> VeC2(mask.getslice(j));
    const std::unique_ptr<vox2DMat<double, char>> VeI2(input.getslice(j));
    mask.setslice(refined(*VeC2, *VeI2, P).get(), j);
  }
}

void finish(vox3DMat<char, double>& mask, const voxPara& P) {
  restoreGrid(mask, P);
  mask.imdilate3D("box", 1);
}

}  // namespace tavrel

double computeratio(int i, double* lt, vox3DMat<char, double>* newVeC) {
  lt[i] = newVeC->Sum();
  return tavrel::relativeChange(i, lt);
}

double computeratio(int i, double* lt, vox2DMat<char, double>* newVeC) {
  lt[i] = newVeC->Sum();
  return tavrel::relativeChange(i, lt);
}
