// The level-set engine, stage by stage: every public field equal in all bits to plain loops on
// random functions and images, and the worked examples whose answers are known by hand.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <string>

#include "engine_support.h"
#include "plain_engine.h"

namespace {

using namespace tavrel::test;
using tavrel::plain::Grid;
using tavrel::plain::Point;
using tavrel::plain::Weights;

template <int D>
void expectSameState(const typename Twin<D>::Engine& e, const tavrel::plain::LevelSet<D>& w,
                     bool bandBuilt) {
  EXPECT_EQ((Point{e.sizeX, e.sizeY, Twin<D>::sizeZ(e)}), w.label.size);
  EXPECT_EQ(e.mxn, e.sizeX * e.sizeY);
  const int got[] = {e.n_pedge, e.n_nedge, e.n_ptest, e.n_ntest, e.n_edge, e.n_nbt};
  const int want[] = {w.n_pedge, w.n_nedge, w.n_ptest, w.n_ntest, w.n_edge, w.n_nbt};
  ASSERT_TRUE(std::equal(got, got + 6, want)) << "counts differ";
  expectSame("label", e.label->p, w.label.p);
  expectSame("mask_indices", e.mask_indices->p, w.mask_indices.p);
  for (const void* never :
       {static_cast<const void*>(e.mask_p), static_cast<const void*>(e.mask_ptest),
        static_cast<const void*>(e.mask_ntest), Twin<D>::unused(e)})
    EXPECT_EQ(never, nullptr);
  if (!bandBuilt) {
    EXPECT_EQ(e.mask_nbt, nullptr);
    EXPECT_EQ(e.ori_nbt_ind, nullptr);
    EXPECT_EQ(e.Spar_sdf, nullptr);
    return;
  }
  ASSERT_NE(e.mask_nbt, nullptr);
  expectSame("mask_nbt", e.mask_nbt->p, w.mask_nbt.p);
  expectSame("ori_pedge_ind", e.ori_pedge_ind, w.ori_pedge_ind);
  expectSame("ori_nedge_ind", e.ori_nedge_ind, w.ori_nedge_ind);
  expectSame("ori_ptest_ind", e.ori_ptest_ind, w.ori_ptest_ind);
  expectSame("ori_ntest_ind", e.ori_ntest_ind, w.ori_ntest_ind);
  expectSame("ori_nbt_ind", e.ori_nbt_ind, w.ori_nbt_ind);
  expectSame("ori_nbt_sub", e.ori_nbt_sub, w.ori_nbt_sub);
  expectSame("spar_nbt_neigh_ind", Twin<D>::neighbours(e), w.spar_nbt_neigh_ind);
  expectSame("Spar_Phi", e.Spar_Phi, w.Spar_Phi);
  expectSame("Spar_F", e.Spar_F, w.Spar_F);
  expectSame("Spar_Fext", e.Spar_Fext, w.Spar_Fext);
  expectSame("Spar_exact", e.Spar_exact, w.Spar_exact);
  expectSame("Spar_usdf", e.Spar_usdf, w.Spar_usdf);
  expectSame("Spar_sdf", e.Spar_sdf, w.Spar_sdf);
}

/// Weights 2 and 6 have no effect: any value will do.
constexpr double kIdle = 7.25;

/// Called with both engines after each stage; may change the fields of both alike.
template <int D>
using Between =
    std::function<void(int stage, typename Twin<D>::Engine&, tavrel::plain::LevelSet<D>&)>;

/// Both engines through every stage, compared after each.
template <int D>
void compareStages(const Grid<double>& Phi, const Grid<double>& image, const Grid<double>& tPhi,
                   int bwt, const Weights& w, const Between<D>& between = {}) {
  tavrel::plain::LevelSet<D> want;
  typename Twin<D>::Engine got;
  const auto matPhi = toMatrix<D>(Phi), matImage = toMatrix<D>(image), matRef = toMatrix<D>(tPhi);
  Grid<double> newPhi = Phi;
  const struct {
    const char* name;
    std::function<void()> got, want;
  } stages[] = {
      {"LabelEdges", [&] { got.LabelEdges(matPhi.get()); }, [&] { want.LabelEdges(Phi); }},
      {"Labelnbt", [&] { got.Labelnbt(bwt, matPhi.get()); }, [&] { want.Labelnbt(bwt, Phi); }},
      {"sFindEdgeExact", [&] { got.sFindEdgeExact(); }, [&] { want.sFindEdgeExact(); }},
      {"sFindUsdf", [&] { got.sFindUsdf(); }, [&] { want.sFindUsdf(); }},
      {"sFindF", [&] { got.sFindF(matImage.get(), w.w1, kIdle, w.w3, w.w4, w.w5, -kIdle, w.w7); },
       [&] { want.sFindF(image, w); }},
      {"sFindEdgeFext", [&] { got.sFindEdgeFext(); }, [&] { want.sFindEdgeFext(); }},
      {"sCalFext", [&] { got.sCalFext(w.w7, matRef.get()); }, [&] { want.sCalFext(w.w7, tPhi); }},
      {"SubstractPhi", [&] { got.SubstractPhi(matPhi.get()); },
       [&] { want.SubstractPhi(newPhi); }}};
  for (int n = 0; n < 8; ++n) {
    if (n == 2 && (want.n_edge == 0 || bwt < 1)) return;
    SCOPED_TRACE(std::string("after ") + stages[n].name);
    stages[n].got();
    stages[n].want();
    expectSameState<D>(got, want, n > 0);
    if (testing::Test::HasFailure()) return;
    if (between) between(n, got, want);
  }
  expectSame("Phi", matPhi->p, newPhi.p);
  expectSame("voldata", matImage->p, image.p);
}

// ---- random functions and images --------------------------------------------------------------

enum Function { kBlobs, kMask, kBall, kPlane, kSpots, kTies, kNoise, kScales, kOneSided };
constexpr int kFunctions = kOneSided + 1;

Grid<double> randomFunction(int kind, Point size, Random& r) {
  Grid<double> g = waves(size, r);
  const double shift = r.between(-0.3, 0.3);
  const Point c{r.below(size[0]), r.below(size[1]), r.below(size[2])};
  const double radius = r.between(0.4, 9), slope = r.between(0.1, 3);
  const int axis = r.below(3);
  g.scan([&](Point q) {
    double& v = g.p[g.index(q)];
    const int ties[] = {-2, -1, -1, 0, 0, 1, 1, 2};
    switch (kind) {
      case kBlobs:
        v += shift;
        break;
      case kMask:
        v = v < shift ? -0.5 : 0.5;
        break;
      case kBall:
        v = std::hypot(q[0] - c[0], q[1] - c[1], q[2] - c[2]) - radius;
        break;
      case kPlane:
        v = (q[axis] - c[axis] - shift) * slope;
        break;
      case kSpots:
        v = r.below(40) == 0 ? 0.5 : -0.5;
        break;
      case kTies:
        v = ties[r.below(8)] * (r.below(2) ? 0.5 : -0.5);
        break;  // 0 and -0 too
      case kNoise:
        v = r.between(-1, 1);
        break;
      case kScales:
        v = r.between(-1, 1) * std::pow(10.0, r.below(17) - 8);
        break;
      case kOneSided:
        v = slope > 1.5 ? v + 2 : v - 2;
        break;
    }
  });
  return g;
}

enum Image { kSmooth, kNoisy, kTwoValued, kConstant, kHalfway, kSigned, kOutliers, kBroken };
constexpr int kImages = kBroken + 1;

Grid<double> randomImage(int kind, Point size, Random& r) {
  Grid<double> g = waves(size, r);
  for (double& v : g.p) {
    v = v * 0.5 + 0.5;
    switch (kind) {
      case kNoisy:
        v = r.between(0, 1);
        break;
      case kTwoValued:
        v = v > 0.5;
        break;
      case kConstant:
        v = 0.3;
        break;
      // Low bits at and below the last place of the sums: many additions round half-way.
      case kHalfway:
        v = r.below(257) / 256.0 + std::ldexp(1 + 2 * r.below(4), -53 + r.below(14));
        break;
      case kSigned:
        v = r.between(-3, 3);
        break;
      case kOutliers:
        if (r.below(50) == 0) v = std::ldexp(r.between(-1, 1), r.below(90) - 30);
        break;
      case kBroken:  // not a number and infinities go through as the arithmetic has it
        if (r.below(200) == 0)
          v = r.below(2) ? std::nan("") : std::numeric_limits<double>::infinity();
        break;
    }
  }
  return g;
}

Weights randomWeights(Random& r) {
  const Weights choices[] = {{0, 0.01, 1, 1, 0},    {0, 0.01, 1, 1.2, 0}, {0.1, 0.2, 0.7, -0.5, 0},
                             {1, 0.3, 0, 2, 0},     {0, 0, 0, 0, 0},      {0, 0.01, 1, 0, 0.4},
                             {-0.3, 0, 1e-3, 5, 0}, {0, 1, -1, 1, -2}};
  return choices[r.below(8)];
}

template <class T>
class Engine : public testing::Test {};
using Dimensions = testing::Types<Twin<2>, Twin<3>>;
TYPED_TEST_SUITE(Engine, Dimensions);

/// Sizes from a single voxel to boxes that hold whole windows of the region term, with rows that
/// end before, at and after a multiple of 64.
std::vector<Point> sizes(int D) {
  if (D == 2)
    return {{1, 1, 1},   {1, 9, 1},   {3, 2, 1},   {17, 5, 1},  {24, 30, 1},
            {64, 23, 1}, {65, 40, 1}, {130, 7, 1}, {63, 64, 1}, {50, 41, 1}};
  return {{1, 1, 1},    {3, 2, 1},  {1, 7, 5},  {9, 1, 4},   {2, 2, 2},    {5, 6, 7},   {16, 9, 8},
          {23, 22, 25}, {65, 4, 3}, {3, 40, 6}, {128, 3, 2}, {12, 31, 24}, {40, 37, 33}};
}

TYPED_TEST(Engine, EveryStageEqualsPlainLoops) {
  constexpr int D = TypeParam::D;
  unsigned seed = 0;
  for (Point size : sizes(D)) {
    const int voxels = size[0] * size[1] * size[2];
    for (int kind = 0; kind < kFunctions; ++kind) {
      // Noise makes nearly every voxel an edge voxel; the large grids leave it out for time.
      if (voxels > 14000 && kind > kSpots) continue;
      for (int repeat = 0; repeat < (voxels < 3000 ? 4 : 1); ++repeat) {
        const int bwt = 1 + static_cast<int>(seed) % 3;
        Random r(++seed);
        const int image = static_cast<int>(seed) % kImages;
        SCOPED_TRACE(testing::Message()
                     << size[0] << "x" << size[1] << "x" << size[2] << " function " << kind
                     << " image " << image << " bwt " << bwt << " seed " << seed);
        const Grid<double> Phi = randomFunction(kind, size, r);
        compareStages<D>(Phi, randomImage(image, size, r), waves(size, r), bwt, randomWeights(r));
        if (this->HasFailure()) return;
      }
    }
  }
}

/// Overwrites the fields that a stage hands on with values that a step hardly ever produces: equal,
/// unknown and unordered distances, plateaus, interface points nearer than any distance says.
template <int D>
void disturb(Random& r, int stage, typename Twin<D>::Engine& got,
             tavrel::plain::LevelSet<D>& want) {
  auto set = [](double* to, std::vector<double>& alike, int n, double v) { to[n] = alike[n] = v; };
  const double nan = std::nan(""), ties[] = {0.5, 1, 1.00002, 1.0001, 2, 3, 100000, 100001};
  const double plateau[] = {0, 0, std::ldexp(1, -400), 0.5};  // the gradient's cube vanishes
  const int n_edge = want.n_edge, n_nbt = want.n_nbt;
  for (int i = 0; i < n_edge; ++i) {
    if (stage == 2) {
      set(got.Spar_usdf, want.Spar_usdf, i, ties[r.below(8)]);
      for (int a = 0; a < D; ++a)
        set(got.Spar_exact, want.Spar_exact, D * i + a,
            want.ori_nbt_sub[D * i + a] + r.below(9) - 4);
    }
    if (stage == 4) set(got.Spar_F, want.Spar_F, i, r.between(-1, 1));
    if (stage == 5) set(got.Spar_Fext, want.Spar_Fext, i, r.between(-1, 1));
  }
  for (int i = 0; i < n_nbt && stage == 3; ++i) {
    set(got.Spar_sdf, want.Spar_sdf, i, plateau[r.below(4)]);
    if (i >= n_edge)
      set(got.Spar_usdf, want.Spar_usdf, i,
          D == 2 || r.below(60) ? ties[r.below(8)] : std::copysign(nan, r.below(2) - 0.5));
  }
}

TYPED_TEST(Engine, StagesReadOnlyTheirFields) {
  constexpr int D = TypeParam::D;
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    Random r(seed);
    const Point size{3 + r.below(12), 3 + r.below(12), D == 3 ? 1 + r.below(12) : 1};
    const Grid<double> Phi = randomFunction(static_cast<int>(seed) % kFunctions, size, r);
    compareStages<D>(Phi, randomImage(kNoisy, size, r), waves(size, r), 1 + seed % 3,
                     seed % 4 ? Weights{0.1, 0.7, 1, 1, 0.5} : Weights{.w3 = 0.7},
                     [&](int stage, auto& got, auto& want) { disturb<D>(r, stage, got, want); });
    if (this->HasFailure()) return;
  }
}

TYPED_TEST(Engine, WholeStepsEqualPlainLoops) {
  constexpr int D = TypeParam::D;
  typename TypeParam::Engine::Memory memory;  // shared by all steps, whatever their sizes
  for (unsigned seed = 1; seed <= 6; ++seed) {
    Random r(seed);
    const Point size = D == 3 ? Point{18 + r.below(9), 15, 13 + r.below(12)} : Point{40, 47, 1};
    Grid<double> Phi = randomFunction(seed % 2 ? kMask : kBlobs, size, r);
    const Grid<double> image = randomImage(static_cast<int>(seed) % kBroken, size, r);
    const Weights w = randomWeights(r);
    const int bwt = static_cast<int>(seed) % 5 - 1;  // below 1 works as 1
    const auto matPhi = toMatrix<D>(Phi), matImage = toMatrix<D>(image);
    for (int step = 0; step < 8; ++step) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
      tavrel::plain::LevelSet<D> want;
      want.UpdatePhi(Phi, bwt, image, w, Grid<double>(Phi));
      typename TypeParam::Engine got(memory, 1 + step % 3);
      got.UpdatePhi(matPhi.get(), bwt, matImage.get(), w.w1, kIdle, w.w3, w.w4, w.w5, kIdle, w.w7,
                    matPhi.get());
      expectSameState<D>(got, want, true);
      expectSame("Phi", matPhi->p, Phi.p);
      if (this->HasFailure()) return;
    }
  }
}

TYPED_TEST(Engine, BandOfWidthZeroIsTheEdge) {
  Random r(5);
  const Point size{13, 12, TypeParam::D == 3 ? 11 : 1};
  const Grid<double> Phi = randomFunction(kBlobs, size, r);
  compareStages<TypeParam::D>(Phi, Phi, Phi, 0, {});
}

TYPED_TEST(Engine, TellsOfDiagonalNeighboursOutsideANarrowBand) {
  constexpr int D = TypeParam::D;
  Random r(6);
  const Grid<double> Phi = randomFunction(kBlobs, Point{14, 13, D == 3 ? 12 : 1}, r);
  typename TypeParam::Engine got;
  tavrel::plain::LevelSet<D> want;
  const auto matPhi = toMatrix<D>(Phi);
  got.LabelEdges(matPhi.get());
  want.LabelEdges(Phi);
  got.Labelnbt(0, matPhi.get());
  want.Labelnbt(0, Phi);
  got.sFindUsdf();  // no test voxels: only the signs
  want.sFindUsdf();
  std::string lines;
  for (int i = 0; D == 3 && i < want.n_edge; ++i) {
    const int* c = &want.ori_nbt_sub[D * i];
    const Point q{std::max(c[0] - 1, 0), c[1], std::max(c[2] - 1, 0)};
    const int index = want.mask_indices.p[Phi.index(q)];
    if (index > want.n_nbt) lines += "ind10:" + std::to_string(index) + "\n";
  }
  EXPECT_EQ(lines.empty(), D == 2);
  testing::internal::CaptureStdout();
  got.sFindF(matPhi.get(), 0, 0, 0.3, 1, 1, 0, 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), lines);
  want.sFindF(Phi, {.w3 = 0.3, .w4 = 1, .w5 = 1});
  expectSameState<D>(got, want, true);
}

// ---- worked examples --------------------------------------------------------------------------

/// A grid of n voxels an axis filled with f(x, y, z).
template <int D, class F>
Grid<double> filled(int n, F f) {
  Grid<double> g(Point{n, n, D == 3 ? n : 1});
  g.scan([&](Point q) { g.p[g.index(q)] = f(q[0], q[1], q[2]); });
  return g;
}

/// One step of the shipped engine; keeps the engine and the new function.
template <int D>
struct Step {
  typename Twin<D>::Engine engine;
  std::unique_ptr<typename Twin<D>::Matrix> Phi, image;

  Step(const Grid<double>& function, const Weights& w, const Grid<double>& img)
      : Phi(toMatrix<D>(function)), image(toMatrix<D>(img)) {
    engine.UpdatePhi(Phi.get(), 2, image.get(), w.w1, 0, w.w3, w.w4, w.w5, 0, w.w7, Phi.get());
  }
  Step(const Grid<double>& function, const Weights& w) : Step(function, w, function) {}
  /// Band index of the voxel (x, y, z).
  int at(int x, int y, int z) const {
    return engine.mask_indices->p[x + y * engine.sizeX + z * engine.mxn];
  }
};

TYPED_TEST(Engine, BandOfAnyWidthEndsAtTheBorder) {
  constexpr int D = TypeParam::D;
  const Grid<double> Phi =
      filled<D>(7, [](int x, int y, int) { return x == 5 && y == 1 ? 1 : -1; });
  for (const int bwt : {6, 100, std::numeric_limits<int>::max()}) {
    const auto matPhi = toMatrix<D>(Phi);
    typename TypeParam::Engine e;
    e.Initialize(matPhi.get(), bwt);
    EXPECT_EQ(e.n_nbt, std::ssize(Phi.p)) << bwt;
  }
}

TYPED_TEST(Engine, PlaneIsItsOwnDistance) {
  constexpr int D = TypeParam::D;
  const Step<D> s(filled<D>(12, [](int x, int, int) { return x - 5.5; }), {.w1 = 0.25});
  const auto& e = s.engine;
  ASSERT_EQ(e.n_nbt, 6 * 12 * (D == 3 ? 12 : 1));
  for (int i = 0; i < e.n_nbt; ++i) {
    EXPECT_EQ(e.Spar_sdf[i], e.ori_nbt_sub[D * i] - 5.5);
    EXPECT_EQ(e.Spar_exact[D * i], 5.5);
    EXPECT_EQ(e.Spar_exact[D * i + 1], e.ori_nbt_sub[D * i + 1]);
    EXPECT_EQ(e.Spar_Fext[i], 0.25);  // no curvature, no region term: the pressure alone
    EXPECT_EQ(s.Phi->p[e.ori_nbt_ind[i]], e.Spar_sdf[i] - 1);  // the fastest moves by one voxel
  }
}

TYPED_TEST(Engine, SingleVoxel) {
  constexpr int D = TypeParam::D;
  const Step<D> s(
      filled<D>(11, [](int x, int y,
                       int z) { return x == 5 && y == 5 && z == (D == 3 ? 5 : 0) ? 0.5 : -0.5; }),
      {});
  EXPECT_EQ(s.engine.n_pedge, 1);
  EXPECT_EQ(s.engine.n_nedge, 2 * D);
  EXPECT_EQ(s.engine.n_ptest, 0);
  EXPECT_EQ(s.engine.n_nbt, D == 3 ? 275 : 45);
  // All axes cross half-way: the nearest point of the plane (line) through the crossings.
  EXPECT_DOUBLE_EQ(s.engine.Spar_usdf[0], 0.5 / std::sqrt(D));
  EXPECT_DOUBLE_EQ(s.engine.Spar_exact[0], 5 + 0.5 / D);  // ties go to the + neighbour
}

TYPED_TEST(Engine, ZeroOnTheVoxelIsOnTheInterface) {
  constexpr int D = TypeParam::D;
  const Grid<double> Phi = filled<D>(
      7, [](int x, int y, int z) { return x == 3 && y == 3 && z == (D == 3 ? 3 : 0) ? 0.0 : 0.5; });
  const Step<D> s(Phi, {.w1 = 1});
  EXPECT_EQ(s.engine.n_nedge, 1);
  const int i = s.engine.n_pedge;
  EXPECT_EQ(s.engine.Spar_usdf[i], 0);
  EXPECT_EQ(s.engine.Spar_exact[D * i], 3);
  EXPECT_EQ(s.engine.Spar_Fext[i], 1);
  for (std::size_t g = 0; g < Phi.p.size(); ++g) EXPECT_TRUE(std::isfinite(s.Phi->p[g]));
}

TYPED_TEST(Engine, CurvatureOfABall) {
  constexpr int D = TypeParam::D;
  for (double radius : {6.0, 9.5}) {
    const Step<D> s(filled<D>(25,
                              [&](int x, int y, int z) {
                                return std::hypot(x - 12, y - 12, D == 3 ? z - 12 : 0) - radius;
                              }),
                    {.w3 = 1});
    double sum = 0;
    for (int i = 0; i < s.engine.n_edge; ++i) sum -= s.engine.Spar_F[i];
    EXPECT_NEAR(sum / s.engine.n_edge, (D - 1) / radius, 0.15 * (D - 1) / radius);
  }
}

TYPED_TEST(Engine, RegionTermComparesBothSides) {
  constexpr int D = TypeParam::D;
  // Image 2 inside and 5 outside: an inside voxel is no different from the inside, 3 from outside.
  const Grid<double> Phi = filled<D>(23, [](int x, int, int) { return x < 11 ? -0.5 : 0.5; });
  Grid<double> image = Phi;
  for (double& v : image.p) v = v < 0 ? 2 : 5;
  const Step<D> s(Phi, {.w4 = 10, .w5 = 4}, image);
  for (int i = 0; i < s.engine.n_edge; ++i)
    EXPECT_EQ(s.engine.Spar_F[i], i < s.engine.n_pedge ? -3 * 10 : 3 * 4);
  const Step<D> off(Phi, {.w1 = 1, .w4 = 0, .w5 = 4}, image);  // w4 = 0 switches off w5 as well
  for (int i = 0; i < off.engine.n_edge; ++i) EXPECT_EQ(off.engine.Spar_F[i], 1);
}

TYPED_TEST(Engine, WeightsScaleTheSpeedNotTheStep) {
  constexpr int D = TypeParam::D;
  Random r(77);
  const Grid<double> Phi = randomFunction(kBlobs, Point{20, 19, D == 3 ? 18 : 1}, r);
  const Grid<double> image = randomImage(kNoisy, Phi.size, r);
  const Step<D> once(Phi, {0.1, 0.02, 1, 1.1, 0}, image);
  const Step<D> twice(Phi, {0.2, 0.04, 2, 2.2, 0}, image);
  expectSame("Phi", twice.Phi->p, std::vector<double>(once.Phi->p, once.Phi->p + Phi.p.size()));

  const Step<D> none(Phi, {}, image);  // a pure re-initialisation of the band
  for (std::size_t g = 0; g < Phi.p.size(); ++g) {
    const int i = none.engine.mask_indices->p[g];
    EXPECT_EQ(none.Phi->p[g], i < none.engine.n_nbt ? none.engine.Spar_sdf[i] : Phi.p[g]);
  }
}

TYPED_TEST(Engine, NoInterfaceChangesNothing) {
  constexpr int D = TypeParam::D;
  for (double side : {-0.25, 0.25}) {
    const Grid<double> Phi = filled<D>(4, [&](int, int, int) { return side; });
    const Step<D> s(Phi, {.w1 = 1, .w4 = 1});
    const auto& e = s.engine;
    expectSame("Phi", s.Phi->p, Phi.p);
    EXPECT_EQ(e.n_edge + e.n_nbt, 0);
    expectSame("label", e.label->p, std::vector<signed char>(Phi.p.size(), side > 0 ? 3 : -3));
    expectSame("mask_indices", e.mask_indices->p, std::vector<int>(Phi.p.size(), side > 0));
    expectSame("Spar_F", e.Spar_F, std::vector<double>{0});
    expectSame("Spar_Fext", e.Spar_Fext, std::vector<double>{-1e5, 1e5});
    expectSame("Spar_exact", e.Spar_exact, std::vector<double>(2 * D, 1e5));
    expectSame("Spar_usdf", e.Spar_usdf, std::vector<double>{1e5, 1e5});
    expectSame("Spar_sdf", e.Spar_sdf, std::vector<double>{1e5, 1e5});
  }
}

TYPED_TEST(Engine, OnlyAnUnusedEngineSpeaks) {
  constexpr int D = TypeParam::D;
  testing::internal::CaptureStdout();
  { const typename TypeParam::Engine unused; }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), TypeParam::destructorLine);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  {
    const Step<D> used(filled<D>(6, [](int x, int, int) { return x - 2.5; }), {.w4 = 1});
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(EngineCoupling, PullsTowardsTheReferenceIn3D) {
  Random r(9);
  const Grid<double> Phi = randomFunction(kBlobs, Point{12, 11, 10}, r);
  const Weights free{0.3, 0.1, 0, 0, 0}, coupled{0.3, 0.1, 0, 0, 0.75};
  const Step<3> without(Phi, free), with(Phi, coupled);
  for (int i = 0; i < with.engine.n_nbt; ++i) {
    const double pull = with.engine.Spar_sdf[i] - Phi.p[with.engine.ori_nbt_ind[i]];
    EXPECT_EQ(with.engine.Spar_Fext[i], pull * 0.75 + without.engine.Spar_Fext[i]);
  }
}

TEST(EngineCoupling, IsAbsentIn2D) {
  Random r(10);
  const Grid<double> Phi = randomFunction(kBlobs, Point{22, 21, 1}, r);
  const Step<2> want(Phi, {0.3, 0.1, 1, 1, 0});
  vox2DLevelSet<double, char> e;
  const auto got = toMatrix<2>(Phi), image = toMatrix<2>(Phi);
  e.UpdatePhi(got.get(), 2, image.get(), 0.3, 0, 0.1, 1, 1, 0, 0.75, nullptr);  // not read
  expectSame("Phi", got->p, std::vector<double>(want.Phi->p, want.Phi->p + Phi.p.size()));
}

}  // namespace
