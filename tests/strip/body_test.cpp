#include "strip/body.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using namespace tavrel::strip;

const Grid kHalf = {{80, 80, 80}, {2, 2, 2}};

/// A mask of the half grid from a test on millimetres from its centre.
template <class Inside>
std::vector<char> sampled(Inside&& inside) {
  std::vector<char> mask;
  for (int z = 0; z < 80; ++z)
    for (int y = 0; y < 80; ++y)
      for (int x = 0; x < 80; ++x) mask.push_back(inside(2 * x - 79.0, 2 * y - 79.0, 2 * z - 79.0));
  return mask;
}

bool brain(double x, double y, double z) { return x * x + y * y + z * z < 40 * 40; }
bool face(double x, double y, double z) {
  return std::abs(x) < 40 && y > 45 && y < 75 && std::abs(z) < 40;
}
bool thread(double x, double y, double z) {
  return std::abs(x) < 2 && y > 0 && y < 50 && std::abs(z) < 2;
}

TEST(MaskBody, TellsALeakThroughAThreadFromSoundMasks) {
  const auto sound = sampled(brain);
  const auto apart = sampled([](auto... p) { return brain(p...) || (face(p...)); });
  // The face is thin sheets, as the minimum filter leaves them.
  const auto leaking = sampled([](double x, double y, double z) {
    const bool sheets = std::fmod(x + 200, 8) < 2 || std::fmod(z + 200, 16) < 2;
    return brain(x, y, z) || thread(x, y, z) || (face(x, y, z) && sheets);
  });
  EXPECT_FALSE(MaskBody(sound, kHalf).leaks());
  EXPECT_FALSE(MaskBody(sound, kHalf).thin());
  EXPECT_FALSE(MaskBody(apart, kHalf).leaks());
  EXPECT_TRUE(MaskBody(leaking, kHalf).leaks());

  // Finished masks of the full resolution, here of the half grid's middle 150 of 160 voxels.
  const Size size = {150, 150, 150}, before = {5, 5, 5};
  std::vector<char> small, large;
  for (int z = 0; z < 150; ++z)
    for (int y = 0; y < 150; ++y)
      for (int x = 0; x < 150; ++x) {
        const double p[3] = {x - 74.5, y - 74.5, z - 74.5};
        small.push_back(std::hypot(p[0], p[1], p[2]) < 50);
        large.push_back(small.back() || face(p[0], p[1], p[2]));
      }
  EXPECT_FALSE(MaskBody(sound, kHalf).leaks(small, size, before));
  EXPECT_TRUE(MaskBody(sound, kHalf).leaks(large, size, before));
}

TEST(MaskBody, CallsFoldsWithoutMatterThin) {
  const auto shell = sampled([](double x, double y, double z) {
    const double r = std::hypot(x, y, z);
    return r < 20 || (r < 45 && std::fmod(x + 200, 10) < 4);
  });
  EXPECT_TRUE(MaskBody(shell, kHalf).thin());
  const MaskBody nothing(std::vector<char>(80 * 80 * 80, 0), kHalf);
  EXPECT_TRUE(nothing.thin());
  EXPECT_FALSE(nothing.leaks());
}

}  // namespace
