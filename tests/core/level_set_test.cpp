// The plain level-set classes: worked examples whose answers are known by hand, shapes whose
// distances are known, objects filled by hand, and the guards.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>

#include "grids.h"
#include "process.h"

namespace {

using namespace tavrel::test;

struct Weights {
  double w1 = 0, w3 = 0, w4 = 0, w5 = 0, w7 = 0;
};

/// One step of an object of either dimension; keeps the object and the new function.
template <int D, class T = double>
struct Step {
  LevelSetOf<D, T> object;
  std::unique_ptr<MatrixOf<D, T, char>> Phi;

  Step(const Grid<double>& function, const Weights& w, const Grid<double>& img, int bwt = 2)
      : Phi(toMatrix<MatrixOf<D, T, char>>(function)) {
    const auto image = toMatrix<MatrixOf<D, T, char>>(img);
    object.UpdatePhi(Phi.get(), bwt, image.get(), w.w1, 7, w.w3, w.w4, w.w5, -7, w.w7, Phi.get());
  }
  Step(const Grid<double>& function, const Weights& w) : Step(function, w, function) {}
  int neighbour(int i, int k) {
    return tavrel::plain::Face<LevelSetOf<D, T>>::neighbours(object)[2 * D * i + k];
  }
};

template <int D>
Point cube(int n) {
  return {n, n, D == 3 ? n : 1};
}

/// A voxel in the middle of a cube of an odd number of voxels an axis.
template <int D>
Grid<double> single(int n, double value, double others) {
  Grid<double> g(cube<D>(n), others);
  g.p[g.p.size() / 2] = value;
  return g;
}

template <class Dimension>
class PlainStep : public testing::Test {};
using Dimensions = testing::Types<std::integral_constant<int, 2>, std::integral_constant<int, 3>>;
TYPED_TEST_SUITE(PlainStep, Dimensions);

TYPED_TEST(PlainStep, BandOfAnyWidthEndsAtTheBorder) {
  constexpr int D = TypeParam::value;
  const auto Phi = filled(cube<D>(7), [](int x, int y, int) { return x == 5 && y == 1 ? 1 : -1; });
  for (const int bwt : {6, 100, std::numeric_limits<int>::max()})
    EXPECT_EQ(Step<D>(Phi, {}, Phi, bwt).object.n_nbt, std::ssize(Phi.p)) << bwt;
  const Weights w{.w1 = 1, .w3 = 0.3};
  for (const int bwt : {0, -3})  // work as 1
    EXPECT_EQ(toGrid(*Step<D>(Phi, w, Phi, bwt).Phi), toGrid(*Step<D>(Phi, w, Phi, 1).Phi));
}

TYPED_TEST(PlainStep, PlaneIsItsOwnDistance) {
  constexpr int D = TypeParam::value;
  const Step<D> s(filled(cube<D>(12), [](int x, int, int) { return x - 5.5; }), {.w1 = 0.25});
  const auto& e = s.object;
  ASSERT_EQ(e.n_nbt, 6 * 12 * (D == 3 ? 12 : 1));
  for (int i = 0; i < e.n_nbt; ++i) {
    EXPECT_EQ(e.Spar_sdf[i], e.ori_nbt_sub[D * i] - 5.5);
    EXPECT_EQ(e.Spar_exact[D * i], 5.5);
    EXPECT_EQ(e.Spar_exact[D * i + 1], e.ori_nbt_sub[D * i + 1]);
    EXPECT_EQ(e.Spar_Fext[i], 0.25);  // no curvature, no region term: the pressure alone
    EXPECT_EQ(s.Phi->p[e.ori_nbt_ind[i]], e.Spar_sdf[i] - 1);  // the fastest moves by one voxel
  }
}

TYPED_TEST(PlainStep, SingleVoxelFillsEveryField) {
  constexpr int D = TypeParam::value;
  const int centre = D == 3 ? 665 : 60, n = D == 3 ? 275 : 45;
  Step<D> s(single<D>(11, 0.5, -0.5), {});
  auto& e = s.object;
  EXPECT_EQ((std::array{e.n_pedge, e.n_nedge, e.n_edge, e.n_ptest, e.n_ntest, e.n_nbt}),
            (std::array{1, 2 * D, 2 * D + 1, 0, n - 2 * D - 1, n}));
  // All axes cross half-way: the nearest point of the plane (line) through the crossings.
  EXPECT_DOUBLE_EQ(e.Spar_usdf[0], 0.5 / std::sqrt(D));
  EXPECT_DOUBLE_EQ(e.Spar_exact[0], 5 + 0.5 / D);  // ties go to the + neighbour
  EXPECT_EQ(e.ori_pedge_ind[0], centre);
  EXPECT_EQ(e.ori_nedge_ind[0], D == 3 ? centre - 121 : centre - 11);
  EXPECT_EQ(e.ori_ntest_ind[0], e.ori_nbt_ind[e.n_edge]);
  for (int i = 0; i < n; ++i) EXPECT_EQ(e.mask_indices->p[e.ori_nbt_ind[i]], i);
  const int offsets[] = {1, -1, 11, -11, 121, -121};
  for (int k = 0; k < 2 * D; ++k) EXPECT_EQ(e.ori_nbt_ind[s.neighbour(0, k)], centre + offsets[k]);
  const int labels[] = {1, -1, -2, -2, -3};
  for (int x = 0; x < 5; ++x) {
    EXPECT_EQ(tavrel::number(e.label->p[centre + x]), labels[x]);
    EXPECT_EQ(e.mask_nbt->p[centre + x], x < 4);
  }
  EXPECT_EQ(e.mask_indices->p[centre + 4], n);
}

TYPED_TEST(PlainStep, ZeroOnTheVoxelIsOnTheInterface) {
  constexpr int D = TypeParam::value;
  const auto Phi = single<D>(7, 0, 0.5);
  const Step<D> s(Phi, {.w1 = 1});
  const int i = s.object.n_pedge;
  EXPECT_EQ(s.object.n_nedge, 1);
  EXPECT_EQ(s.object.Spar_usdf[i], 0);
  EXPECT_TRUE(std::signbit(s.object.Spar_sdf[i])) << "0 on the negative side is -0";
  EXPECT_EQ(s.object.Spar_exact[D * i], 3);
  EXPECT_EQ(s.object.Spar_Fext[i], 1);
  for (std::size_t g = 0; g < Phi.p.size(); ++g) EXPECT_TRUE(std::isfinite(s.Phi->p[g]));
}

constexpr std::array kCentre{13.2, 12.9, 13.1};

/// From the centre of a ball in the middle of a cube of 27 voxels an axis, or of its disc.
template <int D>
double fromCentre(int x, int y, int z) {
  return std::hypot(x - kCentre[0], y - kCentre[1], D == 3 ? z - kCentre[2] : 0);
}

/// Mean curvature, distance and extended speed of a ball, in either precision.
template <int D, class T>
void checkBall() {
  for (const double radius : {6.0, 9.5}) {
    // The function is no distance at first, and its speed grows along x.
    const auto ball = filled(
        cube<D>(27), [=](int x, int y, int z) { return 3 * (fromCentre<D>(x, y, z) - radius); });
    Step<D, T> s(ball, {.w3 = 1, .w4 = 1e-9});
    auto& e = s.object;
    double curvature = 0;
    for (int i = 0; i < e.n_edge; ++i) curvature -= e.Spar_F[i] / e.n_edge;
    EXPECT_NEAR(curvature, (D - 1) / radius, 0.1 * (D - 1) / radius);

    for (int i = 0; i < e.n_edge; ++i) e.Spar_F[i] = e.ori_nbt_sub[D * i];
    e.sFindEdgeFext();
    e.sCalFext(0, s.Phi.get());
    double distance = 0, extension = 0, slope = 0, inner = 0;  // mean errors
    for (int i = 0; i < e.n_nbt; ++i) {
      const int* q = e.ori_nbt_sub + D * i;
      const double length = fromCentre<D>(q[0], q[1], q[D - 1]);
      distance += std::fabs(e.Spar_sdf[i] - (length - radius)) / e.n_nbt;
      // What stands at the voxel is what stands at the foot of its normal.
      const double foot = kCentre[0] + (q[0] - kCentre[0]) / length * radius;
      extension += std::fabs(e.Spar_Fext[i] - foot) / e.n_nbt;
      double squares = 0;
      bool inside = true;
      for (int a = 0; a < D; ++a) {
        const int plus = s.neighbour(i, 2 * a), minus = s.neighbour(i, 2 * a + 1);
        inside = inside && std::max(plus, minus) < e.n_nbt;
        squares += std::pow((e.Spar_sdf[plus] - e.Spar_sdf[minus]) / 2, 2);
      }
      if (!inside) continue;
      slope += std::fabs(std::sqrt(squares) - 1);
      ++inner;
    }
    EXPECT_LT(distance, 0.1);
    EXPECT_LT(extension, 0.27);
    EXPECT_LT(slope / inner, 0.08);
  }
}

TYPED_TEST(PlainStep, BallHasItsCurvatureItsDistanceAndAConstantExtension) {
  checkBall<TypeParam::value, double>();
  checkBall<TypeParam::value, float>();
}

TYPED_TEST(PlainStep, RegionTermComparesBothSides) {
  constexpr int D = TypeParam::value;
  // Image 2 inside and 5 outside: an inside voxel is no different from the inside, 3 from outside.
  // Beyond the box of 10 voxels the image does not matter.
  const auto Phi = filled(Point{27, 5, D == 3 ? 5 : 1}, [](int x, int, int) { return x - 12.5; });
  Grid<double> image = Phi;
  for (double& v : image.p) v = v < -11 || v > 11 ? 99 : v < 0 ? 2 : 5;
  const Step<D> s(Phi, {.w4 = 10, .w5 = 4}, image);
  for (int i = 0; i < s.object.n_edge; ++i)
    EXPECT_EQ(s.object.Spar_F[i], i < s.object.n_pedge ? -3 * 10 : 3 * 4);
  const Step<D> off(Phi, {.w1 = 1, .w4 = 0, .w5 = 4}, image);  // w4 = 0 switches off w5 as well
  for (int i = 0; i < off.object.n_edge; ++i) EXPECT_EQ(off.object.Spar_F[i], 1);
}

TYPED_TEST(PlainStep, NoInterfaceChangesNothing) {
  constexpr int D = TypeParam::value;
  for (const double side : {-0.25, 0.25}) {
    const Grid<double> Phi(cube<D>(4), side);
    const Step<D> s(Phi, {.w1 = 1, .w4 = 1});
    EXPECT_EQ(toGrid(*s.Phi), Phi);
    EXPECT_EQ(s.object.n_edge + s.object.n_nbt, 0);
    EXPECT_EQ(toGrid(*s.object.label), Grid<double>(Phi.size, side > 0 ? 3 : -3));
    EXPECT_EQ(toGrid(*s.object.mask_indices), Grid<double>(Phi.size, side > 0));
    expectSame("Spar_Fext", s.object.Spar_Fext, std::vector<double>{-1e5, 1e5});
  }
}

TYPED_TEST(PlainStep, OnlyAnUnusedObjectSpeaks) {
  constexpr int D = TypeParam::value;
  const auto unused = runApart([] { LevelSetOf<D>(); });
  const std::string line = "empty vox" + std::to_string(D) + "DLevelSet destructed\n";
  EXPECT_EQ(unused, (Finished{Finished::returned, line, ""}));
  const auto used = runApart(
      [] { Step<D>(filled(cube<D>(6), [](int x, int, int) { return x - 2.5; }), {.w4 = 1}); });
  EXPECT_EQ(used, (Finished{Finished::returned, "", ""}));
}

/// Digest of functions after some steps in 2-D: ties, noise and masks, where all rules of the plane
/// take part.
TEST(PlainStep2D, KeepsItsBits) {
  std::uint64_t digest = 1469598103934665603u;
  const Point size{41, 38, 1};
  for (const int kind : {kTies, kNoise, kMask}) {
    Random r(static_cast<unsigned>(kind));
    Grid<double> Phi = filled(size, [&](int x, int y, int) {
      if (kind == kMask) return (x * x + 2 * y * y) % 90 < 40 ? -0.5 : 0.5;
      return kind == kTies ? r.below(7) * 0.5 - 1.5 : r.between(-1, 1);
    });
    const auto image = filled(size, [&](int x, int, int) { return x / 40.0 + r.between(0, 1); });
    for (int step = 0; step < 5; ++step) {
      Phi = toGrid(*Step<2>(Phi, {0.1, 0.05, 1, 1.1, 3}, image, 1 + kind % 2).Phi);
      for (const double v : Phi.p)
        digest = (digest ^ std::bit_cast<std::uint64_t>(v)) * 1099511628211u;
    }
  }
  EXPECT_EQ(digest, 5710168736552433104u);
}

// ---- by hand ------------------------------------------------------------------------------------

TEST(ByHand, SubstractPhiNeedsFourFields) {
  vox3DLevelSet<double, char> e;
  e.sizeX = 1;  // so that the object releases what it is given
  e.n_nbt = 3;
  e.ori_nbt_ind = new int[3]{4, 0, 7};
  e.Spar_Fext = new double[5]{0.5, -2, 1, -1e5, 1e5};
  e.Spar_sdf = new double[5]{0.25, -1, 3, 1e5, 1e5};
  const auto Phi = toMatrix<Image>(Grid<double>({2, 2, 2}, 9));
  e.SubstractPhi(Phi.get());
  expectSame("Phi", Phi->p, std::vector<double>{0, 9, 9, 9, 0, 9, 9, 2.5});
  std::fill_n(e.Spar_Fext, 3, 0.0);  // no speed: the signed distance alone
  e.SubstractPhi(Phi.get());
  expectSame("Phi", Phi->p, std::vector<double>{-1, 9, 9, 9, 0.25, 9, 9, 3});
}

/// Two edge voxels and a test voxel between them along x, which is its own neighbour along y and z.
template <int D>
struct Between : LevelSetOf<D> {
  int* const links = new int[6 * D];

  Between() {
    this->sizeX = 1;
    this->n_edge = 2;
    this->n_nbt = 3;
    std::fill_n(links, 6 * D, 2);
    std::copy_n(std::array{0, 1}.begin(), 2, links + 4 * D);
    tavrel::plain::Face<LevelSetOf<D>>::neighbours(*this) = links;
    this->Spar_usdf = new double[5]{0.5, 0.5, 1.5, 1e5, 1e5};
    this->Spar_Fext = new double[5]{3, 4, 0, -1e5, 1e5};
  }
};

TEST(ByHand, ExtensionTakesItsFields) {
  Between<3> e;
  e.sCalFext(0, nullptr);
  EXPECT_EQ(e.Spar_Fext[2], 4) << "equal distances: the - neighbour";
  e.ori_nbt_ind = new int[3]{2, 1, 0};
  e.Spar_sdf = new double[3]{1, 1, 5};
  e.sCalFext(0.5, toMatrix<Image>(Grid<double>({3, 1, 1}, 2)).get());
  expectSame("Fext", e.Spar_Fext, std::vector{2.5, 3.5, 4 + 0.5 * 3});
  Between<2> f;
  f.sCalFext(0, nullptr);
  EXPECT_EQ(f.Spar_Fext[2], 3) << "equal distances: the + neighbour";
  f.Spar_usdf[2] = 0.5;
  f.links[10] = f.links[11] = 1;
  f.sCalFext(0, nullptr);
  EXPECT_EQ(f.Spar_Fext[2], 3.5) << "as far away: both still count, with nothing to weight by";
}

TEST(ByHand, LabelnbtWorksFromLabelsAndIndices) {
  const auto Phi = toMatrix<Image>(Grid<double>({5, 4, 3}, -1.5));
  vox3DLevelSet<double, char> e;
  e.LabelEdges(Phi.get());
  EXPECT_EQ(e.n_edge, 0);
  e.label->p[22] = 1;  // (2, 0, 1), as another function would have it
  e.mask_indices->p[22] = 1;
  e.label->p[21] = static_cast<char>(-1);
  e.Labelnbt(1, Phi.get());
  EXPECT_EQ((std::array{e.n_pedge, e.n_nedge, e.n_ptest, e.n_nbt}), (std::array{1, 1, 0, 24}));
  EXPECT_EQ(e.ori_nbt_ind[0], 22);
  EXPECT_EQ(e.spar_nbt_6neigh_ind[1], 1) << "-x of the first is the second";
  EXPECT_EQ(e.mask_indices->p[4], 24);
}

TEST(Guards, EndTheProcess) {
  const auto Phi = toMatrix<Image>(single<3>(5, 1, -1));
  vox3DLevelSet<double, char> e;
  e.LabelEdges(Phi.get());
  e.mxn = 24;
  EXPECT_EQ(runApart([&] { e.Labelnbt(2, Phi.get()); }),
            (Finished{1, "exception happened \n", ""}));
  e.mxn = 25;
  e.mask_indices->p[62 + 50] = 4;  // +z of the edge voxel at +z
  EXPECT_EQ(runApart([&] { e.Labelnbt(0, Phi.get()); }),
            (Finished{1, "", "neighbor index wrong, exit11\n"}));
}

TEST(Guards, TellOfDiagonalNeighboursOutsideABandOfNoWidth) {
  const auto Phi = toMatrix<Image>(single<3>(5, -1, 1));
  vox3DLevelSet<double, char> e;
  e.Initialize(Phi.get(), 0);
  delete std::exchange(e.label, nullptr);  // is not looked at without the region term
  std::string lines;  // at -x and -z of the centre and of four of its neighbours
  for (int n = 0; n < 5; ++n) lines += "ind10:8\n";
  EXPECT_EQ(runApart([&] { e.sFindF(Phi.get(), 0, 0, 0.3, 0, 1, 0, 0); }),
            (Finished{Finished::returned, lines, ""}));
}

}  // namespace
