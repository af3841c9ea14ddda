// Runs a command as a user would and looks at what it left behind.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace tavrel {

/// What a finished command left: `status` is its exit status, or minus the signal that ended it.
struct Finished {
  int status;
  std::string out, err;
};

inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::binary);
  file << bytes;
  EXPECT_TRUE(file) << path;
}

/// A folder of its own for every test, gone at its end.
class FolderTest : public testing::Test {
 protected:
  FolderTest() {
    std::string name = std::filesystem::temp_directory_path() / "tavrel-XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
  }
  ~FolderTest() override { std::filesystem::remove_all(folder_); }

  std::string path(const std::string& name) const { return folder_ / name; }

  /// Names of the files that are there.
  std::set<std::string> files() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_))
      names.insert(entry.path().filename());
    return names;
  }

  /// Runs `command` to its end. A report of a sanitizer gives status 99.
  Finished run(const std::string& command, std::vector<std::string> args) const {
    args.insert(args.begin(), command);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    std::vector<char*> environment;
    for (char** entry = environ; *entry; ++entry) environment.push_back(*entry);
    std::string asan = "ASAN_OPTIONS=exitcode=99", ubsan = "UBSAN_OPTIONS=exitcode=99";
    environment.insert(environment.begin(), {asan.data(), ubsan.data()});
    environment.push_back(nullptr);

    const std::string streams = folder_.string() + ".streams";
    std::filesystem::create_directory(streams);
    const std::string out = streams + "/out", err = streams + "/err";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = 0;
    const int failed =
        posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environment.data());
    posix_spawn_file_actions_destroy(&actions);
    EXPECT_EQ(failed, 0) << command;
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    Finished finished{WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), readFile(out),
                      readFile(err)};
    std::filesystem::remove_all(streams);
    return finished;
  }

 private:
  std::filesystem::path folder_;
};

}  // namespace tavrel
