// Heads as scanners and people store them.
#include "strip/head.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "heads.h"
#include "strip/work_image.h"
#include "volumes.h"

namespace {

using namespace test_volumes;

Stripped stripped(const TestScan& scan) {
  StripSettings settings;
  settings.finish = kDefaultFinish;
  settings.threads = 2;
  return stripScan(scan.view(), settings);
}

TEST(Head, AllOrientationsAreWorkedOnAndGivenBackAlike) {
  for (const Spacing& mm : {Spacing{4.75, 4.6, 4.9}, {2, 2.1, 2.2}}) {
    TestScan scan = phantomHead(mm[0]);
    scan.grid.spacing = mm;
    const Head head = findHead(scan.view()).value();
    const WorkGrid work(scan.view(), head.box);
    const Intensities image = work.image(scan.view(), head.low, head.high);
    std::mt19937 random(1);
    const BitVolume mask(randomMask(work.grid().size, 0.5, random), work.grid().size);
    const auto given = work.toScan(scan.view(), mask);
    std::array<int, 3> axis = {0, 1, 2};
    for (int way = 0; way < 48; ++way) {
      const Orientation o{axis, {way % 2 == 0, way / 2 % 2 == 0, way / 4 % 2 == 0}};
      if (way % 8 == 7) std::next_permutation(axis.begin(), axis.end());
      const TestScan stored = storedAs(scan, o);
      const Head found = findHead(stored.view()).value();
      EXPECT_EQ(found.mask, head.mask);
      EXPECT_EQ(found.centre, head.centre);
      EXPECT_EQ(found.box.first, head.box.first);
      EXPECT_EQ(found.box.end, head.box.end);
      const WorkGrid there(stored.view(), found.box);
      EXPECT_EQ(there.image(stored.view(), found.low, found.high).values, image.values);
      EXPECT_EQ(there.toScan(stored.view(), mask),
                storedAs({scan.grid, scan.values, given, {}}, o).brain);
    }
  }
}

TEST(WorkGrid, JoinsAndInterpolatesInPlace) {
  for (const Spacing& mm : {Spacing{0.4, 2, 3}, {1, 1, 1}, {2.6, 2.2, 5}}) {
    TestScan scan{{{int(80 / mm[0]), int(84 / mm[1]), int(90 / mm[2])}, mm}, {}, {}, {}};
    const Box box{{3, 2, 1}, scan.grid.size};
    const auto centre = [&](const Size& p, const Spacing& s, int d) { return (p[d] + 0.5) * s[d]; };
    const auto ramp = [](double x, double y, double z) { return 10 * x - 5 * y + 20 * z; };
    forVoxels(scan.grid.size, [&](int x, int y, int z, std::size_t) {
      const Size p = {x, y, z};
      scan.values.push_back(float(ramp(centre(p, mm, 0), centre(p, mm, 1), centre(p, mm, 2))));
    });
    const WorkGrid work(scan.view(), box);
    const auto& [size, edge] = work.grid();
    const Intensities image = work.image(scan.view(), 0, kFullScale);
    const auto corner = work.fromScan({0, 0, 0});
    const BitVolume ball = maskOf(size, [&](int x, int y, int z) {
      const Size p = {x, y, z};
      return std::hypot(centre(p, edge, 0) - 42, centre(p, edge, 1) - 39, centre(p, edge, 2) - 45) <
             25;
    });
    forVoxels(size, [&](int x, int y, int z, std::size_t v) {
      const Size p = {x, y, z};
      for (int d = 0; d < 3; ++d)  // beyond the middle of the last voxels nothing is known
        if (p[d] * edge[d] < 6 || (size[d] - p[d]) * edge[d] < 6) return;
      const auto at = [&](int d) { return centre(p, edge, d) - corner[d]; };
      const double expected = std::clamp(ramp(at(0), at(1), at(2)), 0.0, double(kFullScale));
      EXPECT_NEAR(image.values[v], expected, 0.51) << mm[0] << ": " << x << ' ' << y << ' ' << z;
    });
    const auto given = work.toScan(scan.view(), ball);
    std::array<double, 3> sum = {};
    double n = 0;
    forVoxels(scan.grid.size, [&](int x, int y, int z, std::size_t v) {
      if (!given[v]) return;
      ++n;
      for (int d = 0; d < 3; ++d) sum[d] += centre({x, y, z}, mm, d) + corner[d];
    });
    const double centres[3] = {42, 39, 45};
    for (int d = 0; d < 3; ++d) EXPECT_NEAR(sum[d] / n, centres[d], 0.1 * mm[d]) << mm[0];
    EXPECT_NEAR(millilitres(n, mm), 4.0 / 3 * M_PI * 2.5 * 2.5 * 2.5, 1.5);
  }
}

/// The head with space around it, on a neck.
TestScan onNeck(const TestScan& scan, int around, int below, float air) {
  Grid grid = scan.grid;
  for (int d = 0; d < 3; ++d) grid.size[d] += 2 * around;
  grid.size[2] += below;
  TestScan result = rearranged(scan, grid, air, [&](const Size& p) {
    return Size{p[0] - around, p[1] - around, p[2] - around - below};
  });
  const Size& size = grid.size;
  forVoxels(size, [&](int x, int y, int z, std::size_t v) {
    const double mm = grid.spacing[0] * std::hypot(x - size[0] / 2.0, y - size[1] / 2.0);
    if (z < below + around + size[2] / 8 && mm < 55 && !result.brain[v] && result.values[v] < 300)
      result.values[v] = float(500 + 20 * ((x + 2 * y + 3 * z) % 7));
  });
  return result;
}

/// The head on a grid of another spacing, each voxel the nearest one.
TestScan withVoxels(const TestScan& scan, const Spacing& mm) {
  Grid grid{{}, mm};
  const double edge = scan.grid.spacing[0];
  for (int d = 0; d < 3; ++d) grid.size[d] = int(scan.grid.size[d] * edge / mm[d]);
  return rearranged(scan, grid, 0, [&](const Size& p) {
    Size q;
    for (int d = 0; d < 3; ++d) q[d] = int((p[d] + 0.5) * mm[d] / edge);
    return q;
  });
}

/// The same grid with other values, f(value, index).
TestScan with(TestScan scan, auto&& f) {
  for (std::size_t v = 0; v < scan.values.size(); ++v) scan.values[v] = float(f(scan.values[v], v));
  return scan;
}

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

TEST(Head, TheBrainIsFoundWhateverIsRoundTheHeadAndWhateverTheUnit) {
  const TestScan base = phantomHead(2.5), fine = phantomHead(2);
  struct Case {
    const char* name;
    TestScan scan;
  };
  for (const auto& [name, scan] :
       {Case{"turned", storedAs(base, {{2, 0, 1}, {false, false, true}})},
        {"scaled", with(base, [](float v, auto) { return v * 1e-3f; })},
        {"shifted", with(base, [](float v, auto) { return v - 1024; })},
        {"air far below", with(base, [](float v, auto) { return v < 40 ? -1000 : v; })},
        {"air not a number", with(base, [](float v, auto) { return v < 40 ? kNan : v; })},
        {"space around", onNeck(base, 20, 0, 0)},
        {"space of not-a-number", onNeck(base, 20, 0, kNan)},
        {"neck", onNeck(base, 4, 60, 5)},
        // Voxels far from 1 mm.
        {"0.4 x 2 x 2 mm", withVoxels(fine, {0.4, 2, 2})},
        {"0.8 x 0.8 x 4 mm", withVoxels(fine, {0.8, 0.8, 4})},
        {"2 x 2 x 6 mm", withVoxels(fine, {2, 2, 6})},
        {"1 x 1 x 3 mm", withVoxels(fine, {1, 1, 3})},
        {"5 x 5 x 5 mm", withVoxels(fine, {5, 5, 5})}})
    EXPECT_GT(dice(stripped(scan).mask, scan.brain), 0.915) << name;
}

TEST(Head, WhatHoldsNoHeadIsRefused) {
  const TestScan base{{{60, 70, 60}, {3, 3, 3}}, std::vector<float>(60 * 70 * 60), {}, {}};
  const auto filled = [&](float value) { return with(base, [=](auto...) { return value; }); };
  TestScan slice = phantomHead(4), small = slice;
  slice.grid.size[2] = 1;
  small.grid.spacing = {1, 1, 1};
  for (const TestScan& scan :
       {filled(0), filled(7), filled(kNan), slice, small,
        with(base, [](float, std::size_t v) { return v == 126000 ? 1000 : 0; })})
    EXPECT_THROW(stripped(scan), NoHead);
}

TEST(Stripping, WhatIsNoHeadOfThisKindIsToldIfItIsNotRefused) {
  const TestScan base = phantomHead(3);
  const auto noise = [](std::size_t v) { return 1000 * tavrel::uniformAt(1, v); };
  for (const TestScan& scan :
       {with(base, [](float v, auto) { return 1000 - v; }),
        with(base, [&](float, std::size_t v) { return noise(v); }),
        with(base, [&](float, std::size_t v) { return 500 + 0.01 * noise(v); }),
        with(base, [&](float v, std::size_t i) { return base.brain[i] ? v : 0; }),
        with(base, [](float v, auto) { return v > 50 ? 500 : 0; })})
    try {
      const Stripped result = stripped(scan);
      EXPECT_FALSE(result.judgement.flags.empty());
      EXPECT_LT(result.judgement.confidence, 0.5);
    } catch (const NoHead&) {
    }
}

}  // namespace
