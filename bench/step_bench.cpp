// Times every stage of an evolution step, the whole step and the whole evolution, at three sizes:
// the plain loops of the tests against the shipped code. Prints one table and fails if any result
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
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "head.h"
#include "table.h"
#include "vox3DLevelSet.h"

namespace tavrel::bench {
namespace {

constexpr int kBandWidth = 2;
constexpr double kThreshold = 0.0002;  // convergence of an evolution

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

/// All that a step's stages leave in the fields that both engines have.
template <class Engine>
double digestOf(const Engine& engine) {
  const std::size_t n = engine.n_nbt;
  Digest digest;
  digest.add(&engine.ori_nbt_ind[0], n);
  digest.add(&engine.ori_nbt_sub[0], 3 * n);
  digest.add(&engine.Spar_exact[0], 3 * (n + 2));
  digest.add(&engine.Spar_sdf[0], n + 2);
  digest.add(&engine.Spar_F[0], n + 1);
  digest.add(&engine.Spar_Fext[0], n + 2);
  return digest.value();
}

/// The stages by plain loops.
class PlainStep {
 public:
  static constexpr const char* variant = "plain";
  static constexpr int repetitions = 3;

  explicit PlainStep(Head& head) : function_(head.function()), image_(toGrid(head.image())) {}
  void start() { Phi_ = function_, engine_ = {}, sums_.clear(); }
  void band() { engine_.LabelEdges(Phi_), engine_.Labelnbt(kBandWidth, Phi_); }
  void distance() { engine_.sFindEdgeExact(), engine_.sFindUsdf(); }
  void curvature() { engine_.sFindF(image_, {.w3 = 0.01}); }
  void regionSums() {
    const Grid grid{image_.size[0], image_.size[1], image_.size[2]};
    const auto* label = reinterpret_cast<const char*>(engine_.label.p.data());
    for (int i = 0; i < engine_.n_edge; ++i) {
      sums_.push_back(plainRegionSums(image_.p.data(), label, grid, engine_.ori_nbt_ind[i]));
    }
  }
  void extension() { engine_.sFindEdgeFext(), engine_.sCalFext(0, Phi_); }
  void step() { engine_.UpdatePhi(Phi_, kBandWidth, image_, {.w3 = 0.01, .w4 = 1, .w5 = 1}, Phi_); }

  int interfaceVoxels() const { return engine_.n_edge; }
  double digest() const {
    Digest digest;
    digest.add(Phi_.p.data(), Phi_.p.size());
    digest.add(sums_.data(), sums_.size());
    return digestOf(engine_) + digest.value();
  }

 private:
  const PlainGrid& function_;
  PlainGrid image_, Phi_;
  plain::LevelSet<3> engine_;
  std::vector<RegionSums> sums_;
};

/// The shipped stages. As in an evolution, the memory serves one step after another.
class ShippedStep {
 public:
  static constexpr const char* variant = "shipped";
  static constexpr int repetitions = 5;

  explicit ShippedStep(Head& head)
      : function_(head.function()), image_(head.image().duplicate()), Phi_(toImage(function_)) {}
  void start() {
    std::copy(function_.p.begin(), function_.p.end(), Phi_->p);
    engine_.emplace(memory_);
    sums_.clear();
  }
  void band() { engine_->Initialize(Phi_.get(), kBandWidth); }
  void distance() { engine_->sFindEdgeExact(), engine_->sFindUsdf(); }
  void curvature() { engine_->sFindF(image_.get(), 0, 0, 0.01, 0, 0, 0, 0); }
  void regionSums(InstructionSet set) {
    sums_.resize(engine_->n_edge);
    memory_.regions.sum(image_->p, engine_->label->p, {image_->sizeX, image_->sizeY, image_->sizeZ},
                        {engine_->ori_nbt_ind, sums_.size()}, sums_, 1, set);
  }
  void extension() { engine_->sFindEdgeFext(), engine_->sCalFext(0, Phi_.get()); }
  void step() {
    engine_->UpdatePhi(Phi_.get(), kBandWidth, image_.get(), 0, 0, 0.01, 1, 1, 0, 0, Phi_.get());
  }

  int interfaceVoxels() const { return engine_->n_edge; }
  double digest() const {
    Digest digest;
    digest.add(Phi_->p, function_.p.size());
    digest.add(sums_.data(), sums_.size());
    return digestOf(*engine_) + digest.value();
  }

 private:
  const PlainGrid& function_;
  std::unique_ptr<Image> image_, Phi_;
  vox3DLevelSet<double, char>::Memory memory_;
  std::optional<vox3DLevelSet<double, char>> engine_;
  std::vector<RegionSums> sums_;
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
    const PlainGrid image = toGrid(*reduced);
    PlainGrid Phi = toGrid(*std::unique_ptr<Image>(volumes.mask->VeC2Phi()));
    std::vector<double> counts(P.max_iter[level]);
    for (int i = 0; i < P.max_iter[level]; ++i) {
      plain::LevelSet<3> engine;
      engine.UpdatePhi(Phi, kBandWidth, image, {.w3 = P.w3, .w4 = P.w4, .w5 = P.w5}, Phi);
      voxels += engine.n_edge;
      volumes.mask.reset(toImage(Phi)->Phi2VeC());
      if (computeratio(i, counts.data(), volumes.mask.get()) < kThreshold) break;
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
