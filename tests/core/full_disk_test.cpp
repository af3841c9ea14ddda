#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "voxRawVolumeData.h"

namespace {

namespace fs = std::filesystem;

TEST(FullDisk, LeavesNoPartialFile) {
  // A limit on the size of files stands for the full disk.
  const fs::path folder = fs::path(testing::TempDir()) / "full_disk_test";
  fs::remove_all(folder);
  fs::create_directories(folder);
  const auto write = [](const fs::path& path) {
    const rlimit limit = {4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, SIG_IGN);
    const std::vector<float> voxels(10000, 1.5f);
    tavrel::writeRaw(path.c_str(), 2, std::span<const float>(voxels));
  };
  EXPECT_EXIT(write(folder / "phi.raw"), testing::ExitedWithCode(1), "Error writing file");
  EXPECT_FALSE(fs::exists(folder / "phi.raw"));
  fs::create_symlink("elsewhere.raw", folder / "link.raw");  // is the user's, and stays
  EXPECT_EXIT(write(folder / "link.raw"), testing::ExitedWithCode(1), "Error writing file");
  EXPECT_TRUE(fs::is_symlink(folder / "link.raw"));
  fs::remove_all(folder);
}

}  // namespace
