// The exact region sums against plain loops over the box, with every instruction set of this
// processor: sums that cross binades, round half-way, or leave the range of the tables.
#include "exact/region_sums.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "grids.h"

namespace {

using namespace tavrel::test;
using tavrel::InstructionSet;
using tavrel::exact::RegionSums;

/// Sides in blobs, as an evolution has them, or voxel by voxel.
std::vector<char> randomLabels(const Grid<double>& shape, bool blobs, Random& r) {
  std::vector<char> label;
  for (double v : shape.p) {
    const int code = 1 + r.below(3);
    label.push_back(static_cast<char>((blobs ? v > 0 : r.below(2) == 0) ? code : -code));
  }
  return label;
}

TEST(RegionSums, EqualPlainLoopsInEveryBit) {
  const Point sizes[] = {{1, 1, 1},    {1, 40, 9},  {50, 24, 23},
                         {23, 49, 21}, {97, 12, 5}, {130, 110, 1}};
  tavrel::exact::RegionSummer summer;  // its work space is shared by all calls
  unsigned seed = 0;
  for (Point size : sizes) {
    for (int kind = 0; kind < std::ssize(kImages); ++kind) {
      SCOPED_TRACE(testing::Message()
                   << "image " << kind << " " << size[0] << "x" << size[1] << "x" << size[2]);
      Random r(++seed);
      const Grid<double> image = randomImage(kind, size, r);
      const std::vector<char> label = randomLabels(waves(size, r), seed % 3 > 0, r);
      std::vector<int> centres;
      for (std::size_t g = 0; g < label.size(); ++g)
        if (r.below(static_cast<int>(label.size()) / 250 + 1) == 0)
          centres.push_back(static_cast<int>(g));
      std::stable_partition(centres.begin(), centres.end(), [&](int g) { return label[g] == 1; });

      std::vector<RegionSums> want;
      for (int g : centres)
        want.push_back(tavrel::exact::plainRegionSums(image.p.data(), label.data(),
                                                      {size[0], size[1], size[2]}, g));
      for (InstructionSet set :
           {InstructionSet::portable, InstructionSet::avx2, InstructionSet::avx512}) {
        if (set > tavrel::widestInstructionSet()) continue;
        std::vector<RegionSums> got(centres.size());
        summer.sum(image.p.data(), label.data(), {size[0], size[1], size[2]}, centres, got,
                   1 + static_cast<int>(seed) % 3, set);
        for (std::size_t i = 0; i < got.size(); ++i) {
          ASSERT_TRUE(same(got[i].positive, want[i].positive) &&
                      same(got[i].negative, want[i].negative))
              << "voxel " << centres[i] << " instruction set " << static_cast<int>(set)
              << std::setprecision(17) << ": " << got[i].positive << ", " << got[i].negative
              << " instead of " << want[i].positive << ", " << want[i].negative;
          ASSERT_EQ(got[i].nPositive, want[i].nPositive);
          ASSERT_EQ(got[i].nNegative, want[i].nNegative);
        }
      }
    }
  }
}

}  // namespace
