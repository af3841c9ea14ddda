// Trees that nobody should have made, and disks that refuse.
#include <sys/mount.h>

#include <random>

#include "cohort.h"

namespace {

using namespace test_cohort;

class Trees : public Cohort {};

TEST_F(Trees, RandomOnesEndWithALineAndAStatus) {
  std::mt19937 random(7);
  const auto any = [&](const std::vector<std::string>& choices) {
    return choices[random() % choices.size()];
  };
  const std::vector<std::string> words = {"01",   "a b",     "x\ny", "<i>", "\xff\xfe", "'q'\"",
                                          "$(x)", "\x1b[2J", "ü",    "..",  "-",        "%41"};
  for (int round = 0; round < 12; ++round) {
    fs::remove_all(raw_);
    if (random() % 5)
      put("dataset_description.json", any({"{\"Name\": \"<b>\\n\"}", "{", "[]", "{}"}));
    fs::create_directories(raw_);
    for (int file = 0; file < 12; ++file) {
      const std::string subject = "sub-" + any(words);
      fs::path folder = raw_ / subject;
      if (random() % 3 == 0) folder /= "ses-" + any(words);
      folder /= any({"anat", "anat", "anat", "func"});
      const fs::path scan =
          folder / (any({subject, "sub-01", "x"}) + any({"", "_run-1", "_", "_acq-" + any(words)}) +
                    any({"_T1w.nii.gz", "_T1w.nii", "T1w.nii.gz"}));
      std::error_code failure;
      fs::create_directories(folder, failure);
      const auto kind = random() % 6;
      if (kind == 0)
        fs::create_directory_symlink("../..", scan, failure);
      else if (kind == 1)
        fs::create_directory(scan, failure);
      else if (kind == 2)
        mkfifo(scan.c_str(), 0600);
      else if (kind == 3 && !failure)
        addScan(scan, 1, {16, 19, 18});
      else
        std::ofstream(scan) << std::string(random() % 400, 'n');
    }
    const Result result = bids();
    EXPECT_TRUE(std::set<int>({0, 1, 16, 18}).contains(result.status))
        << result.status << result.err;
    EXPECT_EQ(result.err.empty(), result.status == 0) << result.err;
    for (const char c : result.out + result.err)
      EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20) << int(c);
    if (result.status > 1) continue;
    for (const auto& [scan, row] : table()) {
      EXPECT_TRUE(row.at("status") == "done" || row.at("reason") != "n/a") << scan;
      for (const auto& [column, cell] : row)
        EXPECT_EQ(cell.find_first_of("\x1b\n\xff"), std::string::npos) << scan;
    }
    EXPECT_EQ(readText(out_ / "index.html").find("<i>"), std::string::npos);
  }
}

TEST_F(Trees, TenThousandEmptySubjectsTakeNoTime) {
  addSubjects(1);
  for (int i = 0; i < 10000; ++i)
    fs::create_directories(raw_ / ("sub-e" + std::to_string(i)) / "anat");
  const auto begin = std::chrono::steady_clock::now();
  const Result result = bids();
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(table().size(), 1u);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
}

/// A disk of its own for the outputs.
class Disks : public Cohort {
 protected:
  bool mountAt(const char* options, unsigned long flags = 0) {
    fs::create_directories(out_);
    return mount("none", out_.c_str(), "tmpfs", flags, options) == 0;
  }
  void TearDown() override { umount2(out_.c_str(), MNT_DETACH); }
};

TEST_F(Disks, AFullOneEndsWithAReasonAndNothingHalfWritten) {
  if (!mountAt("size=1200k")) GTEST_SKIP() << "no disk can be mounted here";
  addSubjects(4);
  const Result result = bids();
  EXPECT_TRUE(result.status == 73 || result.status == 1) << result.status;
  EXPECT_NE(result.err.find("No space left"), std::string::npos) << result.err;
  for (const auto& [name, content] : treeOf(out_)) {
    EXPECT_EQ(name.find(".tmp"), std::string::npos) << name;
    EXPECT_TRUE(!name.ends_with("_mask.json") || json::accept(content)) << name;
  }
  mount("none", out_.c_str(), "tmpfs", MS_REMOUNT, "size=100m");
  EXPECT_EQ(bids().status, 0) << "with room it is finished";
  EXPECT_EQ(table().size(), 4u);
}

TEST_F(Disks, AReadOnlyOneIsRefusedAtOnce) {
  if (!mountAt("size=1m", MS_RDONLY)) GTEST_SKIP() << "no disk can be mounted here";
  addSubjects(1);
  const Result result = bids();
  EXPECT_EQ(result.status, 73);
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find("not writable"), std::string::npos) << result.err;
}

}  // namespace
