#include "strip/stripping.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>

#include "heads.h"

namespace {

using namespace test_volumes;

const Grid kGrid = {{60, 60, 60}, {2, 2, 2}};

/// Values in the container of the exact evolution.
std::unique_ptr<Image> imageOf(const Grid& grid, const auto& values) {
  auto image = std::make_unique<Image>(grid.size[0], grid.size[1], grid.size[2]);
  std::copy(values.begin(), values.end(), image->p);
  return image;
}

/// A ball of tissue in dark fluid, joined to a slab before it by a beam of this thickness in mm.
std::unique_ptr<Image> ballAndSlab(double beam) {
  return imageOf(kGrid, sampled(kGrid, [&](double x, double y, double z) {
                   const double r = std::hypot(x, y + 10, z);
                   const bool inSlab = std::abs(x) < 50 && y > 34 && y < 56 && std::abs(z) < 50;
                   const bool inBeam =
                       std::abs(x) < beam / 2 && std::abs(z) < beam / 2 && y > 0 && y < 56;
                   const int texture = int(7 * (x + 59) + 5 * (y + 59) + 3 * (z + 59)) / 2 % 11;
                   return r < 36 || inSlab || inBeam ? 95.0 + texture : r < 46 ? 20 : 5;
                 }));
}

TEST(Stripping, LowersTheWeightWhileTheMaskLeaksAndSaysWhenThatDoesNotHelp) {
  StripSettings settings;
  settings.finish = kDefaultFinish;
  std::vector<double> runs;
  StripObserver observer;
  observer.onRun = [&](double w5) { runs.push_back(w5); };
  const auto volume = [](const Stripped& stripped) {
    return double(std::count(stripped.mask.begin(), stripped.mask.end(), 1)) * 0.008;  // mL
  };
  settings.volumes = {100, 2000};
  const double ball = 4.0 / 3 * M_PI * 3.6 * 3.6 * 3.6;

  const Stripped sound = stripExactly(ballAndSlab(0), kGrid, settings, observer);
  EXPECT_EQ(runs, std::vector{1.0});
  EXPECT_EQ(sound.w5, 1);
  EXPECT_TRUE(sound.judgement.flags.empty());
  EXPECT_NEAR(volume(sound), ball, 0.25 * ball);

  runs.clear();
  const Stripped leaking = stripExactly(ballAndSlab(12), kGrid, settings, observer);
  ASSERT_EQ(runs.size(), 4u);
  for (std::size_t i = 0; i < runs.size(); ++i) EXPECT_NEAR(runs[i], 1 - 0.1 * double(i), 1e-9);
  EXPECT_NEAR(leaking.w5, 0.7, 1e-9);
  EXPECT_EQ(codes(leaking.judgement), "leak ");
  EXPECT_GT(volume(leaking), 2 * ball);
}

TEST(Stripping, TheTwoEvolutionsFindTheSameBrain) {
  const TestScan scan = phantomHead(1.5);
  StripSettings settings;
  settings.finish = kDefaultFinish;
  settings.w5 = 1.5;
  settings.threads = 2;
  const Stripped exact = stripExactly(imageOf(scan.grid, scan.values), scan.grid, settings);
  const Stripped fast = stripScan(scan.view(), settings);
  EXPECT_GT(dice(exact.mask, fast.mask), 0.955);
  EXPECT_GT(dice(fast.mask, scan.brain), dice(exact.mask, scan.brain));
  EXPECT_EQ(fast.w5, 1.5);
  EXPECT_EQ(fast.trials.size(), 1u);
  EXPECT_EQ(exact.levels.size(), 3u);
}

TEST(Stripping, ThreadsChangeNothingAndTheObserverMayEndTheWork) {
  const TestScan scan = phantomHead(1.6);  // more edge voxels than one thread gets
  std::optional<Stripped> first;
  for (const int threads : {1, 2, 3}) {
    StripSettings settings;
    settings.threads = threads;
    const Stripped result = stripScan(scan.view(), settings);
    EXPECT_GE(result.trials.size(), 6u);
    if (!first) first = result;
    EXPECT_EQ(result.mask, first->mask) << threads;
    EXPECT_EQ(result.w5, first->w5) << threads;
    EXPECT_EQ(result.judgement.confidence, first->judgement.confidence) << threads;

    struct Enough {};
    std::atomic<int> passes = 0;
    StripObserver observer;
    std::vector<double> done;
    observer.onStage = [&](const char*, double share) { done.push_back(share); };
    observer.checkpoint = [&] {
      if (++passes == 40) throw Enough();
    };
    EXPECT_THROW(stripScan(scan.view(), settings, observer), Enough);
    EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
    EXPECT_EQ(done.size(), 2u) << "in the trials";
  }
}

TEST(Stripping, BrainsOfAnotherSizeAreStrippedAndJudgedAsThoseOfAdults) {
  const TestScan adult = phantomHead(2);
  TestScan small = adult;
  for (double& mm : small.grid.spacing) mm /= 4;
  StripSettings settings, ofSmall;
  ofSmall.volumes = {settings.volumes.least / 64, settings.volumes.most / 64};
  const Stripped large = stripScan(adult.view(), settings), same = stripScan(small.view(), ofSmall);
  EXPECT_EQ(same.mask, large.mask);
  EXPECT_EQ(codes(same.judgement), codes(large.judgement));
  EXPECT_NEAR(64 * same.trials[0].ml, large.trials[0].ml, 1e-6);
  EXPECT_EQ(largestWorkGrid(small.view(), ofSmall).spacing[0], 0.5);
  // A range that only allows more leaves the method as it is.
  settings.volumes = {500, 2500};
  EXPECT_EQ(stripScan(adult.view(), settings).mask, large.mask);
  EXPECT_THROW(stripScan(small.view(), settings), NoHead);
  settings.volumes = {0.1, 0.4};  // of a mouse: such a grid would have a thousand times the voxels
  EXPECT_THROW(stripScan(adult.view(), settings), NoHead);
}

TEST(Stripping, TellsAHeadThatTheFieldOfViewCuts) {
  const TestScan whole = phantomHead(2);
  const auto cutBy = [&](int d, int first, int end) {
    Grid grid = whole.grid;
    grid.size[d] -= first + end;
    const TestScan part = rearranged(whole, grid, 0, [&](Size p) {
      p[d] += first;
      return p;
    });
    return codes(stripScan(part.view(), {}).judgement);
  };
  EXPECT_EQ(cutBy(2, 0, 0).find("cut"), std::string::npos);
  EXPECT_NE(cutBy(2, 0, 25).find("cut"), std::string::npos) << "above";
  EXPECT_NE(cutBy(2, 40, 0).find("cut"), std::string::npos) << "below";
  EXPECT_NE(cutBy(0, 20, 0).find("cut"), std::string::npos) << "at the right";
  EXPECT_NE(cutBy(1, 0, 30).find("cut"), std::string::npos) << "before";
}

}  // namespace
