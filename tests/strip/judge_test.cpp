#include "strip/judge.h"

#include <gtest/gtest.h>

#include <cmath>

#include "heads.h"
#include "volumes.h"

namespace {

using namespace test_volumes;

TEST(Judge, EveryRuleFiresBeyondItsLimitAlone) {
  const Evidence sound{.volumeMl = 1400};
  struct Case {
    const char* code;
    double Evidence::*figure;
    double sound, limit;
  };
  for (const Case& c : {Case{"volume ", &Evidence::volumeMl, 770, 700},
                        {"volume ", &Evidence::volumeMl, 2090, 2200},
                        {"unstable ", &Evidence::agreement, 0.95, 0.92},
                        {"unstable ", &Evidence::shrinking, 0.5, 0.6},
                        {"gap ", &Evidence::gapless, 0.1, 0.2},
                        {"contrast ", &Evidence::whiteOverGrey, 1.2, 1.12},
                        {"contrast ", &Evidence::fatMl, 10, 20},
                        {"stripped ", &Evidence::emptyAround, 0.8, 0.9},
                        {"seed ", &Evidence::seedInside, 0.65, 0.5},
                        {"cut ", &Evidence::cutCm2, 5, 10},
                        {"cut ", &Evidence::cutBelowCm2, 20, 30},
                        {"leak ", &Evidence::widthMm, 165, 175},
                        {"leak ", &Evidence::lengthMm, 205, 215},
                        {"leak ", &Evidence::heightMm, 180, 190},
                        {"head ", &Evidence::headWidthMm, 240, 270},
                        {"head ", &Evidence::otherPiece, 0.15, 0.3},
                        {"resolution ", &Evidence::voxelMm3, 27, 43}}) {
    const auto judged = [&](double beyond) {  // 0: the sound value, 1: the limit
      Evidence e = sound;
      e.*c.figure = c.sound + beyond * (c.limit - c.sound);
      return judge(e, {});
    };
    EXPECT_EQ(judged(-0.2).confidence, 1) << c.code;
    EXPECT_NEAR(judged(0).confidence, 1, 1e-9) << c.code;
    EXPECT_NEAR(judged(1).confidence, 0.5, 1e-9) << c.code;
    EXPECT_EQ(codes(judged(0.99)), "") << c.code;
    EXPECT_EQ(codes(judged(1.01)), c.code);
    EXPECT_EQ(judged(2.1).confidence, 0) << c.code;
  }
  const Judgement both = judge({.volumeMl = 2910.6, .gapless = 0.21}, {.least = 400, .most = 2800});
  EXPECT_EQ(codes(both), "volume gap ");
  EXPECT_EQ(both.flags[0].text, "volume 2911 mL is outside 400 to 2800");
  EXPECT_NEAR(both.confidence, (0.5 - 0.5 * 110.6 / 140) * 0.45, 1e-9) << "of independent rules";
  EXPECT_EQ(codes(judgeVolume(90, {.least = 0, .most = 200})), "") << "no least volume";
  EXPECT_EQ(codes(judgeVolume(90, {})), "volume ");
}

TEST(Judge, ReadsTheFiguresOfAMask) {
  // A bright core in a darker rim in a dark gap, 4 mm wide, in tissue; the gap is open on one side.
  const Size size = {60, 60, 60};
  Intensities image{{size, {2, 2, 2}}, {}};
  BitVolume mask(size), seed(size);
  forVoxels(size, [&](int x, int y, int z, std::size_t) {
    const double r = std::hypot(2 * x - 59, 2 * y - 59, 2 * z - 59);
    if (r < 40) mask.set(x, y, z);
    if (std::abs(2 * x - 79) < 20 && std::abs(2 * y - 59) < 20 && std::abs(2 * z - 59) < 20)
      seed.set(x, y, z);
    const bool open = 2 * z - 59 > 20;
    const bool ventricle = 2 * z - 59 > 33 && r < 40;  // dark, but of the mask
    image.values.push_back(ventricle        ? 100
                           : r < 30         ? 3000
                           : r < 40 || open ? 2000
                           : r < 44         ? 100
                                            : 2500);
  });
  Evidence e;
  examine({image, mask, seed}, e);
  EXPECT_DOUBLE_EQ(e.whiteOverGrey, 1.5);
  EXPECT_NEAR(e.gapless, 0.2, 0.05) << "a cap from 28 mm on";
  EXPECT_NEAR(e.emptyAround, 0.75 * 0.35, 0.1);
  EXPECT_NEAR(e.seedInside, 0.9, 0.1);
  for (const double mm : {e.widthMm, e.lengthMm, e.heightMm}) EXPECT_EQ(mm, 80);
}

/// Trials whose masks hold so many voxels, each those of the one before.
WeightChoice chosenOf(const std::vector<int>& voxels, double mostMl) {
  std::vector<WeightTrial> trials;
  for (const int n : voxels) {
    WeightTrial& trial = trials.emplace_back();
    trial.finished = BitVolume({1000, 1, 1});
    trial.finished.setRange(0, 0, 0, n);
    trial.ml = n;
  }
  return chooseWeight(trials, mostMl);
}

TEST(WeightChoice, IsTheLeastWeightThatIsNearlyAsStableAsAny) {
  struct Case {
    std::vector<int> voxels;
    std::size_t chosen, best;
  };
  for (const Case& c : {Case{{400, 600, 602, 604, 604, 900}, 2, 3},
                        {{400, 500, 560, 590, 600, 602}, 4, 5},
                        {{500, 502, 504, 600, 700, 950}, 0, 1},
                        {{400, 500, 600, 900, 901, 901}, 1, 1},  // from 800 on too large
                        {{850, 870, 900, 950, 960, 961}, 5, 5},  // all are
                        {{0, 0, 0, 500, 600, 650}, 5, 5},        // nothing is no brain
                        {{700}, 0, 0}}) {
    const WeightChoice choice = chosenOf(c.voxels, 800);
    EXPECT_EQ(choice.chosen, c.chosen) << c.voxels[0];
    EXPECT_EQ(choice.best, c.best) << c.voxels[0];
    EXPECT_EQ(choice.agreement, choice.ratings[choice.chosen]);
  }
  const WeightChoice unstable = chosenOf({100, 200, 400, 790}, 800);
  EXPECT_EQ(codes(judge({.volumeMl = 1400, .agreement = unstable.agreement}, {})), "unstable ");
}

}  // namespace
