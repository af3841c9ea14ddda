// What happens to a run: processes that die, calls at the same time, limits.
#include "cohort.h"

namespace {

using namespace test_cohort;
using namespace std::chrono_literals;

/// Processes that a process has started and that still live.
std::vector<pid_t> childrenOf(pid_t process) {
  const std::string id = std::to_string(process);
  std::ifstream in("/proc/" + id + "/task/" + id + "/children");
  std::vector<pid_t> children;
  for (pid_t child; in >> child;) children.push_back(child);
  return children;
}

class CohortRun : public Cohort {
 protected:
  Process start(const std::vector<std::string>& options = {}) const {
    return Process(TAVREL_BIDS_COMMAND, call(options));
  }
  /// Waits for a child, and for the note of a scan that was begun.
  pid_t childAtWork(const Process& process) const {
    for (int wait = 0; wait < 3000; ++wait, std::this_thread::sleep_for(10ms)) {
      const auto children = childrenOf(process.id());
      std::error_code failure;
      for (const auto& note : fs::directory_iterator(out_ / "logs/unfinished", failure))
        if (!children.empty() && note.file_size(failure) > 0 && !failure) return children.front();
    }
    return 0;
  }
};

TEST_F(CohortRun, AScanThatDiesCostsItselfAlone) {
  addSubjects(2);
  addScan("sub-00/anat/sub-00_T1w.nii.gz", 9, kLarger);
  const auto expect = [&](const Result& result, const char* reason) {
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find(reason), std::string::npos) << result.err;
    EXPECT_EQ(cell("sub-00", "status"), "failed");
    EXPECT_NE(cell("sub-00", "reason").find(reason), std::string::npos);
  };
  for (const auto& [signal, reason] : {std::pair{SIGKILL, "was killed"}, {SIGABRT, "crashed"}}) {
    Process process = start({"--jobs", "1"});
    const pid_t child = childAtWork(process);
    ASSERT_GT(child, 0);
    kill(child, signal);
    expect(process.wait(), reason);
    EXPECT_EQ(cell("sub-02", "status"), "done");
  }
  expect(bids({"--timeout", "0.05"}), "longer than 0.05 s");
  expect(bids({"--mem", "40"}), "memory");
  EXPECT_EQ(bids().status, 0) << "what failed is done again";
  EXPECT_EQ(cell("sub-00", "status"), "done");
  EXPECT_TRUE(fs::is_empty(out_ / "logs/unfinished"));
}

TEST_F(CohortRun, MemoryLimitsHowManyScansRunAtOnce) {
  addSubjects(4, kLarger);
  const auto most = [&](const std::vector<std::string>& options) {
    Process process = start(options);
    std::size_t most = 0;
    for (int status = 0; waitpid(process.id(), &status, WNOHANG) == 0;
         std::this_thread::sleep_for(5ms))
      most = std::max(most, childrenOf(process.id()).size());
    fs::remove_all(out_);
    return most;
  };
  std::smatch need;
  const std::string list = bids({"--dry-run"}).out;
  ASSERT_TRUE(std::regex_search(list, need, std::regex(", (\\d+) MB")));
  const auto times = [&](double n) {
    return std::to_string(n * std::stod(need[1]) * 1e6 / (1 << 20));
  };
  EXPECT_EQ(most({"--jobs", "3", "--mem", times(4)}), 3u);
  EXPECT_EQ(most({"--jobs", "3", "--mem", times(2.5)}), 2u);
}

TEST_F(CohortRun, KilledAtAnyMomentItEndsWithTheSameBytes) {
  addSubjects(4);
  ASSERT_EQ(bids().status, 0);
  const Tree whole = reproducible(treeOf(out_));
  const auto began = std::chrono::steady_clock::now();
  fs::remove_all(out_);
  ASSERT_EQ(bids().status, 0);
  const auto span = std::chrono::duration<double>(std::chrono::steady_clock::now() - began);
  for (int round = 0; round < 6; ++round) {
    fs::remove_all(out_);
    // Several kills in a row, each at another moment; a child is killed with its parent.
    for (int kills = 0; kills < 3; ++kills) {
      Process process = start();
      std::this_thread::sleep_for(span * tavrel::uniformAt(5, std::uint64_t(3 * round + kills)));
      kill(process.id(), round % 2 ? SIGKILL : SIGTERM);
      const int status = process.wait().status;
      EXPECT_TRUE(status == 0 || status == 128 + (round % 2 ? SIGKILL : SIGTERM)) << status;
    }
    const Result last = bids();
    ASSERT_EQ(last.status, 0) << last.err;
    ASSERT_EQ(differences(reproducible(treeOf(out_)), whole), Names()) << "round " << round;
  }
}

TEST_F(CohortRun, TwoCallsShareTheWork) {
  addSubjects(6);
  ASSERT_EQ(bids().status, 0);
  const Tree alone = reproducible(treeOf(out_));
  fs::remove_all(out_);
  Process one = start({"--jobs", "2"}), two = start({"--jobs", "2"});
  const Result first = one.wait(), second = two.wait();
  EXPECT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(differences(reproducible(treeOf(out_)), alone), Names());
  int done = 0;
  for (const Result& result : {first, second}) {
    std::smatch match;
    ASSERT_TRUE(std::regex_search(result.out, match, std::regex("(\\d+) done now")));
    done += std::stoi(match[1]);
  }
  EXPECT_EQ(done, 6) << "no scan was stripped twice";
}

TEST_F(CohortRun, StopsWithinAMomentWhenAsked) {
  addSubjects(3, kLarger);
  Process process = start({"--jobs", "2"});
  ASSERT_GT(childAtWork(process), 0);
  const auto children = childrenOf(process.id());
  const auto begin = std::chrono::steady_clock::now();
  kill(process.id(), SIGINT);
  const Result result = process.wait();
  EXPECT_EQ(result.status, 130);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
  for (const pid_t child : children) EXPECT_NE(kill(child, 0), 0);
  EXPECT_EQ(bids({}, "group").status, 1);
  for (const auto& [scan, row] : table())
    EXPECT_NE(row.at("reason").find("interrupted"), std::string::npos) << scan;
  for (const auto& [name, content] : treeOf(out_))
    EXPECT_EQ(name.find(".tmp"), std::string::npos) << name;
}

}  // namespace
