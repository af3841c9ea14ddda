// Runs a command as a user would, or a piece of code, in a process of its own, and looks at what it
// left behind.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <new>
#include <set>
#include <string>
#include <vector>

namespace tavrel::test {

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

/// A folder that is gone at the end of its object's life.
class Folder {
 public:
  Folder() {
    std::string name = std::filesystem::temp_directory_path() / "tavrel-XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    path_ = name;
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string path(const std::string& name) const { return path_ / name; }

  /// Names of the files that are there.
  std::set<std::string> files() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path_))
      names.insert(entry.path().filename());
    return names;
  }

 private:
  std::filesystem::path path_;
};

/// A test with a folder of its own.
class FolderTest : public testing::Test, public Folder {};

/// What a finished process left: its exit status, or 128 plus the signal that ended it.
struct Finished {
  int status = -1;
  std::string out, err;
  static constexpr int returned = 77;  ///< code that was run came to its end
  static constexpr int sanitizer = 99;

  friend bool operator==(const Finished&, const Finished&) = default;
  friend std::ostream& operator<<(std::ostream& stream, const Finished& f) {
    return stream << "status " << f.status << ", out \"" << f.out << "\", err \"" << f.err << "\"";
  }
};

/// Whether this process may end within a test. Any other does not pass by ending with status 0.
inline bool mayEnd = false;
inline const int endGuard = (testing::UnitTest::GetInstance(), std::atexit([] {
  if (!mayEnd && testing::UnitTest::GetInstance()->current_test_info()) _exit(EXIT_FAILURE);
}));

/// A process whose streams are files of a folder of its own.
class Process {
 public:
  /// Runs `action`.
  explicit Process(const std::function<void()>& action) {
    std::cout << std::flush;
    std::fflush(nullptr);
    const int out = open(streams_.path("out").c_str(), O_WRONLY | O_CREAT, 0600);
    const int err = open(streams_.path("err").c_str(), O_WRONLY | O_CREAT, 0600);
    child_ = fork();
    if (child_ == 0) {
      mayEnd = true;
      dup2(out, 1);
      dup2(err, 2);
      action();
      std::exit(Finished::returned);
    }
    close(out);
    close(err);
  }
  /// Runs a program; `inChild` is called before it starts.
  Process(const std::string& program, const std::vector<std::string>& arguments,
          const std::function<void()>& inChild = {})
      : Process([&] {
          std::vector<char*> argv{const_cast<char*>(program.c_str())};
          for (const auto& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
          argv.push_back(nullptr);
          const std::string status = "exitcode=" + std::to_string(Finished::sanitizer);
          setenv("ASAN_OPTIONS", status.c_str(), 1);
          setenv("UBSAN_OPTIONS", status.c_str(), 1);
          if (inChild) inChild();
          execv(program.c_str(), argv.data());
          _exit(127);
        }) {}

  pid_t id() const { return child_; }
  /// What it has written so far.
  std::string out() const { return readFile(streams_.path("out")); }
  Finished wait() {
    int status = 0;
    EXPECT_EQ(waitpid(child_, &status, 0), child_);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out(),
            readFile(streams_.path("err"))};
  }

 private:
  Folder streams_;
  pid_t child_ = 0;
};

inline Finished run(const std::string& program, const std::vector<std::string>& arguments) {
  return Process(program, arguments).wait();
}

/// Runs a piece of code to its end or to where it ends the process.
inline Finished runApart(const std::function<void()>& action) { return Process(action).wait(); }

/// Ends an object twice: the first end leaves it as if it had never been given anything, or the
/// second one releases what is released already.
template <class T, class... Arguments>
void endTwice(Arguments... arguments) {
  alignas(T) std::byte place[sizeof(T)];
  T* const object = new (place) T(arguments...);
  void (*volatile end)(T*) = [](T* o) { o->~T(); };  // compilers cannot tell what it calls
  end(object);
  end(object);
}

}  // namespace tavrel::test
