// The exact region sums against plain loops over the box, with every instruction set of this
// processor: sums that cross binades, round half-way, or leave the range of the tables.
#include "exact/region_sums.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <vector>

#include "grids.h"

namespace {

using namespace tavrel::test;
using tavrel::InstructionSet;
using tavrel::exact::RegionSums;

struct Case {
  const char* name;
  std::function<double(Random&)> value;  ///< one voxel of the image
};

const Case cases[] = {
    {"uniform", [](Random& r) { return r.between(0, 1); }},
    {"bytes normalised", [](Random& r) { return r.below(256) / 255.0; }},
    {"bytes", [](Random& r) { return r.below(256); }},
    {"two values", [](Random& r) { return r.below(2); }},
    {"ones", [](Random&) { return 1.0; }},                      // every power of two is met exactly
    {"up to four", [](Random& r) { return r.between(0, 4); }},  // sums leave the tables at the top
    {"just below one", [](Random&) { return std::nextafter(1.0, 0.0); }},
    // Odd multiples of half an ulp of sums in [2^e, 2^(e+1)), for small to large e.
    {"half-way", [](Random& r) { return std::ldexp(2 * r.below(1 << 20) + 1, r.below(12) - 53); }},
    {"half-way now and then",
     [](Random& r) { return r.below(256) / 256.0 + (r.below(9) ? 0 : std::ldexp(1, -44)); }},
    {"many scales", [](Random& r) { return std::ldexp(r.between(0, 1), r.below(60) - 55); }},
    {"below the last place", [](Random& r) { return r.below(30) ? std::ldexp(1, -60) : 3.0; }},
    {"sparse and tiny",
     [](Random& r) { return r.below(400) ? 0 : std::ldexp(1, r.below(5) - 50); }},
    {"denormal", [](Random& r) { return r.between(0, 1) * 1e-310; }},
    {"some negative", [](Random& r) { return r.between(-0.1, 1); }},
    {"negative", [](Random& r) { return r.below(4) ? -r.between(0, 1) : -0.0; }},
    {"outliers", [](Random& r) { return r.between(0, 1) * (r.below(300) ? 1 : 1e12); }},
    {"huge", [](Random& r) { return r.between(0, 1) * 1e308; }},
    {"infinite", [](Random& r) { return r.below(2000) ? 0.5 : kInfinity; }},
    {"not a number", [](Random& r) { return r.below(2000) ? 0.5 : kNaN; }},
};

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
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message()
                   << c.name << " " << size[0] << "x" << size[1] << "x" << size[2]);
      Random r(++seed);
      Grid<double> image(size);
      for (double& v : image.p) v = c.value(r);
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
