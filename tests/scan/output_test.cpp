#include "scan/output.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>

#include "nifti_files.h"
#include "scan/memory.h"

namespace {

using namespace tavrel::scan;
using namespace test_files;
using tavrel::test::readFile;

void writeText(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  tavrel::test::writeFile(path, text);
}

PendingFile pending(const fs::path& path) {
  return writePending(path, std::as_bytes(std::span("new", 3)), kOpenToAll);
}

TEST(Output, FilesAppearTogetherOrNotAtAll) {
  const TemporaryFolder folder;
  writeText(folder / "replaced", "old");
  fs::create_directory(folder / "folder");
  const auto commit = [&](const std::string& last) {
    std::vector<PendingFile> files;
    for (const std::string& name : {std::string("replaced"), std::string("added"), last})
      files.push_back(pending(folder / name));
    commitTogether(files, true);
  };
  EXPECT_THROW(commit("folder"), OutputError);
  EXPECT_EQ(folder.files(), (std::set<std::string>{"folder", "replaced"}));
  EXPECT_EQ(readFile(folder / "replaced"), "old");
  commit("third");
  EXPECT_EQ(folder.files(), (std::set<std::string>{"added", "folder", "replaced", "third"}));
  EXPECT_EQ(readFile(folder / "replaced"), "new");
}

TEST(Output, WhatAKilledProcessLeftIsRemovedAndNothingElse) {
  const TemporaryFolder folder;
  const PendingFile atWork = pending(folder / "other");
  for (const std::string& mine : {(folder / ".tavrel-notes").string(), atWork.temporary() + ".tmp"})
    writeText(mine, "mine");
  const auto before = folder.files();
  const pid_t child = fork();
  if (child == 0) {
    const PendingFile lost = pending(folder / "lost");
    raise(SIGKILL);
  }
  waitpid(child, nullptr, 0);
  EXPECT_EQ(folder.files().size(), before.size() + 1);
  removeStale(folder.path());
  EXPECT_EQ(folder.files(), before);
}

TEST(Memory, IsWhatTheMachineAndEveryControlGroupLeave) {
  const TemporaryFolder root;
  const auto available = [&] { return availableMemory(root.path()); };
  writeText(root / "proc/meminfo",
            "MemTotal: 900 kB\nMemAvailable:    700 kB\nSwapFree:  100 kB\n");
  EXPECT_EQ(available(), 800u * 1024);
  const fs::path group = root / "sys/fs/cgroup/jobs/step";
  writeText(root / "proc/self/cgroup", "4:cpu:/x\n0::/jobs/step\n");
  writeText(group / "memory.max", "max\n");
  writeText(group / "memory.current", "1000\n");
  EXPECT_EQ(available(), 800u * 1024);
  writeText(group.parent_path() / "memory.max", "500000\n");
  writeText(group.parent_path() / "memory.current", "300000\n");
  writeText(group.parent_path() / "memory.stat", "anon 200000\nfile 100000\n");
  EXPECT_EQ(available(), 300000u);
  // Version 1, in a container that does not see the path of the host.
  writeText(root / "proc/self/cgroup", "9:memory:/docker/abc\n");
  writeText(root / "sys/fs/cgroup/memory/memory.limit_in_bytes", "250000\n");
  writeText(root / "sys/fs/cgroup/memory/memory.usage_in_bytes", "260000\n");
  writeText(root / "sys/fs/cgroup/memory/memory.stat", "cache 1\ntotal_cache 20000\n");
  EXPECT_EQ(available(), 10000u);
}

}  // namespace
