// The three stages of the pipeline on small volumes, against the documented classes called in turn.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <new>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "grids.h"
#include "parallel.h"
#include "voxPipeline.h"

namespace {

using namespace tavrel::test;
using tavrel::StepReport;

/// A bright ellipsoid with a textured inside in a dark noisy surrounding, 0 to 255.
std::unique_ptr<Image> head(Point size, unsigned seed) {
  Random r(seed);
  Grid<double> g = waves(size, r);
  tavrel::plain::scan(size, [&](Point q) {
    double d = 0;
    for (int a = 0; a < 3; ++a) d += std::pow((q[a] + 0.5) / size[a] * 2 - 1, 2);
    g[q] = std::floor(d < 0.55 ? 170 + 60 * g[q] + r.below(12) : 30 + r.below(25));
  });
  return toMatrix<Image>(g);
}

/// A head with the pipeline's own settings.
struct Case {
  std::unique_ptr<Image> input;
  voxPara P;

  Case(Point size, unsigned seed, double w5 = 1) : input(head(size, seed)) {
    static char path[] = "unused";
    tavrel::setupPipeline(P, path, path, path, 0, size[0], size[1], size[2], w5);
  }
  tavrel::PreparedVolumes prepared() const { return tavrel::prepare(*input, P); }
};

template <int D>
struct Evolved {
  std::unique_ptr<MatrixOf<D, double, char>> Phi;
  std::unique_ptr<MatrixOf<D, char, double>> mask;
  std::vector<StepReport> steps;
};

/// Evolves a mask by the plain class until its count hardly changes.
template <int D>
Evolved<D> evolvePlainly(std::unique_ptr<MatrixOf<D, char, double>> mask,
                         MatrixOf<D, double, char>& image, double w5, double threshold, int limit,
                         int level = 0) {
  Evolved<D> e;
  e.Phi.reset(mask->VeC2Phi());
  e.mask = std::move(mask);
  std::vector<double> counts(limit);
  for (int i = 0; i < limit; ++i) {
    LevelSetOf<D> ls;
    ls.UpdatePhi(e.Phi.get(), 2, &image, 0, 0, 0.01, 1, w5, 0, 0, e.Phi.get());
    e.mask.reset(e.Phi->Phi2VeC());
    const double ratio = computeratio(i, counts.data(), e.mask.get());
    e.steps.push_back({level, 3, i, counts[i], ratio, ls.n_edge, ls.n_nbt});
    if (i > 1 && ratio < threshold) break;
  }
  return e;
}

// ---- convergence test -------------------------------------------------------------------------

TEST(ComputeRatio, TakesTheSmallerSignedDifference) {
  const auto seven = filled({10, 6, 1}, [](int x, int y, int) { return x == 3 || x + y == 0; });
  const std::pair<std::vector<double>, double> cases[] = {
      {{10000, 10500, 10501}, 1 / 10501.0},  // growing: the last step
      {{10000, 9999, 9998}, 2 / 9998.0},     // shrinking: the last two steps together
      {{100, 90, 95}, 5 / 95.0},             // back up after a fall
      {{90, 100, 100}, 0},
      {{9999, 9998}, 1 / 9998.0},  // the one step there is
      {{5, 5, 0}, kInfinity},
      {{0, 0, 0}, kNaN},  // an empty mask never converges
      {{}, kInfinity},
      {{7}, kInfinity}};  // nothing to compare
  for (auto [lt, ratio] : cases) {
    const int i = static_cast<int>(lt.size());
    lt.push_back(-1);
    EXPECT_TRUE(same(computeratio(i, lt.data(), toMatrix<Mask>(seven).get()), ratio)) << ratio;
    EXPECT_EQ(lt.back(), 7) << "the count is stored but decides nothing yet";
    EXPECT_TRUE(same(computeratio(i, lt.data(), toMatrix<MaskSlice>(seven).get()), ratio)) << ratio;
  }
}

// ---- preparation ------------------------------------------------------------------------------

TEST(Prepare, FiltersPadsHalvesAndNormalises) {
  for (const int dnX : {0, 1}) {
    Case run({13, 18, 20}, 1);
    run.P.dnX = dnX;
    run.P.gamma = 2;
    const auto before = toGrid(*run.input);
    std::ostringstream report;
    const auto volumes = tavrel::prepare(*run.input, run.P, &report);
    EXPECT_EQ(report.str(), "double sorting called\ndouble sorting called\n");
    EXPECT_EQ(toGrid(*run.input), before);

    const std::unique_ptr<Image> filtered(run.input->filterMinNeigbor());
    const std::unique_ptr<Image> want(filtered->extension(1, 2, 1, 1, 0, 0));
    want->selfdownsampleby2(dnX, 0, 0, "min");
    want->Normalize(nullptr);
    want->GammaAdjust(2);
    EXPECT_EQ(toGrid(*volumes.image), toGrid(*want));

    // 0.3 to 0.7 of 16 is 5 to 10, of 8 it is 3 to 4, of 20 6 to 13; coarse voxel q stands for 4 q.
    EXPECT_EQ(toGrid(*volumes.mask), filled({4 >> dnX, 5, 5}, [=](int x, int y, int z) {
                return x == 2 - dnX && y / 2 == 1 && z / 2 == 1;
              }));
  }
}

TEST(Prepare, CountsVoxelsThatAreNotFiniteAsZero) {
  Case zeros({12, 11, 10}, 3), broken({12, 11, 10}, 3);
  const double values[] = {kNaN, kInfinity, -kInfinity};
  for (int n = 0; n < 12 * 11 * 10; n += 97) {
    zeros.input->p[n] = 0;
    broken.input->p[n] = values[n % 3];
  }
  EXPECT_EQ(toGrid(*broken.prepared().image), toGrid(*zeros.prepared().image));
  EXPECT_TRUE(std::isnan(broken.input->p[0])) << "the input itself is left alone";
}

TEST(Prepare, StaysFiniteWithoutContrast) {
  for (const double value : {0.0, -7.5, 200.0}) {
    Case run({8, 12, 8}, 4);  // no padding, so the image is constant too
    *run.input = value;
    auto volumes = run.prepared();
    for (const double v : toGrid(*volumes.image).p) ASSERT_TRUE(std::isfinite(v)) << value;
    tavrel::evolve(volumes, run.P);
    for (const double v : toGrid(*volumes.mask).p) EXPECT_TRUE(v == 0 || v == 1);
  }
}

// ---- evolution --------------------------------------------------------------------------------

auto fields(const StepReport& s) {
  return std::tuple(s.level, s.levels, s.iteration, s.inside, s.ratio, s.n_edge, s.n_nbt);
}

TEST(Evolve, EqualsThePlainClassWithAnyNumberOfThreads) {
  const std::pair<double, std::array<int, 3>> runs[] = {{1.0, {1000, 1000, 1000}},
                                                        {1.3, {4, 2, 3}}};
  for (const auto& [w5, limits] : runs) {
    Case run({18, 23, 15}, 5, w5);
    std::copy(limits.begin(), limits.end(), run.P.max_iter);
    const auto start = run.prepared();
    std::vector<Evolved<3>> want;
    for (int level = 0; level < 3; ++level) {
      std::unique_ptr<Mask> mask((level ? want.back().mask : start.mask)->duplicate());
      if (level > 0) mask->selfupsampleby2(1, 1, 1, "simple");
      const int n = 2 - level;
      const std::unique_ptr<Image> image(start.image->downsampleby2(n, n, n, "min"));
      want.push_back(evolvePlainly<3>(std::move(mask), *image, w5, 0.0002, limits[level], level));
    }

    for (int threads = 1; threads <= 3 && !HasFailure(); ++threads) {
      SCOPED_TRACE(testing::Message() << threads << " threads, w5 " << w5);
      auto volumes = run.prepared();
      std::size_t level = 0, step = 0;
      tavrel::EvolutionObserver observer;
      observer.onStep = [&](const StepReport& report) {
        EXPECT_EQ(fields(report), fields(want.at(level).steps.at(step++)));
      };
      observer.onLevel = [&](std::size_t ended, Image& Phi) {
        EXPECT_EQ(ended, level);
        EXPECT_EQ(step, want[level].steps.size());
        EXPECT_EQ(toGrid(Phi), toGrid(*want[level].Phi));
        ++level, step = 0;
      };
      tavrel::evolve(volumes, run.P, observer, threads);
      EXPECT_EQ(level, 3u);
      EXPECT_EQ(toGrid(*volumes.mask), toGrid(*want[2].mask));
      EXPECT_EQ(toGrid(*volumes.image), toGrid(*start.image));
    }
  }
}

/// On a head large enough for changes on both sides of the threshold.
TEST(Evolve, EndsALevelAtTheFirstSmallChange) {
  const Case run({40, 44, 38}, 12);
  auto volumes = run.prepared();
  double most = 0, least = 1;
  int ends = 0;
  tavrel::EvolutionObserver observer;
  observer.onStep = [&](const StepReport& r) {
    const bool small = r.ratio < 0.0002;
    ends += small;
    double& nearest = small ? most : least;
    nearest = small ? std::max(nearest, r.ratio) : std::min(nearest, r.ratio);
  };
  tavrel::evolve(volumes, run.P, observer);
  EXPECT_EQ(ends, 3);
  EXPECT_GT(most, 0.0001);
  EXPECT_LT(least, 0.0003);
}

TEST(Evolve, EndsWithAnEmptyMask) {
  const Case run({9, 12, 8}, 6, -5);
  auto volumes = run.prepared();
  tavrel::evolve(volumes, run.P);
  EXPECT_EQ(toGrid(*volumes.mask), Grid<double>({12, 12, 8}));
}

TEST(Evolve, IsAbandonedByWhatThrows) {
  const Case run({16, 16, 16}, 7);
  auto volumes = run.prepared();
  tavrel::EvolutionObserver observer;
  observer.onStep = [](const StepReport& r) {
    if (r.iteration == 1) throw std::runtime_error("enough");
  };
  EXPECT_THROW(tavrel::evolve(volumes, run.P, observer, 2), std::runtime_error);
  const auto lacking = [](int piece) {  // whichever thread it happens on
    if (piece == 4) throw std::bad_alloc();
  };
  for (const int threads : {1, 3})
    EXPECT_THROW(tavrel::parallelFor(threads, 9, lacking), std::bad_alloc);
}

TEST(Evolve, ReportsWhatDoesNotFitAndDoesNotEndTheProcess) {
  Case run({8, 12, 8}, 4);
  voxPara empty, &P = run.P;
  EXPECT_THROW(tavrel::prepare(*run.input, empty), std::invalid_argument);
  tavrel::PreparedVolumes none;
  EXPECT_THROW(tavrel::evolve(none, empty), std::invalid_argument);
  none.image = toMatrix<Image>(Grid<double>({8, 8, 8}));
  none.mask = toMatrix<Mask>(Grid<double>({8, 8, 8}, 1));
  tavrel::evolve(none, empty);  // one level of no steps: there are no limits
  EXPECT_EQ(none.mask->Sum(), 512);
  EXPECT_THROW(tavrel::evolve(none, P), std::invalid_argument) << "the seed is not the coarsest";
  EXPECT_THROW(tavrel::finish(*none.mask, P), std::invalid_argument);
  EXPECT_THROW(tavrel::refineSlices(*none.mask, *none.image, P), std::invalid_argument);
  P.dnX = std::numeric_limits<int>::min();  // halves nothing, like any count below 0
  P.dnZ = 1;
  EXPECT_EQ(sizeOf(*run.prepared().image), (Point{8, 12, 4}));
  P.dnZ = 0;
  P.Xp = 3;
  EXPECT_THROW(run.prepared(), std::invalid_argument) << "11 cannot be halved";
  P.Xp = -4;
  EXPECT_THROW(run.prepared(), std::invalid_argument) << "a padding is negative";
  P.Xp = std::numeric_limits<int>::max() - 1;
  EXPECT_THROW(run.prepared(), std::length_error);
}

// ---- last stage -------------------------------------------------------------------------------

TEST(Finish, RefinesSlicesOnlyAfterHalvingAndDilatesOnce) {
  for (const int dnZ : {0, 1}) {
    SCOPED_TRACE(testing::Message() << "dnZ " << dnZ);
    Case run({61, 66, 6}, 8, 1.1);
    run.P.dnZ = dnZ;
    run.P.max_iter[0] = 40;
    const auto before = toGrid(*run.input);
    // 1 + 61 + 2, 1 + 66 + 1 and 1 + 6 + 1 voxels, the slices halved dnZ times; a ball as mask.
    const auto ball = filled({64, 68, 8 >> dnZ}, [=](int x, int y, int z) {
      return std::hypot(x - 31, y - 33, 2 * ((z + 0.5) * (1 << dnZ) - 4)) < 18;
    });
    const auto mask = toMatrix<Mask>(ball), want = toMatrix<Mask>(ball);
    if (dnZ > 0) tavrel::refineSlices(*mask, *run.input, run.P);
    tavrel::finish(*mask, run.P);

    want->selfupsampleby2(0, 0, dnZ, "simple");
    want->selfdeextension(1, 2, 1, 1, 1, 1);
    for (int z = 0; dnZ > 0 && z < 6; ++z) {
      const std::unique_ptr<Slice> image(run.input->getslice(z));
      std::unique_ptr<MaskSlice> seed(want->getslice(z));
      want->setslice(evolvePlainly<2>(std::move(seed), *image, 1.1, 0.002, 40).mask.get(), z);
    }
    want->imdilate3D("box", 1);
    EXPECT_EQ(toGrid(*mask), toGrid(*want));
    EXPECT_EQ(toGrid(*run.input), before);
  }
}

}  // namespace
