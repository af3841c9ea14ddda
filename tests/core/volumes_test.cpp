// Matrices and raw files: worked examples, plain loops on random input, and every fatal message.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "grids.h"
#include "process.h"
#include "voxRawVolumeData.h"

namespace {

using namespace tavrel::test;
using tavrel::plain::forBox;
using tavrel::plain::scan;

constexpr int kMost = std::numeric_limits<int>::max();

Random random_(7);

Grid<double> randomGrid(Point size, int values, double least) {
  return filled(size, [&](int, int, int) { return random_.below(values) + least; });
}

/// Whole numbers from -2 to 3: ties, signs and zeros are frequent.
Grid<double> randomGrid(Point size) { return randomGrid(size, 6, -2); }

/// A row of voxels.
Grid<double> row(std::initializer_list<double> values) {
  Grid<double> g(Point{static_cast<int>(values.size()), 1, 1});
  g.p = values;
  return g;
}

// ---- matrices ----------------------------------------------------------------------------------

/// What both dimensions share; `char` counts as signed.
template <int D>
void checkShared() {
  using Real = MatrixOf<D, double, char>;
  using Small = MatrixOf<D, char, double>;
  EXPECT_FALSE(Small().isnotempty());
  const Point size{2, 3, 1};
  const auto m = toMatrix<Small>(Grid<int>(size));
  *m = 3;
  *m += -5;
  EXPECT_EQ(m->Sum(), -12.0);
  EXPECT_EQ(toGrid(*m), Grid<double>(size, -2));
  EXPECT_EQ(toGrid(m->duplicate()), toGrid(*m));
  EXPECT_TRUE(m->isnotempty());
  EXPECT_EQ(m->dataaddress(), m->p);
  EXPECT_EQ(m->mxn, 6);
  const std::unique_ptr<int[]> sizes(m->getsize());
  EXPECT_TRUE(std::equal(size.begin(), size.begin() + D, sizes.get()));

  const auto phi = toMatrix<Real>(row({-0.5, 0.0, 0.5, kNaN}));
  EXPECT_EQ(toGrid(phi->Phi2VeC()), row({1, 0, 0, 1}));
  EXPECT_EQ(toGrid(phi->thresholding(0.0, 0.0)), row({0, 1, 0, 0}));
  EXPECT_EQ(toGrid(toMatrix<Small>(row({1, 0, -3}))->VeC2Phi()), row({-0.5, 0.5, 3.5}));
  const auto codes = toMatrix<Small>(row({-3, -2, -1, 1, 2, 3}));
  EXPECT_EQ(toGrid(codes->thresholding(-1, 1)), row({0, 0, 1, 1, 0, 0}));
}

TEST(Matrix, BothDimensionsShare) {
  checkShared<2>();
  checkShared<3>();
  EXPECT_EQ(toGrid(Image().duplicate()).p.size(), 0u);
  EXPECT_EQ(Image().filterMinNeigbor(), nullptr);
}

TEST(Matrix, MayEndTwice) {
  endTwice<Image>(2, 3, 4);
  endTwice<Slice>(2, 3);
  endTwice<voxRawVolumeData<double, char>>(nullptr, 0, 2, 3, 4);
}

TEST(Matrix, SlicesGoOutAndIn) {
  const auto g = randomGrid({4, 3, 5});
  const auto m = toMatrix<Mask>(g), reversed = toMatrix<Mask>(Grid<double>(g.size));
  for (int k = 0; k < 5; ++k)
    reversed->setslice(std::unique_ptr<MaskSlice>(m->getslice(k)).get(), 4 - k);
  EXPECT_EQ(toGrid(*reversed), filled(g.size, [&](int x, int y, int z) {
              return g[{x, y, 4 - z}];
            }));
}

TEST(Matrix, ProductWithMaskKeepsSignsOfZero) {
  const auto mask = toMatrix<Mask>(row({0, 1, -1, 0}));
  const std::unique_ptr<Image> product(*toMatrix<Image>(row({-7.5, 3.25, -1.0, 0.5})) * *mask);
  expectSame("product", product->p, std::vector{-0.0, 3.25, 1.0, 0.0});
}

TEST(Matrix, SeedSpansFractions) {
  const std::tuple<int, double, double, int, int> cases[] = {
      {184, 0.3, 0.7, 56, 128}, {220, 0.3, 0.7, 66, 154}, {100, 0.3, 0.7, 30, 70},
      {10, 0.3, 0.3, 0, 0},     {10, 0.7, 0.3, 0, 0},     {10, -1e300, 1e300, 0, 10},
      {10, kNaN, 2.0, 0, 10}};
  for (const auto& [size, min, max, first, end] : cases) {
    for (int axis = 0; axis < 3; ++axis) {
      Point sizes{2, 2, 2};
      sizes[axis] = size;
      std::array<double, 6> box{0, 1, 0, 1, 0, 1};
      box[2 * axis] = min;
      box[2 * axis + 1] = max;
      const auto m = toMatrix<Mask>(Grid<double>(sizes));
      std::apply([&](auto... edges) { m->setseed(edges...); }, box);
      Grid<double> want(sizes);
      scan(sizes,
           [&, first = first, end = end](Point q) { want[q] = q[axis] >= first && q[axis] < end; });
      EXPECT_EQ(toGrid(*m), want) << size << " along " << axis;
    }
  }
}

// ---- intensities -------------------------------------------------------------------------------

TEST(Intensities, NormalizeMapsRangeOfSample) {
  for (const Point size : {Point{100, 100, 19}, {100, 100, 20}, {101, 99, 31}, {3, 1, 1}}) {
    auto want = randomGrid(size, 1000, -50.5);
    want.p[1] = 1e4;  // in the sample or not, as the size has it
    const auto m = toMatrix<Image>(want);
    std::vector<double> sample;
    const std::size_t step = std::max<std::size_t>(want.p.size() / 100000, 1);
    for (std::size_t n = 0; n < want.p.size(); n += step) sample.push_back(want.p[n]);
    std::sort(sample.begin(), sample.end());
    for (double& v : want.p) v = (v - sample.front()) / (sample.back() - sample.front());
    std::ostringstream report;
    m->Normalize(&report);
    EXPECT_EQ(toGrid(*m), want);
    EXPECT_EQ(report.str(), "double sorting called\ndouble sorting called\n");
  }
  const auto report = [](auto element) {
    return runApart([=] { vox3DMat<decltype(element), void>(0, 1, 1).Normalize(); }).out;
  };
  EXPECT_EQ(report(0), "integer sorting called\ninteger sorting called\n");
  EXPECT_EQ(report(0.f), "float sorting called\nfloat sorting called\n");
  EXPECT_EQ(report('0'), "char sorting called\nchar sorting called\n");
}

TEST(Intensities, NormalizeWithoutContrastIsFinite) {
  auto m = toMatrix<Image>(filled(Point{100, 100, 20}, [](int x, int, int) { return x % 2; }));
  *m += 4;
  m->Normalize(nullptr);  // every second voxel is sampled: all 4
  EXPECT_EQ(m->p[0], 0.0);
  EXPECT_EQ(m->p[1], 1.0);
  m->p[2] = kNaN;  // counts as the largest of the sample
  m->Normalize(nullptr);
  EXPECT_TRUE(std::isnan(m->p[0]));
  Image(0, 3, 3).Normalize(nullptr);
}

TEST(Intensities, GammaIsThePower) {
  const auto m = toMatrix<Image>(row({0.0, 0.5, 1.75}));
  m->GammaAdjust(2.0);
  EXPECT_EQ(toGrid(*m), row({0.0, 0.25, 3.0625}));
}

// ---- resampling --------------------------------------------------------------------------------

/// Halves and doubles random volumes, against the value that the definition gives each voxel.
template <class Matrix>
void checkResampling() {
  for (const Point n : {Point{1, 1, 1}, {2, 0, 1}, {0, 3, -1}, {0, 0, 0}}) {
    const Point f{1 << n[0], 1 << n[1], 1 << std::max(n[2], 0)};
    const auto old = randomGrid({3 * f[0], 5 * f[1], 2 * f[2]});
    const auto first = filled({3, 5, 2}, [&](int i, int j, int k) {
      return old[{i * f[0], j * f[1], k * f[2]}];
    });
    auto smallest = first;
    scan(old.size, [&](Point q) {
      double& least = smallest[{q[0] / f[0], q[1] / f[1], q[2] / f[2]}];
      least = std::min(least, old[q]);
    });
    const auto m = toMatrix<Matrix>(old);
    EXPECT_EQ(toGrid(m->downsampleby2(n[0], n[1], n[2], "min")), smallest);
    m->selfdownsampleby2(n[0], n[1], n[2], "simple");
    EXPECT_EQ(toGrid(*m), first);
    m->selfupsampleby2(n[0], n[1], n[2], "simple");
    EXPECT_EQ(toGrid(*m), filled(old.size, [&](int i, int j, int k) {
                return first[{i / f[0], j / f[1], k / f[2]}];
              }));
    EXPECT_EQ(m->mxn, old.size[0] * old.size[1]);
  }
}

TEST(Resampling, FollowsDefinition) {
  checkResampling<Image>();
  checkResampling<Mask>();
}

TEST(Resampling, SingleAxesAndOddSizes) {
  const auto m = toMatrix<Mask>(row({1, 0, 1}));
  m->downsampleXby2("min");
  EXPECT_EQ(toGrid(*m), row({0}));
  m->upsampleYby2("simple");
  m->upsampleZby2("simple");
  m->upsampleXby2("simple");
  EXPECT_EQ(toGrid(*m), Grid<double>({2, 2, 2}));
  m->downsampleZby2("simple");
  m->downsampleYby2("min");
  EXPECT_EQ(toGrid(*m), row({0, 0}));
  EXPECT_EQ(m->mxn, 2);
}

TEST(Resampling, ChecksOnlyWhatItDoes) {
  const auto g = randomGrid({5, 4, 4});
  const auto m = toMatrix<Image>(g);
  m->selfdownsampleby2(-1, 0, 0, nullptr);
  m->selfupsampleby2(0, -2, 0, nullptr);
  EXPECT_EQ(toGrid(*m), g);
  Mask empty(0, 0, 0);
  empty.selfdownsampleby2(2000000000, 1, 1, "min");
  empty.selfupsampleby2(2000000000, 0, 0, "simple");
  EXPECT_EQ(sizeOf(empty), (Point{0, 0, 0}));
}

// ---- borders and neighbourhoods ----------------------------------------------------------------

TEST(Padding, SurroundsWithZerosAndIsUndone) {
  const auto g = randomGrid({5, 4, 3});
  const std::unique_ptr<Image> padded(toMatrix<Image>(g)->extension(1, 2, 0, 3, 2, 0));
  EXPECT_EQ(toGrid(*padded), filled({8, 7, 5}, [&](int i, int j, int k) {
              return i >= 1 && i < 6 && j < 4 && k >= 2 ? g[{i - 1, j, k - 2}] : 0.0;
            }));
  padded->selfdeextension(1, 2, 0, 3, 2, 0);
  EXPECT_EQ(toGrid(*padded), g);
  padded->selfdeextension(5, 0, 0, 0, 0, 0);
  EXPECT_EQ(sizeOf(*padded), (Point{0, 4, 3}));
  EXPECT_EQ(toGrid(padded->extension(0, 0, 0, 0, 0, 0)), toGrid(*padded));
}

TEST(MinimumFilter, TakesSmallestFaceNeighbour) {
  for (const Point size : {Point{6, 5, 4}, {3, 3, 3}, {10, 10, 2}, {2, 9, 9}}) {
    const auto g = randomGrid(size, 50, -9);
    auto want = g;
    scan(g.size, [&](Point q) {
      double least = 100;
      for (int a = 0; a < 3; ++a) {
        if (q[a] % (size[a] - 1) == 0) return;
        for (const int step : {-1, 1}) {
          Point neighbour = q;
          neighbour[a] += step;
          least = std::min(least, g[neighbour]);
        }
      }
      want[q] = least;
    });
    EXPECT_EQ(toGrid(toMatrix<Image>(g)->filterMinNeigbor()), want);
  }
}

/// Some passes of the dilation as the plain loop over blocks.
Grid<double> dilated(const Grid<double>& g, int passes) {
  if (passes == 0) return g;
  Grid<double> result = g;
  scan(g.size, [&](Point q) {
    if (g[q] > 0) forBox(q, 1, g.size, [&](Point b) { result[b] = 1; });
  });
  return dilated(result, passes - 1);
}

TEST(Dilation, FollowsPlainLoop) {
  for (int run = 0; run < 200; ++run) {
    const int passes = random_.below(5);
    Point size{random_.below(9), random_.below(9), random_.below(10)};
    const auto sparse = [](int, int, int) {
      return random_.below(20) ? -random_.below(4) : 1 + random_.below(3);
    };
    const auto volume = filled(size, sparse);
    size[2] = 1;
    const auto slice = filled(size, sparse);
    const auto m = toMatrix<vox3DMat<char, void>>(volume);
    const auto s = toMatrix<vox2DMat<char, void>>(slice);
    const char* const method = passes > 0 ? "box" : nullptr;  // not looked at for no pass
    m->imdilate3D(method, passes < 4 ? passes : kMost);
    s->imdilate2D(method, passes < 4 ? passes : kMost);
    ASSERT_EQ(toGrid(*m), dilated(volume, passes < 4 ? passes : 9)) << "passes " << passes;
    ASSERT_EQ(toGrid(*s), dilated(slice, passes < 4 ? passes : 9)) << "passes " << passes;
  }
}

// ---- raw files ---------------------------------------------------------------------------------

class RawFile : public FolderTest {
 protected:
  /// The bytes that a row of voxels is written as.
  template <class T = double>
  std::string written(const Grid<double>& voxels, int type) {
    voxRawVolumeData<T, void> raw;
    raw.setdata(toMatrix<vox3DMat<T, void>>(voxels).get());
    raw.setdata(raw.getMatobject());
    EXPECT_EQ(raw.write(path("out").c_str(), type), 1);
    return readFile(path("out"));
  }

  /// The voxels that `bytes` are read as.
  Grid<double> read(const std::string& bytes, int type, int voxels) {
    writeFile(path("in"), bytes);
    std::string name = path("in");
    voxRawVolumeData<double, char> raw(name.data(), type, voxels, 1, 1);
    *raw.getMatobject() = -9;
    EXPECT_EQ(raw.read(), 1);
    return toGrid(*raw.getMatobject());
  }
};

std::string bytesOf(std::initializer_list<int> list) { return {list.begin(), list.end()}; }

TEST_F(RawFile, WritesEveryFormat) {
  const auto v = row({0.0, 1.5, 255.0, 256.0, -1.0, 300.7, -0.5, 65535.0});
  EXPECT_EQ(written(v, 0), bytesOf({0, 1, 255, 0, 255, 44, 0, 255}));
  EXPECT_EQ(written(v, 1), bytesOf({0, 0, 1, 0, 255, 0, 0, 1, 255, 255, 44, 1, 0, 0, 255, 255}));
  EXPECT_EQ(written(row({1.5, 0.1}), 2), bytesOf({0, 0, 0xC0, 0x3F, 0xCD, 0xCC, 0xCC, 0x3D}));
  EXPECT_EQ(written(row({-2.0}), 3), bytesOf({0, 0, 0, 0, 0, 0, 0, 0xC0}));
  EXPECT_EQ(written(v, 5), "");
  const auto chars = row({1, -2});
  EXPECT_EQ(written<char>(chars, 0), bytesOf({1, 254}));
  EXPECT_EQ(written<char>(chars, 1), bytesOf({1, 0, 254, 255}));
  EXPECT_EQ(written<char>(chars, 2), bytesOf({0, 0, 0x80, 0x3F, 0, 0, 0, 0xC0}));
  EXPECT_EQ(written<char>(row({-2}), 3), bytesOf({0, 0, 0, 0, 0, 0, 0, 0xC0}));

  // The low bits of large values.
  const auto large = row({4294967296.0 + 258, -4294967296.0 - 1, 1e300, -0x1p63, kNaN, -kInfinity});
  EXPECT_EQ(written(large, 0), bytesOf({2, 255, 0, 0, 0, 0}));
  EXPECT_EQ(written(large, 1), bytesOf({2, 1, 255, 255, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(RawFile, ReadsEveryFormat) {
  EXPECT_EQ(read(bytesOf({200, 0, 255}), 0, 3), row({200, 0, 255}));
  EXPECT_EQ(read(bytesOf({255, 255, 0, 1}), 1, 2), row({-1, 256}));
  EXPECT_EQ(read(bytesOf({0, 0, 0xC0, 0x3F}), 2, 1), row({1.5}));
  EXPECT_EQ(read(bytesOf({0, 0, 0, 0, 0, 0, 0, 0xC0}), 3, 1), row({-2}));
  EXPECT_EQ(read("abcd", 7, 2), row({-9, -9}));
  // Short files end in zeros, long ones are cut.
  EXPECT_EQ(read(bytesOf({1, 0, 2, 0, 3}), 1, 4), row({1, 2, 0, 0}));
  EXPECT_EQ(read("", 2, 2), row({0, 0}));
  EXPECT_EQ(read(bytesOf({1, 2, 3}), 0, 2), row({1, 2}));
}

TEST_F(RawFile, LargeVolumesComeBack) {
  const Point size{1031, 211, 5};  // several buffers and a bit
  const auto g = randomGrid(size, 256, 0);
  voxRawVolumeData<double, char> out;
  out.setdata(toMatrix<Image>(g).get());
  std::string name = path("volume");
  for (const int type : {0, 1, 2, 3}) {
    out.write(name.c_str(), type);
    voxRawVolumeData<double, char> in(name.data(), type, size[0], size[1], size[2]);
    in.read();
    EXPECT_EQ(toGrid(*in.getMatobject()), g);
  }
}

// ---- messages ----------------------------------------------------------------------------------

using Action = std::function<void()>;

/// All actions end the process with a message on the error stream.
void expectEnd(const std::string& message, int status, const std::vector<Action>& actions) {
  for (const Action& action : actions)
    EXPECT_EQ(runApart(action), (Finished{status, "", message})) << &action - actions.data();
}

TEST(Fatal, MatrixMessages) {
  Image image(4, 4, 4);
  Mask mask(4, 4, 3), emptyMask;
  MaskSlice swapped(4, 3);
  expectEnd("getslice: input slice number incorrect, exit", 1,
            {[&] { image.getslice(4); }, [&] { image.getslice(-1); },
             [&] { mask.setslice(&swapped, 3); }});
  expectEnd("getslice: matrices dimensions don't match , exit", 1,
            {[&] { mask.setslice(&swapped, 0); }});
  expectEnd("two matrice are of different size or empty\n", 0,
            {[&] { image* mask; }, [&] { Image() * emptyMask; }});
  expectEnd("threshold values set incorrect, exit", 1, {[&] { mask.thresholding(1, -1); }});
  expectEnd("dimensions don't match, exit\n", 1,
            {[&] { image.downsampleby2(1, 3, 0, "none"); },
             [&] { mask.selfdownsampleby2(0, 0, 1, "min"); }});
  expectEnd("downsample method incorrect,exit\n", 1,
            {[&] { image.downsampleby2(0, 0, 1, "Min"); }, [&] { image.downsampleYby2(""); }});
  expectEnd("upsample method incorrect,exit\n", 1, {[&] { mask.selfupsampleby2(0, 0, 1, "min"); }});
  expectEnd("imdilate method not valid, exit\n", 1,
            {[&] { mask.imdilate3D("ball", 1); }, [&] { swapped.imdilate2D1("ball"); }});
}

TEST(Fatal, SizesThatDoNotFit) {
  Mask mask(4, 4, 4), flat(0, 1 << 30, 1);
  const Action actions[] = {[] { Image(-1, 2, 3); },
                            [] { Image(1 << 11, 1 << 10, 1 << 10); },
                            [] { Slice(1 << 16, 1 << 15); },
                            [&] { flat.upsampleYby2("simple"); },
                            [&] { mask.extension(0, 0, -1, 2, 0, 0); },
                            [&] { mask.extension(kMost, kMost, 0, 0, 0, 0); },
                            [&] { mask.selfdeextension(2, 3, 0, 0, 0, 0); },
                            [&] { mask.selfdeextension(0, 0, 0, 0, -1, 1); },
                            [&] { mask.selfdeextension(0, 0, kMost, kMost, 0, 0); }};
  for (const Action& action : actions) {
    const Finished ended = runApart(action);
    EXPECT_TRUE(ended.status == 1 && ended.out.empty() && ended.err.ends_with("exit\n")) << ended;
  }
}

TEST_F(RawFile, Messages) {
  using Raw = voxRawVolumeData<double, char>;
  std::string folder = path(""), part = path("part");
  Raw raw(part.data(), 0, 2, 2, 2);
  raw.sizeZ = 1000;
  const std::string nothing = "object not initialized or input size incorrect, can't ";
  for (const Action& read : {Action{[] { Raw().read(); }}, {[&] { raw.read(); }}})
    EXPECT_EQ(runApart(read), (Finished{0, nothing + "read file \n", ""}));
  for (const Action& write :
       {Action{[&] { Raw().write(part.c_str(), 0); }}, {[&] { raw.write(part.c_str(), 0); }}})
    EXPECT_EQ(runApart(write), (Finished{0, nothing + "save data \n", ""}));
  EXPECT_TRUE(files().empty());
  raw.sizeZ = 1;  // the first voxels of the volume
  *raw.D = 6;
  EXPECT_EQ(raw.write(part.c_str(), 0), 1);
  EXPECT_EQ(readFile(part), std::string(4, '\6'));
  expectEnd("  Error opening file  for reading in data \n", 0,
            {[] { Raw(nullptr, 0, 2, 2, 2).read(); }});
  expectEnd("  Error opening file " + folder + " for reading in data \n", 0,
            {[&] { Raw(folder.data(), 0, 2, 2, 2).read(); }});
}

}  // namespace
