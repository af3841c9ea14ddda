// Matrices and raw files: worked examples, plain loops on random input, and every fatal message.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <vector>

#include "process.h"
#include "voxRawVolumeData.h"

namespace {

using tavrel::test::Finished;
using tavrel::test::runApart;

using Image = vox3DMat<double, char>;
using Mask = vox3DMat<char, double>;
using Slice = vox2DMat<double, char>;
using MaskSlice = vox2DMat<char, double>;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

template <class Matrix>
auto owned(Matrix* m) {
  return std::unique_ptr<Matrix>(m);
}

template <class Matrix>
std::size_t count(const Matrix& m) {
  if constexpr (requires { m.sizeZ; }) {
    return static_cast<std::size_t>(m.mxn) * m.sizeZ;
  } else {
    return m.mxn;
  }
}

template <class Matrix>
auto values(const Matrix& m) {
  return std::vector(m.p, m.p + count(m));
}

/// The values of a matrix that an operation returned.
template <class Matrix>
auto valuesOf(Matrix* m) {
  return values(*owned(m));
}

template <class Matrix, class T>
std::unique_ptr<Matrix> filled(std::unique_ptr<Matrix> m, std::initializer_list<T> list) {
  EXPECT_EQ(list.size(), count(*m));
  std::copy(list.begin(), list.end(), m->p);
  return m;
}

std::mt19937 bits(7);
int below(int n) { return static_cast<int>(bits() % static_cast<unsigned>(n)); }

/// Whole numbers from -2 to 3: ties, signs and zeros are frequent.
template <class Matrix>
void randomise(Matrix& m) {
  for (std::size_t n = 0; n < count(m); ++n) m.p[n] = below(6) - 2;
}

template <class Matrix>
std::unique_ptr<Matrix> randomVolume(int X, int Y, int Z) {
  auto m = std::make_unique<Matrix>(X, Y, Z);
  randomise(*m);
  return m;
}

/// A matrix of the given sizes whose voxel (i, j, k) is value(i, j, k).
template <class Matrix, class Value>
std::unique_ptr<Matrix> built(int X, int Y, int Z, Value value) {
  auto m = std::make_unique<Matrix>(X, Y, Z);
  for (int k = 0, n = 0; k < Z; ++k) {
    for (int j = 0; j < Y; ++j) {
      for (int i = 0; i < X; ++i) m->p[n++] = value(i, j, k);
    }
  }
  return m;
}

template <class Matrix>
void expectEqual(const Matrix& got, const Matrix& want) {
  EXPECT_EQ((std::array{got.sizeX, got.sizeY, got.sizeZ, got.mxn}),
            (std::array{want.sizeX, want.sizeY, want.sizeZ, want.mxn}));
  EXPECT_TRUE(values(got) == values(want));
}

// ---- matrices ----------------------------------------------------------------------------------

TEST(Matrix, BasicsCountCharAsSigned) {
  Mask m(2, 3, 1);
  m = 3;
  m += -5;
  EXPECT_EQ(m.Sum(), -12.0);
  EXPECT_EQ(values(m), std::vector<char>(6, -2));
  expectEqual(*owned(m.duplicate()), m);
  const std::unique_ptr<int[]> size(m.getsize());
  EXPECT_EQ((std::array{size[0], size[1], size[2]}), (std::array{2, 3, 1}));
  EXPECT_TRUE(m.isnotempty());

  Image empty;
  EXPECT_FALSE(empty.isnotempty());
  EXPECT_EQ(owned(empty.duplicate())->sizeX, 0);
  EXPECT_EQ(empty.filterMinNeigbor(), nullptr);

  MaskSlice s(2, 3);
  s = 1;
  s += -3;
  EXPECT_EQ(s.Sum(), -12.0);
  EXPECT_EQ(valuesOf(s.duplicate()), std::vector<char>(6, -2));
  MaskSlice set;
  EXPECT_FALSE(set.isnotempty());
  set.setup(3, 2);
  const std::unique_ptr<int[]> sizes(set.getsize());
  EXPECT_EQ((std::array{sizes[0], sizes[1], set.mxn}), (std::array{3, 2, 6}));
  EXPECT_EQ(set.dataaddress(), set.p);
}

TEST(Matrix, MayEndTwice) {
  tavrel::test::endTwice<Image>(2, 3, 4);
  tavrel::test::endTwice<Slice>(2, 3);
  tavrel::test::endTwice<voxRawVolumeData<double, char>>(nullptr, 0, 2, 3, 4);
}

/// The conversions that both dimensions share.
template <class Real, class Small, class... Depth>
void checkConversions(Depth... depth) {
  const auto phi = filled(std::make_unique<Real>(4, 1, depth...), {-0.5, 0.0, 0.5, kNaN});
  EXPECT_EQ(valuesOf(phi->Phi2VeC()), (std::vector<char>{1, 0, 0, 1}));
  const auto mask = filled(std::make_unique<Small>(3, 1, depth...), {1, 0, -3});
  EXPECT_EQ(valuesOf(mask->VeC2Phi()), (std::vector{-0.5, 0.5, 3.5}));
  const auto codes = filled(std::make_unique<Small>(6, 1, depth...), {-3, -2, -1, 1, 2, 3});
  EXPECT_EQ(valuesOf(codes->thresholding(-1, 1)), (std::vector<char>{0, 0, 1, 1, 0, 0}));
  EXPECT_EQ(valuesOf(phi->thresholding(-0.5, 0.0)), (std::vector<char>{1, 1, 0, 0}));
}

TEST(Matrix, ConvertsBetweenMaskAndFunction) {
  checkConversions<Image, Mask>(1);
  checkConversions<Slice, MaskSlice>();
}

TEST(Matrix, SlicesGoOutAndIn) {
  const auto m = randomVolume<Mask>(4, 3, 5);
  Mask rebuilt(4, 3, 5);
  for (int k = 0; k < 5; ++k) {
    const auto slice = owned(m->getslice(k));
    EXPECT_EQ(slice->p[3 + 2 * 4], m->p[3 + 2 * 4 + k * 12]);
    rebuilt.setslice(slice.get(), k);
  }
  expectEqual(rebuilt, *m);
}

TEST(Matrix, ProductWithMaskKeepsSignsOfZero) {
  const auto image = filled(std::make_unique<Image>(4, 1, 1), {-7.5, 3.25, -1.0, 0.5});
  const auto mask = filled(std::make_unique<Mask>(4, 1, 1), {0, 1, -1, 0});
  const auto product = valuesOf(*image * *mask);
  EXPECT_EQ(product, (std::vector{-0.0, 3.25, 1.0, 0.0}));
  EXPECT_TRUE(std::signbit(product[0]));
}

TEST(Matrix, SeedSpansFractions) {
  for (const auto& [size, first, end] : {std::array{184, 56, 128}, {220, 66, 154}, {100, 30, 70}}) {
    Mask m(size, 1, 1);
    m.setseed(0.3, 0.7, 0.0, 1.0, 0.0, 1.0);
    std::vector<char> want(size, 0);
    std::fill(want.begin() + first, want.begin() + end, char{1});
    EXPECT_EQ(values(m), want) << size;
  }
  Mask m(10, 10, 10);
  m.setseed(0.3, 0.7, 0.3, 0.7, 0.3, 0.7);
  EXPECT_EQ(m.Sum(), 64.0);
  m.setseed(0.3, 0.3, 0.0, 1.0, 0.0, 1.0);
  EXPECT_EQ(m.Sum(), 0.0);
  m.setseed(-1e300, 1e300, 0.7, 0.3, 0.0, 1.0);
  EXPECT_EQ(m.Sum(), 0.0);
  m.setseed(-1e300, 1e300, kNaN, 2.0, 0.0, 1.0);
  EXPECT_EQ(m.Sum(), 1000.0);
}

// ---- intensities -------------------------------------------------------------------------------

/// Normalisation by really sorting the sample.
std::vector<double> normalised(std::vector<double> v) {
  const double a = std::floor(static_cast<double>(v.size()) / 100000.0);
  const int step = a > 1.0 ? static_cast<int>(a) : 1;
  std::vector<double> sample(static_cast<std::size_t>(std::ceil(v.size() / double(step))));
  for (std::size_t s = 0; s < sample.size(); ++s) sample[s] = v[s * step];
  std::qsort(sample.data(), sample.size(), sizeof(double), comparedouble);
  const double min = sample.front(), max = sample.back();
  for (double& x : v) x = (x - min) / (max - min);
  return v;
}

TEST(Intensities, NormalizeMapsRangeOfSample) {
  for (const auto& [X, Y, Z] :
       {std::array{100, 100, 19}, {100, 100, 20}, {101, 99, 31}, {3, 1, 1}}) {
    const auto m = built<Image>(X, Y, Z, [](int, int, int) { return below(1000) / 7.0 - 50; });
    m->p[1] = 1e4;  // in the sample or not, as the size has it
    const auto want = normalised(values(*m));
    std::ostringstream report;
    m->Normalize(&report);
    EXPECT_TRUE(values(*m) == want) << X << " " << Y << " " << Z;
    EXPECT_EQ(report.str(), "double sorting called\ndouble sorting called\n");
  }
}

TEST(Intensities, NormalizeWithoutContrastIsFinite) {
  auto m = built<Image>(100, 100, 20, [](int i, int, int) { return i % 2 ? 9.0 : 4.0; });
  m->Normalize(nullptr);  // every second voxel is sampled: all 4
  EXPECT_EQ(m->p[0], 0.0);
  EXPECT_EQ(m->p[1], 5.0);
  Image empty(0, 3, 3);
  empty.Normalize(nullptr);
}

TEST(Intensities, NormalizeReportsElementType) {
  EXPECT_EQ(runApart([] { vox3DMat<int, void>(0, 1, 1).Normalize(); }).out,
            "integer sorting called\ninteger sorting called\n");
  EXPECT_EQ(runApart([] { vox3DMat<float, void>(0, 1, 1).Normalize(); }).out,
            "float sorting called\nfloat sorting called\n");
  EXPECT_EQ(runApart([] { Mask(0, 1, 1).Normalize(); }).out,
            "char sorting called\nchar sorting called\n");
}

TEST(Intensities, GammaIsThePower) {
  const auto m = filled(std::make_unique<Image>(3, 1, 1), {0.0, 0.5, 1.75});
  m->GammaAdjust(1.0);
  EXPECT_EQ(values(*m), (std::vector{0.0, 0.5, 1.75}));
  m->GammaAdjust(2.0);
  EXPECT_EQ(values(*m), (std::vector{0.0, 0.25, 3.0625}));
}

// ---- resampling --------------------------------------------------------------------------------

/// Halves and doubles random volumes, against the value that the definition gives each voxel.
template <class Matrix>
void checkResampling() {
  for (const auto& [a, b, c] : {std::array{1, 1, 1}, {2, 0, 1}, {0, 3, -1}, {0, 0, 0}}) {
    const int fx = 1 << a, fy = 1 << b, fz = 1 << std::max(c, 0);
    const int X = 3 * fx, Y = 5 * fy, Z = 2 * fz;
    const auto m = randomVolume<Matrix>(X, Y, Z);
    const auto old = [&](int i, int j, int k) { return m->p[i + j * X + k * X * Y]; };
    const auto first =
        built<Matrix>(3, 5, 2, [&](int i, int j, int k) { return old(i * fx, j * fy, k * fz); });
    const auto smallest = built<Matrix>(3, 5, 2, [&](int i, int j, int k) {
      int least = 100;
      for (int n = 0; n < fx * fy * fz; ++n) {
        const auto v = old(i * fx + n % fx, j * fy + n / fx % fy, k * fz + n / fx / fy);
        least = std::min(least, static_cast<int>(tavrel::number(v)));
      }
      return least;
    });
    const auto repeated = built<Matrix>(
        X, Y, Z, [&](int i, int j, int k) { return old(i / fx * fx, j / fy * fy, k / fz * fz); });

    expectEqual(*owned(m->downsampleby2(a, b, c, "simple")), *first);
    expectEqual(*owned(m->downsampleby2(a, b, c, "min")), *smallest);
    m->selfdownsampleby2(a, b, c, "simple");
    expectEqual(*m, *first);
    m->selfupsampleby2(a, b, c, "simple");
    expectEqual(*m, *repeated);
  }
}

TEST(Resampling, FollowsDefinition) {
  checkResampling<Image>();
  checkResampling<Mask>();
}

TEST(Resampling, SingleAxesAndOddSizes) {
  const auto m = filled(std::make_unique<Mask>(3, 1, 1), {1, 0, 1});
  m->downsampleXby2("min");
  EXPECT_EQ(values(*m), (std::vector<char>{0}));
  m->upsampleYby2("simple");
  m->upsampleZby2("simple");
  m->upsampleXby2("simple");
  EXPECT_EQ(count(*m), 8u);
  m->downsampleZby2("simple");
  m->downsampleYby2("min");
  EXPECT_EQ((std::array{m->sizeX, m->sizeY, m->sizeZ, m->mxn}), (std::array{2, 1, 1, 2}));
}

TEST(Resampling, ChecksOnlyWhatItDoes) {
  const auto m = randomVolume<Image>(5, 4, 4);
  expectEqual(*owned(m->downsampleby2(-1, 0, 0, nullptr)), *m);
  m->selfupsampleby2(0, -2, 0, nullptr);
  Mask empty(0, 0, 0);
  empty.selfdownsampleby2(2000000000, 1, 1, "min");
  empty.selfupsampleby2(2000000000, 0, 0, "simple");
  EXPECT_EQ(empty.sizeX, 0);
}

// ---- borders and neighbourhoods ----------------------------------------------------------------

TEST(Padding, SurroundsWithZerosAndIsUndone) {
  const auto m = randomVolume<Image>(5, 4, 3);
  const auto padded = owned(m->extension(1, 2, 0, 3, 2, 0));
  expectEqual(*padded, *built<Image>(8, 7, 5, [&](int i, int j, int k) {
    const bool inside = i >= 1 && i < 6 && j < 4 && k >= 2;
    return inside ? m->p[i - 1 + j * 5 + (k - 2) * 20] : 0.0;
  }));
  padded->selfdeextension(1, 2, 0, 3, 2, 0);
  expectEqual(*padded, *m);
  padded->selfdeextension(5, 0, 0, 0, 0, 0);
  EXPECT_EQ(padded->sizeX, 0);
  expectEqual(*owned(padded->extension(0, 0, 0, 0, 0, 0)), *padded);
}

TEST(MinimumFilter, TakesSmallestFaceNeighbour) {
  for (const auto& [X, Y, Z] : {std::array{6, 5, 4}, {3, 3, 3}, {10, 10, 2}, {2, 9, 9}}) {
    const auto m = built<Image>(X, Y, Z, [](int, int, int) { return below(50) - 9.0; });
    const int x = X, y = Y, z = Z, steps[] = {1, X, X * Y};
    expectEqual(*owned(m->filterMinNeigbor()), *built<Image>(X, Y, Z, [&](int i, int j, int k) {
      const double* v = m->p + i + j * x + k * x * y;
      if (i % (x - 1) == 0 || j % (y - 1) == 0 || k % (z - 1) == 0) return *v;
      double least = 100;
      for (const int step : steps) least = std::min({least, v[step], v[-step]});
      return least;
    }));
  }
}

/// One pass of the dilation as the plain loop over blocks; a slice has Z = 1.
std::vector<char> dilated(const std::vector<char>& m, int X, int Y, int Z) {
  auto result = m;
  for (int k = 0, n = 0; k < Z; ++k) {
    for (int j = 0; j < Y; ++j) {
      for (int i = 0; i < X; ++i, ++n) {
        if (static_cast<signed char>(m[n]) <= 0) continue;
        for (int c = std::max(k - 1, 0); c < std::min(k + 2, Z); ++c)
          for (int b = std::max(j - 1, 0); b < std::min(j + 2, Y); ++b)
            for (int a = std::max(i - 1, 0); a < std::min(i + 2, X); ++a)
              result[a + b * X + c * X * Y] = 1;
      }
    }
  }
  return result;
}

TEST(Dilation, FollowsPlainLoop) {
  for (int run = 0; run < 200; ++run) {
    const int X = below(9), Y = below(9), Z = below(6), passes = below(4);
    vox3DMat<char, void> m(X, Y, Z);
    vox2DMat<char, void> s(X, Y);
    const auto sparse = [] { return static_cast<char>(below(20) ? -below(4) : 1 + below(3)); };
    std::generate_n(m.p, count(m), sparse);
    std::generate_n(s.p, count(s), sparse);
    auto want = values(m), want2 = values(s);
    for (int n = 0; n < passes; ++n) {
      want = dilated(want, X, Y, Z);
      want2 = dilated(want2, X, Y, 1);
    }
    m.imdilate3D("box", passes);
    s.imdilate2D("box", passes);
    ASSERT_EQ(values(m), want) << X << " " << Y << " " << Z << " passes " << passes;
    ASSERT_EQ(values(s), want2) << X << " " << Y << " passes " << passes;
  }
}

TEST(Dilation, AnyNumberOfPasses) {
  Mask m(2, 3, 7);
  m = -1;
  m.p[0] = 2;
  m.imdilate3D(nullptr, 0);
  EXPECT_EQ(m.p[0], 2);
  m.imdilate3D("box", std::numeric_limits<int>::max());
  EXPECT_EQ(m.Sum(), 42.0);
  Mask single(1, 1, 1);
  single = 5;
  single.imdilate3D1("box");
  EXPECT_EQ(single.p[0], 1);
}

// ---- raw files ---------------------------------------------------------------------------------

class RawFile : public tavrel::test::FolderTest {
 protected:
  /// The bytes that a row of voxels is written as.
  template <class T, class U = std::conditional_t<std::is_same_v<T, char>, double, char>>
  std::string written(std::initializer_list<T> voxels, int type) {
    const auto m =
        filled(std::make_unique<vox3DMat<T, U>>(static_cast<int>(voxels.size()), 1, 1), voxels);
    voxRawVolumeData<T, U> raw;
    raw.setdata(m.get());
    raw.setdata(raw.getMatobject());
    EXPECT_EQ(raw.write(path("out").c_str(), type), 1);
    return tavrel::test::readFile(path("out"));
  }

  /// The voxels that `bytes` are read as.
  std::vector<double> read(const std::string& bytes, int type, int voxels) {
    tavrel::test::writeFile(path("in"), bytes);
    std::string name = path("in");
    voxRawVolumeData<double, char> raw(name.data(), type, voxels, 1, 1);
    *raw.getMatobject() = -9;
    EXPECT_EQ(raw.read(), 1);
    return values(*raw.getMatobject());
  }
};

std::string bytesOf(std::initializer_list<int> list) { return {list.begin(), list.end()}; }

TEST_F(RawFile, WritesEveryFormat) {
  const auto v = {0.0, 1.5, 255.0, 256.0, -1.0, 300.7, -0.5, 65535.0};
  EXPECT_EQ(written(v, 0), bytesOf({0, 1, 255, 0, 255, 44, 0, 255}));
  EXPECT_EQ(written(v, 1), bytesOf({0, 0, 1, 0, 255, 0, 0, 1, 255, 255, 44, 1, 0, 0, 255, 255}));
  EXPECT_EQ(written({1.5, 0.1}, 2), bytesOf({0, 0, 0xC0, 0x3F, 0xCD, 0xCC, 0xCC, 0x3D}));
  EXPECT_EQ(written({-2.0}, 3), bytesOf({0, 0, 0, 0, 0, 0, 0, 0xC0}));
  EXPECT_EQ(written<char>({1, '\xFE'}, 0), bytesOf({1, 254}));
  EXPECT_EQ(written<char>({1, '\xFE'}, 1), bytesOf({1, 0, 254, 255}));
  EXPECT_EQ(written<char>({1, '\xFE'}, 2), bytesOf({0, 0, 0x80, 0x3F, 0, 0, 0, 0xC0}));
  EXPECT_EQ(written<char>({'\xFE'}, 3), bytesOf({0, 0, 0, 0, 0, 0, 0, 0xC0}));
  EXPECT_EQ(written({1.0}, 5), "");
}

TEST_F(RawFile, WritesLowBitsOfLargeValues) {
  const auto v = {4294967296.0 + 258,
                  -4294967296.0 - 1,
                  1e300,
                  -0x1p63,
                  kNaN,
                  -std::numeric_limits<double>::infinity()};
  EXPECT_EQ(written(v, 0), bytesOf({2, 255, 0, 0, 0, 0}));
  EXPECT_EQ(written(v, 1), bytesOf({2, 1, 255, 255, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(RawFile, ReadsEveryFormat) {
  EXPECT_EQ(read(bytesOf({200, 0, 255}), 0, 3), (std::vector{200.0, 0.0, 255.0}));
  EXPECT_EQ(read(bytesOf({255, 255, 0, 1}), 1, 2), (std::vector{-1.0, 256.0}));
  EXPECT_EQ(read(bytesOf({0, 0, 0xC0, 0x3F}), 2, 1), (std::vector{1.5}));
  EXPECT_EQ(read(bytesOf({0, 0, 0, 0, 0, 0, 0, 0xC0}), 3, 1), (std::vector{-2.0}));
  EXPECT_EQ(read("abcd", 7, 2), (std::vector{-9.0, -9.0}));
}

TEST_F(RawFile, ShortFilesEndInZerosLongOnesAreCut) {
  EXPECT_EQ(read(bytesOf({1, 0, 2, 0, 3}), 1, 4), (std::vector{1.0, 2.0, 0.0, 0.0}));
  EXPECT_EQ(read("", 2, 2), (std::vector{0.0, 0.0}));
  EXPECT_EQ(read(bytesOf({1, 2, 3}), 0, 2), (std::vector{1.0, 2.0}));
}

TEST_F(RawFile, LargeVolumesComeBack) {
  const int X = 1031, Y = 211, Z = 5;  // several buffers and a bit
  const auto m =
      built<Image>(X, Y, Z, [](int, int, int) { return below(256) < 9 ? 0.0 : below(256); });
  voxRawVolumeData<double, char> out;
  out.setdata(m.get());
  std::string name = path("volume");
  for (const int type : {0, 1, 2, 3}) {
    out.write(name.c_str(), type);
    voxRawVolumeData<double, char> in(name.data(), type, X, Y, Z);
    in.read();
    expectEqual(*in.getMatobject(), *m);
  }
}

// ---- messages ----------------------------------------------------------------------------------

Finished error(const std::string& text, int status = 1) { return {status, "", text}; }

TEST(Fatal, MatrixMessages) {
  Image image(4, 4, 4);
  Mask mask(4, 4, 3);
  MaskSlice swapped(4, 3);
  Image empty;
  Mask emptyMask;
  vox2DMat<char, void> slice(3, 3);
  const auto number = error("getslice: input slice number incorrect, exit");
  EXPECT_EQ(runApart([&] { image.getslice(4); }), number);
  EXPECT_EQ(runApart([&] { image.getslice(-1); }), number);
  EXPECT_EQ(runApart([&] { mask.setslice(&swapped, 3); }), number);
  EXPECT_EQ(runApart([&] { mask.setslice(&swapped, 0); }),
            error("getslice: matrices dimensions don't match , exit"));
  const auto product = error("two matrice are of different size or empty\n", 0);
  EXPECT_EQ(runApart([&] { image* mask; }), product);
  EXPECT_EQ(runApart([&] { empty* emptyMask; }), product);
  const auto thresholds = error("threshold values set incorrect, exit");
  EXPECT_EQ(runApart([&] { mask.thresholding(1, -1); }), thresholds);
  EXPECT_EQ(runApart([&] { slice.thresholding(1, -1); }), thresholds);
  const auto dimensions = error("dimensions don't match, exit\n");
  EXPECT_EQ(runApart([&] { image.downsampleby2(1, 3, 0, "none"); }), dimensions);
  EXPECT_EQ(runApart([&] { mask.selfdownsampleby2(0, 0, 1, "min"); }), dimensions);
  const auto halving = error("downsample method incorrect,exit\n");
  EXPECT_EQ(runApart([&] { image.downsampleby2(0, 0, 1, "Min"); }), halving);
  EXPECT_EQ(runApart([&] { image.downsampleYby2(""); }), halving);
  const auto doubling = error("upsample method incorrect,exit\n");
  EXPECT_EQ(runApart([&] { mask.upsampleXby2("min"); }), doubling);
  EXPECT_EQ(runApart([&] { mask.selfupsampleby2(0, 0, 1, "min"); }), doubling);
  const auto dilation = error("imdilate method not valid, exit\n");
  EXPECT_EQ(runApart([&] { mask.imdilate3D("ball", 1); }), dilation);
  EXPECT_EQ(runApart([&] { slice.imdilate2D1("ball"); }), dilation);
}

TEST(Fatal, SizesThatDoNotFit) {
  constexpr int kMost = std::numeric_limits<int>::max();
  Mask mask(4, 4, 4), flat(0, 1 << 30, 1);
  const auto end = [](auto action) {
    const Finished ended = runApart(action);
    EXPECT_EQ(ended.out, "");
    EXPECT_NE(ended.err.find("exit\n"), std::string::npos) << ended;
    return ended.status;
  };
  EXPECT_EQ(end([] { Image(-1, 2, 3); }), 1);
  EXPECT_EQ(end([] { Image(1 << 11, 1 << 10, 1 << 10); }), 1);
  EXPECT_EQ(end([] { Slice(1 << 16, 1 << 15); }), 1);
  EXPECT_EQ(end([&] { flat.upsampleYby2("simple"); }), 1);
  EXPECT_EQ(end([&] { mask.extension(0, 0, -1, 2, 0, 0); }), 1);
  EXPECT_EQ(end([&] { mask.extension(kMost, kMost, 0, 0, 0, 0); }), 1);
  EXPECT_EQ(end([&] { mask.selfdeextension(2, 3, 0, 0, 0, 0); }), 1);
  EXPECT_EQ(end([&] { mask.selfdeextension(0, 0, 0, 0, -1, 1); }), 1);
  EXPECT_EQ(end([&] { mask.selfdeextension(0, 0, kMost, kMost, 0, 0); }), 1);
}

TEST_F(RawFile, Messages) {
  using Raw = voxRawVolumeData<double, char>;
  const auto noRead =
      Finished{0, "object not initialized or input size incorrect, can't read file \n", ""};
  const auto noSave =
      Finished{0, "object not initialized or input size incorrect, can't save data \n", ""};
  std::string out = path("none/out");
  EXPECT_EQ(runApart([&] { Raw(out.data(), 0, 0, 10, 10).read(); }), noRead);
  EXPECT_EQ(runApart([] { Raw().read(); }), noRead);
  EXPECT_EQ(runApart([&] { Raw().write(out.c_str(), 0); }), noSave);
  EXPECT_EQ(runApart([&] {
              Raw changed(out.data(), 0, 2, 2, 2);
              changed.sizeZ = 1000;
              changed.read();
            }),
            noRead);
  Raw fewer(out.data(), 0, 2, 2, 2);  // the first voxels of the volume
  fewer.sizeZ = 1;
  *fewer.D = 6;
  std::string part = path("part");
  EXPECT_EQ(fewer.write(part.c_str(), 0), 1);
  EXPECT_EQ(tavrel::test::readFile(part), std::string(4, '\6'));
  std::filesystem::remove(part);

  const auto opening = [](const std::string& name) {
    return "  Error opening file " + name + " for reading in data \n";
  };
  const std::string inside = "  Inside  AnalyzeImage::saveAnalyzeImageData() \n";
  EXPECT_EQ(runApart([&] { Raw(out.data(), 0, 2, 2, 2).read(); }), error(opening(out), 0));
  EXPECT_EQ(runApart([] { Raw(nullptr, 0, 2, 2, 2).read(); }), error(opening(""), 0));
  std::string folder = path("");
  EXPECT_EQ(runApart([&] { Raw(folder.data(), 0, 2, 2, 2).read(); }), error(opening(folder), 0));
  EXPECT_EQ(runApart([&] { Raw(folder.data(), 0, 2, 2, 2).write(out.c_str(), 0); }),
            error(inside + opening(out), 0));
  EXPECT_TRUE(files().empty());

  if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
  EXPECT_EQ(runApart([&] { tavrel::writeRaw("/dev/full", 0, "voxels", 6); }),
            error("  Error writing file /dev/full \n"));
}

}  // namespace
