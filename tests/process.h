// Runs a command as a user would, or a piece of code, in a process of its own, and looks at what it
// left behind.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <iostream>
#include <new>
#include <thread>
#include <vector>

#include "files.h"

namespace tavrel::test {

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
                               if (!mayEnd && testing::UnitTest::GetInstance()->current_test_info())
                                 _exit(EXIT_FAILURE);
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
          signal(SIGINT, SIG_DFL);  // which who runs the tests in the background ignores
          if (inChild) inChild();
          execv(program.c_str(), argv.data());
          _exit(127);
        }) {}

  pid_t id() const { return child_; }
  /// What it has written so far.
  std::string out() const { return readFile(streams_.path("out")); }
  /// Waits until it has written these words, or anything, a minute at most.
  void waitForOutput(const std::string& words = "") const {
    const auto written = [&] { return !out().empty() && out().find(words) != std::string::npos; };
    for (int wait = 0; wait < 30000 && !written(); ++wait) rest();
  }
  /// The end of the process, which is killed if it is still there after `seconds`.
  Finished wait(double seconds = 280) {
    int status = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (waitpid(child_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > end) kill(child_, SIGKILL);
      rest();
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out(),
            readFile(streams_.path("err"))};
  }

 private:
  static void rest() { std::this_thread::sleep_for(std::chrono::milliseconds(2)); }

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
