// Times every stage of an evolution step, the whole step and the whole evolution, at three sizes:
// the plain classes against the code that runs. Prints one table and fails if any result
// differs in a bit. Times are processor time; those named "elapsed" are the clock's, since they
// compare thread counts.
//
// step_bench [--quick] [GOOGLE BENCHMARK OPTION...]
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "exact/step.h"
#include "head.h"
#include "table.h"
#include "vox3DLevelSet.h"

namespace tavrel::bench {
namespace {

constexpr int kBandWidth = 2;

/// The phantom of a size. Only the last one is kept; benchmarks are ordered by size.
Head& headOf(int x) {
  static std::optional<Head> head;
  static int size = 0;
  if (size != x) {
    head.emplace(x);
    size = x;
  }
  return *head;
}

/// Seconds of processor time or of the clock on the wall.
double seconds(bool wall) {
  if (!wall) return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// Runs f once and returns the seconds it took.
template <class F>
double secondsOf(bool wall, F f) {
  const double begin = seconds(wall);
  f();
  return seconds(wall) - begin;
}

/// A digest of bytes that a double holds exactly.
class Digest {
 public:
  template <class T>
  void add(const T* first, std::size_t count) {
    const std::string_view bytes(reinterpret_cast<const char*>(first), count * sizeof(T));
    value_ = (value_ * 31 + std::hash<std::string_view>()(bytes)) % (std::size_t{1} << 52);
  }
  double value() const { return static_cast<double>(value_); }

 private:
  std::size_t value_ = 0;
};

exact::Grid gridOf(const Image& image) { return {image.sizeX, image.sizeY, image.sizeZ}; }

/// All that a step's stages leave.
double digestOf(const exact::Band& band, const Image& Phi,
                std::span<const exact::RegionSums> sums) {
  const std::size_t n = band.n_nbt;
  Digest digest;
  digest.add(band.ind, n);
  digest.add(band.sub, 3 * n);
  digest.add(band.exact, 3 * (n + 2));
  digest.add(band.usdf, n + 2);
  digest.add(band.F, n + 1);
  digest.add(Phi.p, static_cast<std::size_t>(Phi.mxn) * Phi.sizeZ);
  digest.add(sums.data(), sums.size());
  return digest.value();
}

/// The stages of the plain class.
class PlainStep {
 public:
  static constexpr const char* variant = "plain";
  static constexpr int repetitions = 3;

  explicit PlainStep(Head& head) : function_(head.function()), image_(head.image().duplicate()) {}
  void start() {
    Phi_.reset(function_.duplicate());
    e_.emplace();
    sums_.clear();
  }
  void band() { e_->Initialize(Phi_.get(), kBandWidth); }
  void distance() { e_->sFindEdgeExact(), e_->sFindUsdf(); }
  void curvature() { e_->sFindF(image_.get(), 0, 0, 0.01, 0, 0, 0, 0); }
  void regionSums() {
    for (int i = 0; i < e_->n_edge; ++i) {
      sums_.push_back(
          exact::plainRegionSums(image_->p, e_->label->p, gridOf(*image_), e_->ori_nbt_ind[i]));
    }
  }
  void extension() { e_->sFindEdgeFext(), e_->sCalFext(0, Phi_.get()); }
  void step() {
    e_->UpdatePhi(Phi_.get(), kBandWidth, image_.get(), 0, 0, 0.01, 1, 1, 0, 0, Phi_.get());
  }

  int interfaceVoxels() const { return e_->n_edge; }
  double digest() const {
    exact::Band b;
    b.n_nbt = e_->n_nbt;
    b.ind = e_->ori_nbt_ind;
    b.sub = e_->ori_nbt_sub;
    b.exact = e_->Spar_exact;
    b.usdf = e_->Spar_usdf;
    b.F = e_->Spar_F;
    return digestOf(b, *Phi_, sums_);
  }

 private:
  const Image& function_;
  std::unique_ptr<Image> image_, Phi_;
  std::optional<vox3DLevelSet<double, char>> e_;
  std::vector<exact::RegionSums> sums_;
};

/// The stages that run. As in an evolution, the memory serves one step after another.
class ShippedStep {
 public:
  static constexpr const char* variant = "shipped";
  static constexpr int repetitions = 5;

  explicit ShippedStep(Head& head)
      : function_(head.function()), image_(head.image()), Phi_(function_.duplicate()) {}
  void start() {
    std::copy_n(function_.p, static_cast<std::size_t>(Phi_->mxn) * Phi_->sizeZ, Phi_->p);
    level_.emplace(Phi_->p, image_.p, gridOf(image_), memory_);
    sums_.clear();
  }
  void band() {
    band_ = level_->findBand();
    // What the next stages of a step write before they read it counts for the digest alone.
    std::fill_n(band_.F, band_.n_edge, 0.0);
    std::fill_n(band_.usdf, band_.n_edge, exact::unknownDistance);
    std::fill_n(band_.exact, 3 * band_.n_edge, exact::unknownDistance);
  }
  void distance() { level_->findEdgePoints(band_), level_->findDistances(band_, false); }
  void curvature() { level_->findSpeed(band_, {.w3 = 0.01}, {}); }
  void regionSums(InstructionSet set) {
    sums_.resize(band_.n_edge);
    memory_.regions.sum(image_.p, level_->sides().data(), gridOf(image_), {band_.ind, sums_.size()},
                        sums_, 1, set);
  }
  void extension() { level_->extendSpeed(band_, 0); }
  void step() {
    band_ = level_->findBand();
    level_->findEdgePoints(band_);
    const exact::Weights weights{.w3 = 0.01, .w4 = 1, .w5 = 1};
    const auto sums = level_->findDistances(band_, true);
    level_->findSpeed(band_, weights, sums);
    level_->extendSpeed(band_, 0);
    level_->advance(band_);
  }

  int interfaceVoxels() const { return band_.n_edge; }
  double digest() const { return digestOf(band_, *Phi_, sums_); }

 private:
  const Image& function_;
  const Image& image_;
  std::unique_ptr<Image> Phi_;
  exact::Workspace memory_;
  std::optional<exact::Level> level_;
  exact::Band band_;
  std::vector<exact::RegionSums> sums_;
};

/// Registers a benchmark. Each of its iterations calls `iteration(state)` on what `make(head)`
/// returns, which gives the seconds of its timed part; of all iterations the fastest is reported.
template <class Make, class Iteration>
void add(const std::string& stage, int x, const std::string& variant, int iterations, Make make,
         Iteration iteration) {
  const std::string name = stage + '/' + sizesOf(x) + '/' + variant;
  benchmark::RegisterBenchmark(name.c_str(),
                               [=](benchmark::State& state) {
                                 auto subject = make(headOf(x));
                                 double best = std::numeric_limits<double>::infinity();
                                 for (auto _ : state) {
                                   const double taken = iteration(*subject);
                                   best = std::min(best, taken);
                                   state.SetIterationTime(taken);
                                 }
                                 state.counters["best_ms"] = 1000 * best;
                                 state.counters["voxels"] = subject->interfaceVoxels();
                                 state.counters["result"] = subject->digest();
                               })
      ->UseManualTime()
      ->Iterations(iterations)
      ->Unit(benchmark::kMillisecond);
}

/// Times one stage of a step; `before` brings the engine to where the stage starts.
template <class Step, class Before, class Stage>
void addStage(const std::string& name, int x, Before before, Stage stage,
              const std::string& variant = Step::variant) {
  add(
      name, x, variant, Step::repetitions, [](Head& head) { return std::make_unique<Step>(head); },
      [=](Step& step) {
        step.start();
        before(step);
        return secondsOf(false, [&] { stage(step); });
      });
}

constexpr auto nothing = [](auto&) {};
constexpr auto band = [](auto& step) { step.band(); };
constexpr auto bandAndDistance = [](auto& step) { step.band(), step.distance(); };
constexpr auto speedless = [](auto& step) { step.band(), step.distance(), step.curvature(); };

template <class Step>
void addRegionSums(int x);

template <>
void addRegionSums<PlainStep>(int x) {
  addStage<PlainStep>("region sums", x, band, [](PlainStep& step) { step.regionSums(); });
}

template <>
void addRegionSums<ShippedStep>(int x) {
  for (const auto& [set, name] : {std::pair{InstructionSet::portable, "portable"},
                                  {InstructionSet::avx2, "AVX2"},
                                  {InstructionSet::avx512, "AVX-512"}}) {
    if (set > widestInstructionSet()) continue;
    addStage<ShippedStep>(
        "region sums", x, band, [set = set](ShippedStep& step) { step.regionSums(set); }, name);
  }
}

void addStages(int x) {
  const auto both = [x](const char* name, auto before, auto stage) {
    addStage<PlainStep>(name, x, before, stage);
    addStage<ShippedStep>(name, x, before, stage);
  };
  both("labels and band", nothing, band);
  both("edge points and sweeps", band, [](auto& step) { step.distance(); });
  both("curvature", bandAndDistance, [](auto& step) { step.curvature(); });
  addRegionSums<PlainStep>(x);
  addRegionSums<ShippedStep>(x);
  both("extension", speedless, [](auto& step) { step.extension(); });
  both("whole step", nothing, [](auto& step) { step.step(); });
}

/// The evolution stage with plain steps; returns the interface voxels of all of them.
double evolvePlainly(PreparedVolumes& volumes, const voxPara& P) {
  double voxels = 0;
  for (int level = 0; level <= P.seg_dn; ++level) {
    std::unique_ptr<Image> reduced(volumes.image->duplicate());
    for (int halving = level; halving < P.seg_dn; ++halving) {
      reduced.reset(reduced->downsampleby2(1, 1, 1, "min"));
    }
    if (level > 0) volumes.mask->selfupsampleby2(1, 1, 1, "simple");
    const std::unique_ptr<Image> Phi(volumes.mask->VeC2Phi());
    std::vector<double> counts(P.max_iter[level]);
    for (int i = 0; i < P.max_iter[level]; ++i) {
      vox3DLevelSet<double, char> e;
      e.UpdatePhi(Phi.get(), kBandWidth, reduced.get(), P.w1, 0, P.w3, P.w4, P.w5, 0, 0, Phi.get());
      voxels += e.n_edge;
      volumes.mask.reset(Phi->Phi2VeC());
      if (computeratio(i, counts.data(), volumes.mask.get()) < Pyramid::threshold) break;
    }
  }
  return voxels;
}

double evolveShipped(PreparedVolumes& volumes, const voxPara& P, int threads) {
  double voxels = 0;
  const auto count = [&](const StepReport& step) { voxels += step.n_edge; };
  evolve(volumes, P, {.onStep = count, .onLevel = {}}, threads);
  return voxels;
}

/// The evolution stage from prepared volumes on.
class Evolution {
 public:
  explicit Evolution(const Head& head) : head_(head) {}

  template <class Evolve>
  double seconds(bool wall, Evolve run) {
    volumes_ = head_.prepared();
    return secondsOf(wall, [&] { voxels_ = run(volumes_, head_.settings()); });
  }
  double interfaceVoxels() const { return voxels_; }
  double digest() const {
    Digest digest;
    digest.add(volumes_.mask->p,
               static_cast<std::size_t>(volumes_.mask->mxn) * volumes_.mask->sizeZ);
    return digest.value();
  }

 private:
  const Head& head_;
  PreparedVolumes volumes_;
  double voxels_ = 0;
};

void addEvolutions(int x) {
  const auto addOne = [x](const char* stage, const char* variant, int times, bool wall, auto run) {
    add(
        stage, x, variant, times, [](Head& head) { return std::make_unique<Evolution>(head); },
        [=](Evolution& evolution) { return evolution.seconds(wall, run); });
  };
  const auto shipped = [](int threads) {
    return [threads](auto& volumes, auto& P) { return evolveShipped(volumes, P, threads); };
  };
  addOne("evolution", "plain", 1, false, evolvePlainly);
  addOne("evolution", "shipped", 2, false, shipped(1));
  addOne("evolution, elapsed", "1 thread", 3, true, shipped(1));
  addOne("evolution, elapsed", "2 threads", 3, true, shipped(2));
}

}  // namespace
}  // namespace tavrel::bench

int main(int argc, char** argv) {
  using namespace tavrel::bench;
  benchmark::Initialize(&argc, argv);
  const bool quick = argc > 1 && std::string_view(argv[1]) == "--quick";
  if (argc > 1 + quick) {
    std::fprintf(stderr, "usage: %s [--quick] [GOOGLE BENCHMARK OPTION...]\n", argv[0]);
    return 1;
  }
  const std::vector<int> sizes = quick ? std::vector{45} : std::vector{45, 90, 181};
  for (const int x : sizes) addStages(x);
  addEvolutions(sizes.back());
  TableReporter table;
  benchmark::RunSpecifiedBenchmarks(&table);
  return table.allSame() ? 0 : 1;
}
