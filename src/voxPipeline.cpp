#include "voxPipeline.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>
#include <vector>

#include "vox2DLevelSet.h"
#include "vox3DLevelSet.h"

namespace {

constexpr int bandWidth = 2;
constexpr double volumeThreshold = 0.0002;  ///< convergence of a 3-D level
constexpr double sliceThreshold = 0.002;    ///< convergence of a slice

/// The ratio of computeratio, from the history alone.
double relativeChange(int i, const double* lt) {
  if (i < 2) return std::numeric_limits<double>::infinity();
  const double oneStep = lt[i - 1] - lt[i - 2];
  const double twoSteps = i > 2 ? lt[i - 1] - lt[i - 3] : oneStep;
  return std::abs(std::min(oneStep, twoSteps)) / lt[i - 1];
}

/// Evolves Phi until its inside count stops changing or `maxIterations` steps have been made.
/// onStep(iteration, inside, ratio, engine) is called after every step.
template <typename Engine, typename Function, typename OnStep>
void evolveFunction(Function& Phi, double inside, Function& image, const voxPara& P,
                    int maxIterations, double threshold, int threads,
                    typename Engine::Memory& memory, OnStep&& onStep) {
  std::vector<double> lt;
  memory.signsKnown = false;
  for (int i = 0; i < maxIterations; ++i) {
    Engine engine(memory, threads);
    engine.UpdatePhi(&Phi, bandWidth, &image, P.w1, P.w2, P.w3, P.w4, P.w5, P.w6, P.w7, &Phi);
    memory.signsKnown = true;  // nothing else writes to Phi until the next step
    if (engine.n_edge > 0) inside += memory.insideChange;
    lt.push_back(inside);
    const double ratio = relativeChange(i, lt.data());
    onStep(i, inside, ratio, engine);
    // Without an interface no later step changes anything.
    if ((i > 1 && ratio < threshold) || engine.n_edge == 0) return;
  }
}

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
  auto result = std::make_unique<vox3DMat<double, char>>(
      source.sizeX + P.Xn + P.Xp, source.sizeY + P.Yn + P.Yp, source.sizeZ + P.Zn + P.Zp);
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

/// Refines every plane of the mask on the input's own intensities.
void refineSlices(vox3DMat<char, double>& mask, vox3DMat<double, char>& input, const voxPara& P) {
  using Engine = vox2DLevelSet<double, char>;
  Engine::Memory memory;
  for (int j = 0; j < mask.sizeZ; ++j) {
    std::unique_ptr<vox2DMat<char, double>> VeC2(mask.getslice(j));
    const std::unique_ptr<vox2DMat<double, char>> VeI2(input.getslice(j));
    const std::unique_ptr<vox2DMat<double, char>> Phi2(VeC2->VeC2Phi());
    evolveFunction<Engine>(*Phi2, VeC2->Sum(), *VeI2, P, P.max_iter[0], sliceThreshold, 1, memory,
                           [](auto&&...) {});
    VeC2.reset(Phi2->Phi2VeC());
    mask.setslice(VeC2.get(), j);
  }
}

template <typename Mask>
double countAndCompare(int i, double* lt, Mask* mask) {
  lt[i] = mask->Sum();
  return relativeChange(i, lt);
}

}  // namespace

double computeratio(int i, double* lt, vox3DMat<char, double>* newVeC) {
  return countAndCompare(i, lt, newVeC);
}

double computeratio(int i, double* lt, vox2DMat<char, double>* newVeC) {
  return countAndCompare(i, lt, newVeC);
}

namespace tavrel {

void setupPipeline(voxPara& P, char* inputPath, char* maskPath, char* strippedPath, int format,
                   int sizeX, int sizeY, int sizeZ, double W5) {
  constexpr int byteFormat = 0;
  constexpr int noHalving = 0;
  constexpr int segDn = 2;
  constexpr double gamma = 1.0;
  constexpr double seedMin = 0.3, seedMax = 0.7;
  constexpr double w1 = 0.0, w2 = 0.0, w3 = 0.01, w4 = 1.0, w6 = 0.0, w7 = 0.0;
  constexpr int maxIter = 1000;
  P.setupBalloonParameters(inputPath, maskPath, strippedPath, format, byteFormat, format, sizeX,
                           sizeY, sizeZ, noHalving, noHalving, noHalving, segDn, gamma, seedMin,
                           seedMax, seedMin, seedMax, seedMin, seedMax, w1, w2, w3, w4, W5, w6, w7,
                           maxIter, maxIter, maxIter);
}

template <class T>
PreparedVolumes prepare(const vox3DMat<T, char>& input, const voxPara& P, std::ostream* report) {
  PreparedVolumes volumes;
  std::unique_ptr<vox3DMat<T, char>> finite;
  if (!allFinite(input)) finite = finiteCopy(input);
  auto work = filteredAndPadded(finite ? *finite : input, P);
  finite.reset();
  if (P.dnX != 0 || P.dnY != 0 || P.dnZ != 0) {
    work.reset(work->downsampleby2(P.dnX, P.dnY, P.dnZ, "min"));
  }
  work->Normalize(report);
  work->GammaAdjust(P.gamma);
  volumes.image = std::move(work);

  const auto& size = *volumes.image;
  volumes.mask = std::make_unique<vox3DMat<char, double>>(size.sizeX, size.sizeY, size.sizeZ);
  volumes.mask->setseed(P.seedxmin, P.seedxmax, P.seedymin, P.seedymax, P.seedzmin, P.seedzmax);
  volumes.mask->selfdownsampleby2(P.seg_dn, P.seg_dn, P.seg_dn, "simple");
  return volumes;
}

template PreparedVolumes prepare(const vox3DMat<double, char>&, const voxPara&, std::ostream*);
template PreparedVolumes prepare(const vox3DMat<float, char>&, const voxPara&, std::ostream*);
template PreparedVolumes prepare(const vox3DMat<short, char>&, const voxPara&, std::ostream*);
template PreparedVolumes prepare(const vox3DMat<unsigned char, char>&, const voxPara&,
                                 std::ostream*);

void evolve(PreparedVolumes& volumes, const voxPara& P, const EvolutionObserver& observer,
            int threads) {
  using Engine = vox3DLevelSet<double, char>;
  Engine::Memory memory;
  const int levels = P.levels();
  for (int level = 0; level < levels; ++level) {
    const int halvings = levels - 1 - level;
    std::unique_ptr<vox3DMat<double, char>> reduced;
    if (halvings > 0)
      reduced.reset(volumes.image->downsampleby2(halvings, halvings, halvings, "min"));
    vox3DMat<double, char>& image = reduced ? *reduced : *volumes.image;
    if (level > 0) volumes.mask->selfupsampleby2(1, 1, 1, "simple");
    const std::unique_ptr<vox3DMat<double, char>> Phi(volumes.mask->VeC2Phi());
    const double seeded = volumes.mask->Sum();
    volumes.mask.reset();
    evolveFunction<Engine>(
        *Phi, seeded, image, P, P.max_iter[level], volumeThreshold, threads, memory,
        [&](int i, double inside, double ratio, const Engine& engine) {
          if (observer.onStep) {
            observer.onStep({level, levels, i, inside, ratio, engine.n_edge, engine.n_nbt});
          }
        });
    volumes.mask.reset(Phi->Phi2VeC());
    if (observer.onLevel) observer.onLevel(level, *Phi);
  }
}

void finish(vox3DMat<char, double>& mask, vox3DMat<double, char>& input, const voxPara& P) {
  mask.selfupsampleby2(P.dnX, P.dnY, P.dnZ, "simple");
  mask.selfdeextension(P.Xn, P.Xp, P.Yn, P.Yp, P.Zn, P.Zp);
  if (P.dnX > 0 || P.dnY > 0 || P.dnZ > 0) refineSlices(mask, input, P);
  mask.imdilate3D("box", 1);
}

}  // namespace tavrel
