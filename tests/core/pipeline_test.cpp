// The three stages of the pipeline on small volumes, against plain loops over the plain classes.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "level_set_support.h"
#include "voxPipeline.h"

namespace {

using namespace tavrel::test;
using Volume = vox3DMat<double, char>;
using Mask = vox3DMat<char, double>;

/// Halvings before the 3-D stage, iteration limits and weight 5 of a run; the rest as the command.
struct Settings {
  int dnX = 0, dnY = 0, dnZ = 0;
  int limit0 = 1000, limit1 = 1000, limit2 = 1000;
  double w5 = 1;
};

void setup(voxPara& P, Point size, const Settings& s = {}) {
  static char path[] = "unused";
  P.setupBalloonParameters(path, path, path, 0, 0, 0, size[0], size[1], size[2], s.dnX, s.dnY,
                           s.dnZ, 2, 1.0, 0.3, 0.7, 0.3, 0.7, 0.3, 0.7, 0.0, 0.0, 0.01, 1.0, s.w5,
                           0.0, 0.0, s.limit0, s.limit1, s.limit2);
}

/// A bright ellipsoid with a textured inside in a dark noisy surrounding, 0 to 255.
std::unique_ptr<Volume> head(Point size, unsigned seed) {
  Random r(seed);
  const Grid<double> texture = waves(size, r);
  Grid<double> g(size);
  g.scan([&](Point q) {
    double d = 0;
    for (int a = 0; a < 3; ++a) d += std::pow((q[a] + 0.5) / size[a] * 2 - 1, 2);
    const int n = g.index(q);
    g.p[n] = std::floor(d < 0.55 ? 170 + 60 * texture.p[n] + r.below(12) : 30 + r.below(25));
  });
  return toMatrix<3>(g);
}

Grid<double> toGrid(const Volume& m) {
  Grid<double> g(Point{m.sizeX, m.sizeY, m.sizeZ});
  std::copy(m.p, m.p + g.p.size(), g.p.begin());
  return g;
}

Grid<signed char> toGrid(const Mask& m) {
  Grid<signed char> g(Point{m.sizeX, m.sizeY, m.sizeZ});
  for (std::size_t n = 0; n < g.p.size(); ++n) g.p[n] = static_cast<signed char>(m.p[n]);
  return g;
}

// ---- plain loops ------------------------------------------------------------------------------

Grid<double> halved(const Grid<double>& g, int times) {
  if (times == 0) return g;
  const Point size{g.size[0] / 2, g.size[1] / 2, g.size[2] / 2};
  return halved(
      filled(size,
             [&](int x, int y, int z) {
               double least = std::numeric_limits<double>::infinity();
               for (int c = 0; c < 8; ++c)
                 least = std::min(least, g[{2 * x + c % 2, 2 * y + c / 2 % 2, 2 * z + c / 4}]);
               return least;
             }),
      times - 1);
}

struct Evolved {
  Grid<double> Phi;
  Grid<signed char> mask;
  std::vector<tavrel::StepReport> steps;
};

/// Evolves a mask until the relative change of its count is below the threshold.
template <int D>
Evolved evolvePlainly(const Grid<signed char>& mask, const Grid<double>& image, double w5,
                      double threshold, int limit) {
  Evolved e{Grid<double>(mask.size), mask, {}};
  for (std::size_t n = 0; n < mask.p.size(); ++n) e.Phi.p[n] = 0.5 - mask.p[n];
  const auto Phi = toMatrix<D>(e.Phi), voldata = toMatrix<D>(image);
  std::vector<double> count;
  for (int i = 0; i < limit; ++i) {
    typename Twin<D>::template LevelSet<double> ls;
    ls.UpdatePhi(Phi.get(), 2, voldata.get(), 0, 0, 0.01, 1, w5, 0, 0, Phi.get());
    count.push_back(static_cast<double>(
        std::count_if(Phi->p, Phi->p + mask.p.size(), [](double v) { return v < 0; })));
    double ratio = std::numeric_limits<double>::infinity();
    if (i > 1) {
      double change = count[i - 1] - count[i - 2];
      if (i > 2) change = std::min(change, count[i - 1] - count[i - 3]);
      ratio = std::fabs(change) / count[i - 1];
    }
    e.steps.push_back({0, 0, i, count.back(), ratio, ls.n_edge, ls.n_nbt});
    if (i > 1 && ratio < threshold) break;
  }
  std::copy_n(Phi->p, e.Phi.p.size(), e.Phi.p.begin());
  for (std::size_t n = 0; n < mask.p.size(); ++n) e.mask.p[n] = e.Phi.p[n] < 0;
  return e;
}

void expectSameStep(const tavrel::StepReport& got, const tavrel::StepReport& want) {
  SCOPED_TRACE(testing::Message() << "level " << want.level << " iteration " << want.iteration);
  EXPECT_EQ(got.level, want.level);
  EXPECT_EQ(got.levels, want.levels);
  EXPECT_EQ(got.iteration, want.iteration);
  EXPECT_EQ(got.inside, want.inside);
  EXPECT_TRUE(same(got.ratio, want.ratio)) << got.ratio << " instead of " << want.ratio;
  EXPECT_EQ(got.n_edge, want.n_edge);
  EXPECT_EQ(got.n_nbt, want.n_nbt);
}

// ---- convergence test -------------------------------------------------------------------------

TEST(ComputeRatio, TakesTheSmallerSignedDifference) {
  Mask volume(10, 3, 2);
  volume = 0;
  for (int n = 0; n < 7; ++n) volume.p[n * 8] = 1;
  vox2DMat<char, double> slice(10, 6);
  std::copy(volume.p, volume.p + 60, slice.p);

  const struct {
    double before3, before2, before1, ratio;
  } cases[] = {{10000, 10500, 10501, 1 / 10501.0},  // growing: the last step
               {10000, 9999, 9998, 2 / 9998.0},     // shrinking: the last two steps together
               {100, 90, 95, 5 / 95.0},             // back up after a fall
               {90, 100, 100, 0}};
  for (const auto& c : cases) {
    double lt[] = {c.before3, c.before2, c.before1, -1};
    EXPECT_EQ(computeratio(3, lt, &volume), c.ratio);
    EXPECT_EQ(lt[3], 7) << "the count is stored but decides nothing yet";
    lt[3] = -1;
    EXPECT_EQ(computeratio(3, lt, &slice), c.ratio);
    EXPECT_EQ(lt[3], 7);
  }
  double two[] = {9999, 9998, -1};
  EXPECT_EQ(computeratio(2, two, &volume), 1 / 9998.0);  // third iteration: the one step there is
  for (double last : {5, 0}) {                           // an empty mask never converges
    double empty[] = {last, last, 0, -1};
    EXPECT_FALSE(computeratio(3, empty, &volume) < 1e300);
    EXPECT_FALSE(computeratio(2, empty + 1, &slice) < 1e300);
  }
  for (int i : {0, 1}) {
    double first[] = {7, -1};
    EXPECT_FALSE(computeratio(i, first, &volume) < 1e300);
    EXPECT_EQ(first[i], 7);
    EXPECT_FALSE(computeratio(i, first, &slice) < 1e300);
  }
}

// ---- preparation ------------------------------------------------------------------------------

TEST(Prepare, FiltersPadsAndNormalises) {
  const Point size{13, 18, 20};
  const auto input = head(size, 1);
  const Grid<double> in = toGrid(*input);
  voxPara P;
  setup(P, size);
  std::ostringstream report;
  const auto volumes = tavrel::prepare(*input, P, &report);
  EXPECT_EQ(report.str(), "double sorting called\ndouble sorting called\n");
  expectSame("input", input->p, in.p);

  Grid<double> want(Point{16, 20, 20});  // 13 = 1 + 13 + 2, 18 = 1 + 18 + 1
  in.scan([&](Point q) {
    double v = in.p[in.index(q)];
    if (q[0] % 12 && q[1] % 17 && q[2] % 19) {  // inner voxels
      v = std::numeric_limits<double>::infinity();
      for (int k = 0; k < 6; ++k) {
        Point n = q;
        n[k / 2] += k % 2 ? 1 : -1;
        v = std::min(v, in.p[in.index(n)]);
      }
    }
    want.p[want.index({q[0] + 1, q[1] + 1, q[2]})] = v;
  });
  const double largest = *std::max_element(want.p.begin(), want.p.end());
  for (double& v : want.p) v = (v - 0) / (largest - 0);  // the padding is the smallest: 0
  ASSERT_EQ(toGrid(*volumes.image).size, want.size);
  expectSame("image", volumes.image->p, want.p);

  // 0.3 to 0.7 of 16 is 5 to 10, of 20 is 6 to 13; the coarse voxel q stands for 4 q.
  const Grid<signed char> seed = toGrid(*volumes.mask);
  ASSERT_EQ(seed.size, (Point{4, 5, 5}));
  expectSame("seed", volumes.mask->p,
             filled<signed char>(seed.size, [](int x, int y, int z) {
               return static_cast<signed char>(x == 2 && y / 2 == 1 && z / 2 == 1);
             }).p);
}

TEST(Prepare, HalvesBeforeTheEvolution) {
  const Point size{16, 24, 12};
  const auto input = head(size, 2);
  voxPara P;
  setup(P, size, {.dnX = 1, .dnZ = 1});
  const auto volumes = tavrel::prepare(*input, P);
  EXPECT_EQ(toGrid(*volumes.image).size, (Point{8, 24, 8}));  // 12 slices are padded to 16
  EXPECT_EQ(toGrid(*volumes.mask).size, (Point{2, 6, 2}));
}

TEST(Prepare, CountsVoxelsThatAreNotFiniteAsZero) {
  const Point size{12, 11, 10};
  auto zeros = head(size, 3), broken = head(size, 3);
  const double values[] = {std::nan(""), std::numeric_limits<double>::infinity(),
                           -std::numeric_limits<double>::infinity()};
  for (int n = 0; n < 12 * 11 * 10; n += 97) {
    zeros->p[n] = 0;
    broken->p[n] = values[n % 3];
  }
  voxPara P;
  setup(P, size);
  const auto want = tavrel::prepare(*zeros, P), got = tavrel::prepare(*broken, P);
  expectSame("image", got.image->p, toGrid(*want.image).p);
  EXPECT_TRUE(std::isnan(broken->p[0])) << "the input itself is left alone";
}

TEST(Prepare, StaysFiniteWithoutContrast) {
  for (double value : {0.0, -7.5, 200.0}) {
    auto input = head({8, 12, 8}, 4);  // no padding, so the image is constant too
    std::fill(input->p, input->p + 8 * 12 * 8, value);
    voxPara P;
    setup(P, {8, 12, 8});
    auto volumes = tavrel::prepare(*input, P);
    for (double v : toGrid(*volumes.image).p) ASSERT_TRUE(std::isfinite(v)) << value;
    tavrel::evolve(volumes, P);
    for (int v : toGrid(*volumes.mask).p) EXPECT_TRUE(v == 0 || v == 1);
  }
}

// ---- evolution --------------------------------------------------------------------------------

TEST(Evolve, EqualsPlainLoopsWithAnyNumberOfThreads) {
  const Settings runs[] = {{.w5 = 1.0}, {.limit0 = 4, .limit1 = 2, .limit2 = 3, .w5 = 1.3}};
  for (const Settings& s : runs) {
    const Point size{18, 23, 15};
    const auto input = head(size, 5);
    voxPara P;
    setup(P, size, s);
    const auto start = tavrel::prepare(*input, P);

    const int limits[] = {s.limit0, s.limit1, s.limit2};
    Grid<signed char> mask = toGrid(*start.mask);
    std::vector<Evolved> want;
    for (int level = 0; level < 3; ++level) {
      if (level > 0) {
        const Grid<signed char> c = mask;
        mask = filled<signed char>({c.size[0] * 2, c.size[1] * 2, c.size[2] * 2},
                                   [&](int x, int y, int z) {
                                     return c[{x / 2, y / 2, z / 2}];
                                   });
      }
      want.push_back(evolvePlainly<3>(mask, halved(toGrid(*start.image), 2 - level), s.w5, 0.0002,
                                      limits[level]));
      for (auto& step : want.back().steps) step.level = level, step.levels = 3;
      mask = want.back().mask;
    }

    for (int threads = 1; threads <= 3; ++threads) {
      SCOPED_TRACE(testing::Message() << threads << " threads, w5 " << s.w5);
      tavrel::PreparedVolumes volumes = tavrel::prepare(*input, P);
      std::vector<std::vector<tavrel::StepReport>> steps(3);
      int levelsEnded = 0;
      tavrel::EvolutionObserver observer;
      observer.onStep = [&](const tavrel::StepReport& r) { steps.at(r.level).push_back(r); };
      observer.onLevel = [&](int level, Volume& Phi) {
        EXPECT_EQ(level, levelsEnded++);
        ASSERT_EQ(toGrid(Phi).size, want.at(level).Phi.size);
        expectSame("Phi of the level", Phi.p, want[level].Phi.p);
      };
      tavrel::evolve(volumes, P, observer, threads);
      EXPECT_EQ(levelsEnded, 3);
      for (int level = 0; level < 3; ++level) {
        ASSERT_EQ(steps[level].size(), want[level].steps.size());
        for (std::size_t i = 0; i < steps[level].size(); ++i)
          expectSameStep(steps[level][i], want[level].steps[i]);
      }
      ASSERT_EQ(toGrid(*volumes.mask).size, mask.size);
      expectSame("mask", volumes.mask->p, mask.p);
      expectSame("image", volumes.image->p, toGrid(*start.image).p);
      if (HasFailure()) return;
    }
  }
}

/// On a head large enough for changes on both sides of the threshold.
TEST(Evolve, EndsALevelAtTheFirstSmallChange) {
  const Point size{40, 44, 38};
  const auto input = head(size, 12);
  voxPara P;
  setup(P, size);
  auto volumes = tavrel::prepare(*input, P);
  std::vector<std::vector<double>> ratios(3);
  tavrel::EvolutionObserver observer;
  observer.onStep = [&](const tavrel::StepReport& r) { ratios[r.level].push_back(r.ratio); };
  tavrel::evolve(volumes, P, observer);
  double least = 1, last = 0;
  for (auto& level : ratios) {
    last = std::max(last, level.back());
    level.pop_back();
    least = std::min(least, *std::min_element(level.begin(), level.end()));
  }
  EXPECT_LT(last, 0.0002);
  EXPECT_GE(least, 0.0002);
  EXPECT_LT(least, 0.0003);
  EXPECT_GT(last, 0.0001);
}

TEST(Evolve, EndsWithAnEmptyMask) {
  const Point size{9, 12, 8};
  const auto input = head(size, 6);
  voxPara P;
  setup(P, size, {.w5 = -5});
  auto volumes = tavrel::prepare(*input, P);
  tavrel::evolve(volumes, P);
  for (int v : toGrid(*volumes.mask).p) EXPECT_EQ(v, 0);
  EXPECT_EQ(volumes.mask->sizeX, 12);
}

TEST(Evolve, IsAbandonedWhenTheObserverThrows) {
  const Point size{16, 16, 16};
  const auto input = head(size, 7);
  voxPara P;
  setup(P, size);
  auto volumes = tavrel::prepare(*input, P);
  tavrel::EvolutionObserver observer;
  observer.onStep = [](const tavrel::StepReport& r) {
    if (r.iteration == 1) throw std::runtime_error("enough");
  };
  EXPECT_THROW(tavrel::evolve(volumes, P, observer, 2), std::runtime_error);
}

TEST(Evolve, ReportsWhatDoesNotFitAndDoesNotEndTheProcess) {
  const auto input = head({8, 12, 8}, 4);
  voxPara empty, P;
  EXPECT_THROW(tavrel::prepare(*input, empty), std::invalid_argument);
  tavrel::PreparedVolumes none;
  EXPECT_THROW(tavrel::evolve(none, empty), std::invalid_argument);
  none.image = std::make_unique<Volume>(8, 8, 8);
  none.mask = std::make_unique<Mask>(8, 8, 8);
  *none.image = 0.0;
  *none.mask = 1;
  tavrel::evolve(none, empty);  // one level of no steps: there are no limits
  EXPECT_EQ(none.mask->Sum(), 512);
  setup(P, {8, 12, 8});
  EXPECT_THROW(tavrel::evolve(none, P), std::invalid_argument) << "the seed is not the coarsest";
  EXPECT_THROW(tavrel::finish(*none.mask, P), std::invalid_argument);
  EXPECT_THROW(tavrel::refineSlices(*none.mask, *none.image, P), std::invalid_argument);
  P.dnX = std::numeric_limits<int>::min();  // halves nothing, like any count below 0
  P.dnZ = 1;
  EXPECT_EQ(toGrid(*tavrel::prepare(*input, P).image).size, (Point{8, 12, 4}));
  P.dnZ = 0;
  P.Xp = 3;
  EXPECT_THROW(tavrel::prepare(*input, P), std::invalid_argument) << "11 cannot be halved";
  P.Xp = std::numeric_limits<int>::max() - 1;
  EXPECT_THROW(tavrel::prepare(*input, P), std::length_error);
}

TEST(Pyramid, KnowsWhichVolumesFit) {
  using tavrel::Pyramid;
  EXPECT_EQ(Pyramid::padded(181), 184);
  EXPECT_TRUE(Pyramid::fits(0, 1 << 30, 1 << 30));
  EXPECT_TRUE(Pyramid::fits(1288, 1290 - 2, 1290 - 2));
  EXPECT_FALSE(Pyramid::fits(1290, 1290, 1290)) << "1292 padded";
  EXPECT_FALSE(Pyramid::fits(std::numeric_limits<int>::max(), 1, 1));
  EXPECT_FALSE(Pyramid::fits(-4, -4, 4));
}

// ---- last stage -------------------------------------------------------------------------------

TEST(Finish, RefinesSlicesOnlyAfterHalvingAndDilatesOnce) {
  for (int dnZ : {0, 1}) {
    SCOPED_TRACE(testing::Message() << "dnZ " << dnZ);
    const Point size{61, 66, 6};
    const auto input = head(size, 8);
    const Grid<double> in = toGrid(*input);
    const Settings s{.dnZ = dnZ, .limit0 = 40, .w5 = 1.1};
    voxPara P;
    setup(P, size, s);
    // 1 + 61 + 2, 1 + 66 + 1 and 1 + 6 + 1 voxels, the slices halved dnZ times; a ball as mask.
    Grid<signed char> start(Point{64, 68, 8 >> dnZ});
    start.scan([&](Point q) {
      const double z = (q[2] + 0.5) * (1 << dnZ) - 4;
      start.p[start.index(q)] = std::hypot(q[0] - 31, q[1] - 33, 2 * z) < 18;
    });

    // Undo halving and padding, refine each slice, dilate.
    Grid<signed char> refined(size), want(size);
    refined.scan([&](Point q) {
      const int from = start.index({q[0] + 1, q[1] + 1, (q[2] + 1) >> dnZ});
      refined.p[refined.index(q)] = start.p[from];
    });
    for (int z = 0; dnZ > 0 && z < size[2]; ++z) {
      const std::size_t slice = static_cast<std::size_t>(size[0]) * size[1], at = z * slice;
      Grid<signed char> mask2(Point{size[0], size[1], 1});
      Grid<double> image2(mask2.size);
      std::copy_n(&refined.p[at], slice, mask2.p.begin());
      std::copy_n(&in.p[at], slice, image2.p.begin());
      mask2 = evolvePlainly<2>(mask2, image2, s.w5, 0.002, s.limit0).mask;
      std::copy_n(mask2.p.begin(), slice, &refined.p[at]);
    }
    refined.scan([&](Point q) {
      if (refined.p[refined.index(q)])
        tavrel::plain::forBox(q, 1, size, [&](Point b) { want.p[want.index(b)] = 1; });
    });

    Mask mask(start.size[0], start.size[1], start.size[2]);
    std::copy(start.p.begin(), start.p.end(), mask.p);
    if (dnZ > 0) tavrel::refineSlices(mask, *input, P);
    tavrel::finish(mask, P);
    ASSERT_EQ(toGrid(mask).size, size);
    expectSame("mask", mask.p, want.p);
    expectSame("input", input->p, in.p);
  }
}

}  // namespace
