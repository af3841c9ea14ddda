#include "strip/body.h"

#include <gtest/gtest.h>

#include <cmath>

#include "volumes.h"

namespace {

using namespace test_volumes;

const Grid kHalf = {{80, 80, 80}, {2, 2, 2}};

bool brain(double x, double y, double z) { return std::hypot(x, y, z) < 40; }
bool face(double x, double y, double z) {
  return std::abs(x) < 40 && y > 45 && y < 75 && std::abs(z) < 40;
}
bool thread(double x, double y, double z) {
  return std::abs(x) < 2 && y > 0 && y < 50 && std::abs(z) < 2;
}

TEST(MaskBody, TellsALeakThroughAThreadFromSoundMasks) {
  const MaskBody sound(sampled(kHalf, [](auto... p) { return char(brain(p...)); }), kHalf);
  const auto apart = sampled(kHalf, [](auto... p) { return char(brain(p...) || face(p...)); });
  // The face is thin sheets, as the minimum filter leaves them.
  const auto leaking = sampled(kHalf, [](double x, double y, double z) {
    const bool sheets = std::fmod(x + 200, 8) < 2 || std::fmod(z + 200, 16) < 2;
    return char(brain(x, y, z) || thread(x, y, z) || (face(x, y, z) && sheets));
  });
  EXPECT_FALSE(sound.leaks());
  EXPECT_FALSE(sound.thin());
  EXPECT_FALSE(MaskBody(apart, kHalf).leaks());
  EXPECT_TRUE(MaskBody(leaking, kHalf).leaks());

  // Finished masks of the full resolution, here of the half grid's middle 150 of 160 voxels.
  const Grid full = {{150, 150, 150}, {1, 1, 1}};
  const Size before = {5, 5, 5};
  const auto ball = [](auto... p) { return std::hypot(p...) < 50; };
  const auto small = sampled(full, [&](auto... p) { return char(ball(p...)); }),
             large = sampled(full, [&](auto... p) { return char(ball(p...) || face(p...)); });
  EXPECT_FALSE(sound.leaks(small, full.size, before));
  EXPECT_TRUE(sound.leaks(large, full.size, before));
}

TEST(MaskBody, CallsFoldsWithoutMatterThin) {
  const auto shell = sampled(kHalf, [](double x, double y, double z) {
    const double r = std::hypot(x, y, z);
    return char(r < 20 || (r < 45 && std::fmod(x + 200, 10) < 4));
  });
  EXPECT_TRUE(MaskBody(shell, kHalf).thin());
  const MaskBody nothing(std::vector<char>(80 * 80 * 80, 0), kHalf);
  EXPECT_TRUE(nothing.thin());
  EXPECT_FALSE(nothing.leaks());
}

}  // namespace
