// The fast step against the plain class, stage by stage: every field equal in all bits on random
// functions and images, with any number of threads, and on fields that a step hardly ever produces.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "exact/step.h"
#include "grids.h"

namespace {

using namespace tavrel::test;
using tavrel::exact::Band;
using tavrel::exact::Level;
using tavrel::exact::Weights;
using LevelSet = LevelSetOf<3>;

template <class T, class U>
void expectSame(const char* field, const T* got, const U* want, std::size_t count) {
  tavrel::test::expectSame(field, got, std::span(want, count));
}

void expectSameBand(const Level& level, const Band& b, const LevelSet& e) {
  const int got[] = {b.n_pedge, b.n_edge, b.n_ptest, b.n_nbt};
  const int want[] = {e.n_pedge, e.n_edge, e.n_ptest, e.n_nbt};
  ASSERT_TRUE(std::equal(got, got + 4, want)) << "counts differ";
  const std::size_t n = e.n_nbt;
  expectSame("ind", b.ind, e.ori_nbt_ind, n);
  expectSame("sub", b.sub, e.ori_nbt_sub, 3 * n);
  expectSame("neighbours", b.neighbours, e.spar_nbt_6neigh_ind, 6 * n);
  expectSame("Phi", b.Phi, e.Spar_Phi, n);
  for (std::size_t g = 0; g < level.sides().size(); ++g) {
    ASSERT_EQ(level.sides()[g] == 1, tavrel::number(e.label->p[g]) > 0) << "side of " << g;
    ASSERT_EQ(tavrel::exact::slotOf(level.indices()[g], b.n_nbt), e.mask_indices->p[g]) << g;
  }
}

/// Overwrites what a stage hands on, in both alike, with values that a step hardly ever produces:
/// equal, unknown and unordered distances, plateaus, points nearer than any distance says.
void disturb(int stage, Random& r, const Band& b, const LevelSet& e) {
  const auto set = [](double* to, double* alike, int n, double v) { to[n] = alike[n] = v; };
  const double ties[] = {0.5, 1, 1.00002, 1.000052, 2, 3, 100000, 100001};
  const double plateau[] = {0, 0, std::ldexp(1, -400), 0.5};  // the gradient's cube vanishes
  for (int i = 0; i < b.n_nbt; ++i) {
    const bool edge = i < b.n_edge;
    if (stage == 0 && edge) {
      set(b.usdf, e.Spar_usdf, i, ties[r.below(8)]);
      for (int a = 0; a < 3; ++a)
        set(b.exact, e.Spar_exact, 3 * i + a, b.sub[3 * i + a] + r.below(9) - 4);
    }
    if (stage == 1) set(b.sdf, e.Spar_sdf, i, plateau[r.below(4)]);
    if (stage == 1 && !edge)
      set(b.usdf, e.Spar_usdf, i,
          r.below(60) ? ties[r.below(8)] : std::copysign(kNaN, r.below(2) - 0.5));
    if (stage == 2 && edge) set(b.F, e.Spar_F, i, r.between(-1, 1));
    // The fastest voxel has speed 1, and where the speed is the distance the new value is 0.
    if (stage == 3)
      set(b.Fext, e.Spar_Fext, i,
          i == 0       ? 1
          : r.below(3) ? r.between(-1, 1)
                       : std::clamp(e.Spar_sdf[i], -1.0, 1.0));
  }
}

/// One step of both, compared after every stage. `Phi` is the function of the plain one.
void compareStep(Level& level, Image& Phi, const double* fastPhi, Image& image, int bwt,
                 const Weights& w, Random* disturbed) {
  const auto between = [&](int stage, const Band& b, const LevelSet& e) {
    if (disturbed) disturb(stage, *disturbed, b, e);
  };
  constexpr double idle = 7.25;  // weights 2 and 6 have no effect
  LevelSet e;
  e.Initialize(&Phi, bwt);
  const Band b = level.findBand();
  expectSameBand(level, b, e);
  const std::size_t n = e.n_nbt;
  if (e.n_edge > 0 && !testing::Test::HasFailure()) {
    e.sFindEdgeExact();
    level.findEdgePoints(b);
    between(0, b, e);
    e.sFindUsdf();
    const auto sums = level.findDistances(b, w.w4 != 0);
    expectSame("exact", b.exact, e.Spar_exact, 3 * n + 6);
    expectSame("usdf", b.usdf, e.Spar_usdf, n + 2);
    expectSame("sdf", b.sdf, e.Spar_sdf, n + 2);
    between(1, b, e);
    e.sFindF(&image, w.w1, idle, w.w3, w.w4, w.w5, -idle, w.w7);
    level.findSpeed(b, w, sums);
    expectSame("F", b.F, e.Spar_F, n + 1);
    between(2, b, e);
    e.sFindEdgeFext();
    tavrel::exact::extendToInterface(b, 0, b.n_edge);
    e.sCalFext(w.w7, &Phi);
    level.extendSpeed(b, w.w7);
    expectSame("Fext", b.Fext, e.Spar_Fext, n + 2);
    between(3, b, e);
    int inside = 0;
    const std::size_t voxels = level.sides().size();
    for (std::size_t g = 0; g < voxels; ++g) inside -= tavrel::isInside(Phi.p[g]);
    e.SubstractPhi(&Phi);
    for (std::size_t g = 0; g < voxels; ++g) inside += tavrel::isInside(Phi.p[g]);
    EXPECT_EQ(level.advance(b), inside);
    expectSame("new Phi", fastPhi, Phi.p, voxels);
  }
}

Weights randomWeights(Random& r) {
  const Weights choices[] = {{0, 0.01, 1, 1, 0},    {0, 0.01, 1, 1.2, 0}, {0.1, 0.2, 0.7, -0.5, 0},
                             {1, 0.3, 0, 2, 0},     {0, 0, 0, 0, 0},      {0, 0.01, 1, 0, 0.4},
                             {-0.3, 0, 1e-3, 5, 0}, {0, 1, -1, 1, -2},    {0, 1, 0, 0, 0}};
  return choices[r.below(9)];
}

/// Some steps on a random function and image, which may be disturbed between the stages.
void compare(Point size, int function, int imageKind, unsigned seed, int steps, bool disturbed,
             tavrel::exact::Workspace& memory) {
  SCOPED_TRACE(testing::Message() << size[0] << "x" << size[1] << "x" << size[2] << " function "
                                  << function << " image " << imageKind << " seed " << seed);
  Random r(seed);
  const Grid<double> start = randomFunction(function, size, r);
  const auto image = toMatrix<Image>(randomImage(imageKind, size, r)), Phi = toMatrix<Image>(start);
  const int bwt = 1 + static_cast<int>(seed) % 3, threads = 1 + static_cast<int>(seed) % 4;
  std::vector<double> fast = start.p;
  Level level(fast.data(), image->p, {size[0], size[1], size[2]}, memory, threads, bwt);
  const Weights w = randomWeights(r);
  for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step)
    compareStep(level, *Phi, fast.data(), *image, bwt, w, disturbed ? &r : nullptr);
}

/// Sizes from a single voxel to boxes that hold whole windows of the region term, with rows that
/// end before, at and after a multiple of 64.
TEST(ExactStep, EqualsThePlainOneStageByStage) {
  const Point sizes[] = {{1, 1, 1},  {3, 2, 1},  {1, 7, 5},   {9, 1, 4},
                         {2, 2, 2},  {5, 6, 7},  {16, 9, 8},  {23, 22, 25},
                         {65, 4, 3}, {3, 40, 6}, {128, 3, 2}, {12, 31, 24}};
  tavrel::exact::Workspace memory;  // shared by all, whatever their sizes
  unsigned seed = 0;
  for (const Point size : sizes) {
    const int voxels = size[0] * size[1] * size[2];
    for (int function = 0; function < kFunctions; ++function) {
      if (voxels > 5000 && function > kSpots) continue;  // nearly all edge voxels: slow
      for (int repeat = 0; repeat < (voxels < 3000 ? 4 : 1); ++repeat, ++seed) {
        compare(size, function, static_cast<int>(seed % std::size(kImages)), seed, 1, false,
                memory);
        if (HasFailure()) return;
      }
    }
  }
}

TEST(ExactStep, EqualsThePlainOneOverManyStepsAndOnDisturbedFields) {
  tavrel::exact::Workspace memory;
  for (int n = 1; n <= 6; ++n) {
    const Point size{18 + n % 2, 15, 13 + n};
    compare(size, n % 2 ? kMask : kBlobs, n % kBroken, n, 8, false, memory);
  }
  for (unsigned seed = 1; seed <= 40 && !HasFailure(); ++seed) {
    Random r(seed);
    const Point size{3 + r.below(12), 3 + r.below(12), 1 + r.below(12)};
    compare(size, static_cast<int>(seed) % kFunctions, kUniform, seed, 2, true, memory);
  }
}

}  // namespace
