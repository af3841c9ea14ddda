// Parameter records, their printing and filling, and the sorting utilities.
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "arguments.h"
#include "grids.h"
#include "process.h"
#include "voxBalloonPara.h"
#include "voxPara.h"
#include "voxUtility.h"

namespace {

using namespace tavrel::test;

char in[] = "in.raw", mask[] = "mask.raw", ss[] = "ss.raw", templ[] = "t.raw";

void fill(voxPara& P, int size, int seg_dn) {
  P.setupBalloonParameters(in, mask, ss, 1, 0, 2, size, 217, 184, 0, 1, 0, seg_dn, 1.0, 0.1, 0.2,
                           0.3, 0.4, 0.5, 0.6, 1, 2, 0.01, 4, 5, 6, 7.25, 100, 200, 300);
}

/// An argument vector, ended by a null pointer; an empty word is one, too.
std::vector<char*> argvOf(std::vector<std::string>& words) {
  std::vector<char*> argv{nullptr};  // argv[0] is not looked at
  for (std::string& word : words) argv.push_back(word.empty() ? nullptr : word.data());
  argv.push_back(nullptr);
  return argv;
}

TEST(Padding, FillsUpToMultiple) {
  const std::array<int, 4> cases[] = {{181, 2, 1, 2},
                                      {182, 2, 1, 1},
                                      {184, 2, 0, 0},
                                      {1, 2, 1, 2},
                                      {0, 5, 0, 0},
                                      {7, -3, 0, 0},
                                      {7, 40, INT_MAX, INT_MAX},
                                      {7, INT_MAX, INT_MAX, INT_MAX}};
  for (const auto& [size, dn, before, after] : cases) {
    const std::unique_ptr<int[]> padding(calextension(size, dn));
    EXPECT_EQ(std::pair(padding[0], padding[1]), std::pair(before, after)) << size << " " << dn;
  }
}

template <class Record>
std::string printed(const Record& P) {
  return runApart([&] { P.printPara(); }).out;
}

TEST(Para, FillsFieldsInOrder) {
  voxPara P;
  fill(P, 181, 1);
  EXPECT_EQ((std::array{P.ori_fn, P.mask_fn, P.SS_fn, P.template_fn}),
            (std::array<char*, 4>{in, mask, ss, nullptr}));
  EXPECT_EQ(printed(P),
            "displaying parameters:\n"
            "original data file name:in.raw\nmask file name:mask.raw\nSS file name:ss.raw\n"
            "ori format:1\nmask format:0\nSS format:2\ntemplate format:-1\n"
            "sizX:181 sizY:217 sizZ:184\n"
            "downsample X:0downsample Y:1downsample Z:0seg dn:1\n"
            "extension X:0 1extension Y:1 2extension Z:0 0\n"
            "seed: 0.1 0.2 0.3 0.4 0.5 0.6 \n"
            "weighting: 1 2 0.01 4 5 6 7.25\n"
            "max_iter: 100 200 \n");
  P.template_fn = templ;
  EXPECT_NE(printed(P).find("SS file name:ss.raw\ntemplate file name:t.raw\nori"),
            std::string::npos);
  const std::string empty = "displaying parameters:\nobject is empty\n";
  EXPECT_EQ(printed(voxPara()), empty);
  EXPECT_EQ(printed(voxBalloonPara()), empty);
}

TEST(Para, AsManyLimitsAsLevels) {
  voxPara P;
  const auto limitsFor = [&](int seg_dn) {
    fill(P, 181, seg_dn);
    return std::vector(P.max_iter, P.max_iter + P.levels());
  };
  EXPECT_EQ(limitsFor(2), (std::vector{100, 200, 300}));
  EXPECT_EQ(limitsFor(4), (std::vector{100, 200, 300, 300, 300}));
  EXPECT_EQ(limitsFor(0), (std::vector{100}));
  EXPECT_TRUE(limitsFor(-1).empty());
  EXPECT_TRUE(limitsFor(INT_MIN).empty());
  EXPECT_EQ(limitsFor(INT_MAX).size(), 32u);
}

/// An argument vector fills what the same arguments of a call fill; the rest stays as it was.
TEST(Para, ReadsArgumentVectors) {
  // What the numbers belong to: the template (t), z (z), the seed in the plane (s) and along z (S).
  const std::string kinds = "...t..z..z..ssssSS..........";
  const struct {
    void (voxPara::*fill)(char**);
    std::string name, lacks;
  } cases[] = {{&voxPara::setupBalloon, "Balloon", "t"},
               {&voxPara::setup2Volume, "2Volume", ""},
               {&voxPara::setup2DBalloon, "2DBalloon", "tzS"},
               {&voxPara::setup2D2Volume, "2D2Volume", "zsS"}};
  for (const auto& c : cases) {
    const auto has = [&](char kind) { return c.lacks.find(kind) == std::string::npos; };
    std::vector<std::string> words{in, "", ss};  // an absent path does not end the vector
    if (has('t')) words.push_back(templ);
    std::array<double, 28> values{0, 0, 0, -1, 0, 0, -3};  // of a record that has no arguments yet
    for (std::size_t n = 0; n < values.size(); ++n) {
      if (!has(kinds[n])) continue;
      values[n] = n == 10 ? 2 : n + 20.0;  // three levels
      words.push_back(std::to_string(static_cast<int>(values[n])));
    }
    std::vector<char*> argv = argvOf(words);
    const Finished filled = runApart([&] {
      voxPara P;
      P.sizeZ = -3;
      P.Zn = -5;
      (P.*c.fill)(argv.data());
      std::cout << P.gamma;
    });
    voxPara want;
    const auto call = [&](auto... v) {
      want.setup2VolumeParameters(in, nullptr, ss, has('t') ? templ : nullptr, v...);
    };
    std::apply(call, values);
    if (!has('z')) want.Zn = -5, want.Zp = 0;
    EXPECT_EQ(filled.out, c.name + " setup called\n" + printed(want) + "31");
  }
  char* none[] = {nullptr, nullptr};
  EXPECT_EQ(runApart([&] { voxPara().setupBalloon(none); }).status, Finished::returned);
}

struct FilledPara : voxPara {
  FilledPara() { fill(*this, 181, 2); }
};

TEST(Records, MayEndTwice) {
  endTwice<triple>(1, 2, 3, 4);
  endTwice<FilledPara>();
  endTwice<voxBalloonPara>();
}

TEST(BalloonPara, ReadsArgumentVector) {
  std::vector<std::string> words{"in", "2", "181", "217", "184", "0",
                                 "1",  "0", "2",   "0.5", "out", "1"};
  EXPECT_EQ(runApart([&] {
              const voxBalloonPara P(argvOf(words).data());
              std::cout << P.gamma << P.out_fn << P.out_datatype;
            }).out,
            "displaying parameters:\ndataname:in\nformat:2\nsizX:181 sizY:217 sizZ:184\n"
            "downsample X:0downsample Y:1downsample Z:0seg dn2\n"
            "extension X:1 2extension Y:3 4extension Z:0 0\n0.5out1");
}

TEST(Numbers, ConvertWithoutFailing) {
  EXPECT_EQ(tavrel::toInteger(" -12abc"), -12);
  EXPECT_EQ(tavrel::toInteger("0x10"), 0);
  EXPECT_EQ(tavrel::toInteger("99999999999999999999"), INT_MAX);
  EXPECT_EQ(tavrel::toInteger("-4294967297"), INT_MIN);
  EXPECT_EQ(tavrel::toReal("1e-2x"), 0.01);
  EXPECT_EQ(tavrel::toReal(nullptr), 0.0);
}

// ---- sorting utilities -------------------------------------------------------------------------

template <class T>
int compared(int (*compare)(const void*, const void*), T a, T b) {
  return compare(&a, &b);
}

TEST(Comparators, AscendWithNaNLast) {
  EXPECT_EQ(compared(comparedouble, 0.3, 0.7), -1);
  EXPECT_EQ(compared(comparedouble, kNaN, 0.7), 1);
  EXPECT_EQ(compared(comparedouble, 0.7, kNaN), -1);
  EXPECT_EQ(compared(comparedouble, kNaN, kNaN), 0);
  EXPECT_EQ(compared(comparedouble, 0.0, -0.0), 0);
  EXPECT_EQ(compared(comparefloat, 2.5f, -1.f), 1);
  EXPECT_EQ(compared(compareint, 30, 12), 18);
  EXPECT_EQ(compared(compareint, INT_MIN, INT_MAX), INT_MIN);
  EXPECT_EQ(compared(compareint, INT_MAX, -1), INT_MAX);
  EXPECT_EQ(compared(comparechar, '\xFD', '\2'), -5);
}

template <class Record>
void checkOrdered(int (*compare)(const void*, const void*)) {
  const Record a(1, 0.5), b(2, 0.5), c(3, kNaN);
  EXPECT_EQ(compared(compare, a, b), -1) << "distances are never equal";
  EXPECT_EQ(compared(compare, b, a), -1);
  EXPECT_EQ(compared(compare, c, a), 1);
  EXPECT_EQ(compared(compare, a, c), -1);
  Record near;
  EXPECT_EQ(near.data, 0.0);
  near.setup(4, 0.25);
  EXPECT_EQ(near.ind, 4);
  EXPECT_EQ(compared(compare, a, near), 1);
}

TEST(Comparators, OrderRecordsByDistance) {
  checkOrdered<OrderedPtd>(compareOrderedPtd);
  checkOrdered<OrderedPtf>(compareOrderedPtf);
}

TEST(Triples, TableSortsByKeys) {
  int table[] = {1, 2, 3, 1, 1, 9, 0, 5, 5, 1, 2, -4};
  triple* records = mat2DtotripleArray(table, 4);
  std::qsort(static_cast<void*>(records), 4, sizeof(triple), comparetriple);
  EXPECT_EQ(runApart([&] { PrinttripleArray(records, 4); }).out,
            "2: 0 5 5\n1: 1 1 9\n3: 1 2 -4\n0: 1 2 3\n");
  DeletetripleArray(records, 4);
  DeletetripleArray(nullptr, 3);
  DeletetripleArray(mat2DtotripleArray(table, 0), 0);
  const triple a(1, 1, 2, 3), b(2, 1, 2, 3);
  EXPECT_EQ(comparetriple(&a, &b), -1);
  EXPECT_EQ(comparetriple(&b, &a), -1);
}

TEST(Reductions, MaximumFirstMinimumAndMultiples) {
  const auto most = [](auto... v) {
    std::array array{v...};
    auto max = array[0];
    maxabs(array.data(), sizeof...(v), &max);
    return max;
  };
  EXPECT_EQ(most(-4.0, 3.0, 4.0), 4.0);
  EXPECT_EQ(most(-4.0, kNaN, 4.0, -4.5), 4.5) << "keeps the maximum so far";
  EXPECT_EQ(most(3u, 4000000000u), 4000000000u);
  int m[] = {2, 1, 1}, min = -1, index = -1;
  maxabs(m, 0, &min);
  minvandi(m, 0, &min, &index);
  EXPECT_EQ(std::pair(min, index), std::pair(-1, -1));
  minvandi(m, 3, &min, &index);
  EXPECT_EQ(std::pair(min, index), std::pair(1, 1));
  EXPECT_EQ(istimes(6.0, 3.0), 1);
  EXPECT_EQ(istimes(6.5, 3.0), 0);
  EXPECT_EQ(istimes(6.0, 0.0), 0);
  EXPECT_EQ(istimes(5.0, 0.25), 1);
}

}  // namespace
