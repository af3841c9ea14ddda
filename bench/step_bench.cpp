// Times every stage of one evolution step at the three sizes of a head's levels: the plain loops of
// the tests against the shipped engine. Names are STAGE/ENGINE/X; scripts/bench makes a table.
#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <map>
#include <string>

#include "phantom.h"
#include "plain_engine.h"
#include "vox3DLevelSet.h"

namespace {

using tavrel::plain::Grid;

constexpr std::array<const char*, 5> kStages{"band", "distance", "speed", "extension", "update"};
constexpr double kCurvatureWeight = 0.01, kInsideWeight = 1, kOutsideWeight = 1;
using Times = std::array<double, kStages.size()>;

/// A phantom's image, and a level-set function with the interface on its brain.
struct Problem {
  Grid<double> image, Phi;

  static const Problem& ofSize(int x) {
    static std::map<int, Problem> made;
    const auto [place, isNew] = made.try_emplace(x);
    if (isNew) {
      const int y = x * 220 / 184;
      tavrel::Phantom phantom = tavrel::makePhantom(x, y, x);
      Grid<double>& image = place->second.image = Grid<double>({x, y, x});
      Grid<double>& Phi = place->second.Phi = Grid<double>({x, y, x});
      image.p = std::move(phantom.image);
      for (double& v : image.p) v = std::max(v, 0.0);
      for (std::size_t n = 0; n < Phi.p.size(); ++n) Phi.p[n] = 0.5 - phantom.brain[n];
    }
    return place->second;
  }
};

/// Seconds of each of the given stages, run one after another.
template <class... Stages>
Times timed(Stages... stages) {
  Times times{};
  int n = 0;
  const auto time = [&](auto& stage) {
    const auto start = std::chrono::steady_clock::now();
    stage();
    times[n++] = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  (time(stages), ...);
  return times;
}

/// One step of the plain loops, run once a size: they are slow.
Times plainStep(const Problem& problem) {
  static std::map<int, Times> known;
  const auto [place, isNew] = known.try_emplace(problem.Phi.size[0]);
  if (!isNew) return place->second;
  tavrel::plain::LevelSet<3> engine;
  Grid<double> Phi = problem.Phi;
  return place->second = timed(
             [&] { engine.LabelEdges(Phi), engine.Labelnbt(2, Phi); },
             [&] { engine.sFindEdgeExact(), engine.sFindUsdf(); },
             [&] {
               engine.sFindF(problem.image,
                             {.w3 = kCurvatureWeight, .w4 = kInsideWeight, .w5 = kOutsideWeight});
             },
             [&] { engine.sFindEdgeFext(), engine.sCalFext(0, Phi); },
             [&] { engine.SubstractPhi(Phi); });
}

using Matrix = vox3DMat<double, char>;

void copyTo(Matrix& matrix, const Grid<double>& grid) {
  std::copy(grid.p.begin(), grid.p.end(), matrix.p);
}

/// One step of the shipped engine. As in an evolution, its memory serves one step after another.
Times shippedStep(const Problem& problem) {
  static vox3DLevelSet<double, char>::Memory memory;
  const auto [x, y, z] = problem.Phi.size;
  Matrix image(x, y, z), Phi(x, y, z);
  copyTo(image, problem.image);
  copyTo(Phi, problem.Phi);
  vox3DLevelSet<double, char> engine(memory);
  return timed(
      [&] { engine.Initialize(&Phi, 2); }, [&] { engine.sFindEdgeExact(), engine.sFindUsdf(); },
      [&] { engine.sFindF(&image, 0, 0, kCurvatureWeight, kInsideWeight, kOutsideWeight, 0, 0); },
      [&] { engine.sFindEdgeFext(), engine.sCalFext(0, &Phi); },
      [&] { engine.SubstractPhi(&Phi); });
}

void timeStage(benchmark::State& state, Times (*step)(const Problem&), std::size_t stage, int x) {
  const Problem& problem = Problem::ofSize(x);
  for (auto _ : state) state.SetIterationTime(step(problem)[stage]);
}

}  // namespace

int main(int argc, char** argv) {
  for (const int x : {46, 92, 184}) {
    for (std::size_t stage = 0; stage < kStages.size(); ++stage) {
      const auto add = [&](const char* engine, Times (*step)(const Problem&), int steps) {
        const std::string name =
            std::string(kStages[stage]) + '/' + engine + '/' + std::to_string(x);
        benchmark::RegisterBenchmark(name.c_str(), timeStage, step, stage, x)
            ->UseManualTime()
            ->Iterations(steps)
            ->Unit(benchmark::kMillisecond);
      };
      add("plain", plainStep, 1);
      add("shipped", shippedStep, 5);
    }
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
