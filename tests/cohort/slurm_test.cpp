// Runs on a real cluster of one node.
#include "cohort.h"

namespace {

using namespace test_cohort;
using namespace std::chrono_literals;

class Slurm : public Cohort {
 protected:
  void SetUp() override {
    fs::permissions(folder_.path(), fs::perms(0711));  // munged runs as another user
    if (cluster("start") == 77) GTEST_SKIP() << "Slurm is not installed, or the user is not root";
    setenv("SLURM_CONF", (folder_ / "cluster/slurm.conf").c_str(), 1);
  }
  void TearDown() override { cluster("stop"); }

  /// Subjects that take some seconds together.
  void addMany() {
    addScan(scanOf(1), 1, {96, 116, 108});
    for (int i = 2; i <= 9; ++i) {
      fs::create_directories((raw_ / scanOf(i)).parent_path());
      fs::copy_file(raw_ / scanOf(1), raw_ / scanOf(i));
    }
  }
  Result submit(std::vector<std::string> options, const std::string& wait = "--slurm-wait") const {
    options.insert(options.end(), {"--slurm", wait});
    return bids(options);
  }
  static std::string output(const std::string& command) {
    const Result result = Process("/bin/bash", {"-c", command}).wait();
    return result.out + result.err;
  }
  static void waitFor(const std::string& condition) {
    for (int wait = 0; wait < 600; ++wait, std::this_thread::sleep_for(100ms))
      if (std::system(condition.c_str()) == 0) return;
    ADD_FAILURE() << "never true: " << condition << "\n" << output("squeue -a; scontrol show job");
  }
  std::string log(const std::string& file) const { return out_ / "logs" / file; }
  /// Submits tasks of so many scans. @returns the first job, when it is at work on a scan
  std::string startJob(const std::string& scans) const {
    const Result result = submit({"--slurm-scans", scans}, "--slurm");
    std::smatch match;
    EXPECT_TRUE(std::regex_search(result.out, match, std::regex("jobs (\\d+),"))) << result.err;
    waitFor("squeue -h -t R -j " + match[1].str() + " | grep -q .");
    waitFor("ls " + log("unfinished/") + " | grep -q .");
    return match[1];
  }

 private:
  int cluster(const std::string& action) const {
    const int status = Process("/bin/bash", {CLUSTER, action, folder_ / "cluster"}).wait(60).status;
    EXPECT_TRUE(status == 0 || status == 77) << action;
    return status;
  }
};

TEST_F(Slurm, RunsOverSeveralTasksAndArrays) {
  addSubjects(4);
  std::ofstream(raw_ / scanOf(3)) << "no scan";
  const Result dry = bids({"--slurm-dry-run", "--slurm-scans", "1"});
  EXPECT_EQ(dry.status, 0);
  EXPECT_NE(dry.out.find("#SBATCH --requeue"), std::string::npos);
  EXPECT_NE(dry.out.find("--array=1-3"), std::string::npos) << "the limit of an array is 3 tasks";
  EXPECT_NE(dry.out.find("--array=1-1"), std::string::npos) << dry.out;
  EXPECT_FALSE(fs::exists(out_));

  const Result first = submit({"--slurm-scans", "1", "--slurm-options", "--comment='of the test'"});
  EXPECT_EQ(first.status, 1) << first.out << first.err;
  EXPECT_NE(first.out.find("scancel"), std::string::npos);
  EXPECT_NE(first.err.find("sub-03: "), std::string::npos) << first.err;
  const Stamps before = stampsOf(out_);
  EXPECT_EQ(bids().status, 1);
  EXPECT_EQ(differences(stampsOf(out_), before), Names{"logs/unfinished/sub-03_T1w.nii.gz.json"})
      << "a call without the cluster finds nothing else to do";
  EXPECT_EQ(cell("sub-03", "status"), "failed");

  addScan(scanOf(3), 3);
  EXPECT_EQ(submit({}).status, 0) << "resubmitted, only what is missing runs";
  EXPECT_EQ(readText(log("slurm-002/scans.tsv")), "1\t" + scanOf(3) + "\n");
  EXPECT_EQ(submit({}).status, 0);
  EXPECT_FALSE(fs::exists(log("slurm-003")));

  const Result refused = submit({"--force", "--slurm-options", "--partition=none"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("partition"), std::string::npos) << refused.err;
}

TEST_F(Slurm, ATaskKilledForMemoryIsTold) {
  addMany();
  const Result killed = submit({"--mem", "1000", "--slurm-options", "--mem=30M"});
  EXPECT_EQ(killed.status, 1) << killed.out;
  std::size_t interrupted = 0;
  for (const auto& [scan, row] : table())
    interrupted += row.at("reason").find("was interrupted") != std::string::npos;
  EXPECT_EQ(interrupted, 1u) << output("cat " + log("slurm-001/*.log"));
  EXPECT_EQ(submit({"--mem", "1500"}).status, 0);
}

TEST_F(Slurm, CancelledAndRequeuedTasksAreDoneInTheEnd) {
  addMany();
  output("scancel " + startJob("5"));
  waitFor("! squeue -h | grep -q .");  // the job for the table comes to its end, too
  const Table cancelled = table();
  ASSERT_EQ(cancelled.size(), 9u);
  for (const auto& [scan, row] : cancelled)
    EXPECT_TRUE(row.at("status") == "done" || row.at("reason").find("interrupted") == 4 ||
                row.at("reason") == "was not run")
        << scan << ": " << row.at("reason");

  const std::string job = startJob("9");
  output("scontrol requeue " + job + "_1");
  // The controller lets a requeued task wait for two minutes.
  const std::string waits = "squeue -h -t PD -o %r -j " + job + " | grep -q BeginTime";
  waitFor(waits);
  waitFor("scontrol update job=" + job + "_1 StartTime=now; ! " + waits);
  waitFor("! squeue -h | grep -q .");
  for (const auto& [scan, row] : table())
    EXPECT_EQ(row.at("status"), "done") << output("cat " + log("slurm-*/*.log"));
  EXPECT_EQ(table().size(), 9u);
}

}  // namespace
