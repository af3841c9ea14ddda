#include "strip/front.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "volumes.h"

namespace {

using namespace test_volumes;

constexpr int kBright = 3000, kDark = 600;

/// Bright where the mask is 1, dark elsewhere, and the same noise for all.
Intensities twoValued(const BitVolume& bright, int noise = 1) {
  Intensities image{{bright.size(), {1, 1, 1}}, {}};
  std::mt19937 random(1);
  for (const char in : bytes(bright))
    image.values.push_back(std::uint16_t((in ? kBright : kDark) + random() % unsigned(noise)));
  return image;
}

BitVolume ball(int size, double radius, double offset = 0) {
  const double c = (size - 1) / 2.0;
  return maskOf({size, size, size}, [&](int x, int y, int z) {
    return std::hypot(x - c - offset, y - c, z - c) <= radius;
  });
}

/// The mask after the evolution, and its steps.
std::pair<BitVolume, int> evolved(const LevelImage& level, const BitVolume& from,
                                  const FrontSettings& settings,
                                  const BitVolume* domain = nullptr) {
  BitVolume inside = level.withBorder(from);
  const int steps =
      Front(level).evolve(inside, domain ? level.withBorder(*domain) : level.domain(), settings);
  BitVolume mask = level.withoutBorder(inside);
  EXPECT_EQ(mask.count(), inside.count()) << "nothing is inside the border";
  return {std::move(mask), steps};
}

TEST(Front, ABallIsFoundFromWithinAndFromWithout) {
  for (const int size : {48, 70})  // rows of one word and of two
    for (const int block : {1, 2, 4}) {
      const BitVolume bright = ball(size, 15.3);
      const LevelImage level(twoValued(bright, 300), block);
      for (const BitVolume& from : {ball(size, 8), ball(size, 19), ball(size, 7, 5), bright}) {
        const auto [mask, steps] = evolved(level, from, {.mostSteps = 100});
        EXPECT_GT(overlap(mask, bright), 0.98) << block << " from " << from.count();
        EXPECT_LT(steps, 100);
      }
    }
}

TEST(Front, CurvatureAloneShrinksABallAsABall) {
  const LevelImage level(twoValued(BitVolume({40, 40, 40})), 2);
  const auto [mask, steps] =
      evolved(level, ball(40, 14), {.w3 = 1, .mostSteps = 20, .converged = 0});
  EXPECT_EQ(steps, 20);
  const double radius = std::cbrt(double(mask.count()) * 3 / (4 * M_PI));
  EXPECT_GT(radius, 10);
  EXPECT_LT(radius, 13);
  EXPECT_GT(overlap(mask, ball(40, radius)), 0.97) << radius;
}

TEST(Front, APlaneMovesAsAPlaneAndStopsAtTheStep) {
  constexpr int kSize = 64;
  const Size size = {kSize, kSize, kSize};
  for (int axis = 0; axis < 3; ++axis) {
    const auto below = [&](int limit) {
      return maskOf(size, [&](int x, int y, int z) { return Size{x, y, z}[axis] < limit; });
    };
    const LevelImage level(twoValued(below(32)), 2);
    // Far from the volume's sides nothing tells one row from another, whatever the block.
    for (const int start : {27, 36}) {
      const auto [mask, steps] = evolved(level, below(start), {.mostSteps = 8});
      forVoxels(size, [&](int x, int y, int z, std::size_t) {
        const Size p = {x, y, z};
        for (int d = 0; d < 3; ++d)
          if (d != axis && (p[d] < 24 || p[d] >= 40)) return;
        if (p[axis] >= 8) {
          EXPECT_EQ(mask(x, y, z), p[axis] < 32) << axis << ": " << x << ' ' << y << ' ' << z;
        }
      });
    }
  }
}

TEST(Front, StaysInItsDomainAndEndsInTimeWhateverTheImage) {
  std::mt19937 random(5);
  const Size size = {50, 40, 30};
  const BitVolume start = maskOf(size, [](int x, int y, int z) {
    return x > 15 && x < 35 && y > 10 && y < 30 && z > 8 && z < 22;
  });
  for (const double density : {0.0, 0.5, 1.0}) {
    const LevelImage level(twoValued({randomMask(size, density, random), size}, 1000), 2);
    for (const double allowed : {0.0, 0.97, 1.0}) {
      BitVolume domain(randomMask(size, allowed, random), size), from = start;
      from &= domain;
      for (const double w5 : {0.0, 1.0, 5.0, 1e30})
        for (const int most : {0, 1, 40}) {
          const auto [mask, steps] =
              evolved(level, from, {.w3 = 0.5, .w5 = w5, .mostSteps = most}, &domain);
          EXPECT_LE(steps, most);
          EXPECT_EQ(countBoth(mask, domain), mask.count());
          EXPECT_TRUE(most > 0 || mask == from);
        }
    }
  }
}

TEST(Front, GivesTheSameBytesWithAllVectorsAndThreads) {
  std::mt19937 random(7);
  const BitVolume bright = ball(150, 60);
  const LevelImage level(twoValued(bright, 2000), 4);
  const BitVolume from = ball(150, 52, 6);  // a band of more than 20000 edge voxels
  FrontSettings settings{.mostSteps = 5, .instructions = tavrel::InstructionSet::portable};
  const BitVolume expected = evolved(level, from, settings).first;
  EXPECT_NE(expected, from);
  for (const auto set : {tavrel::InstructionSet::portable, tavrel::InstructionSet::avx2,
                         tavrel::InstructionSet::avx512})
    for (const int threads : {1, 2, 3}) {
      if (set > tavrel::widestInstructionSet()) continue;
      settings.instructions = set;
      settings.threads = threads;
      EXPECT_EQ(evolved(level, from, settings).first, expected) << int(set) << ' ' << threads;
    }
}

TEST(Front, RemembersNothingOfTheMaskBefore) {
  const LevelImage level(twoValued(ball(48, 15), 1000), 2);
  std::mt19937 random(3);
  const BitVolume domain({randomMask({48, 48, 48}, 0.9, random), {48, 48, 48}});
  BitVolume from = ball(48, 8), large = level.withBorder(ball(48, 20));
  BitVolume inside = level.withBorder(from &= domain);
  Front used(level);
  used.evolve(large, level.domain(), {});
  used.evolve(inside, level.withBorder(domain), {});
  EXPECT_EQ(level.withoutBorder(inside), evolved(level, from, {}, &domain).first);
}

}  // namespace
