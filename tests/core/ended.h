// What a piece of code writes on the two streams and the status it ends the process with.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

namespace tavrel::test {

struct Ended {
  int status;  ///< exit status, or minus the signal; `returned` if the code did not end the process
  std::string out, err;
  static constexpr int returned = 77;

  friend bool operator==(const Ended&, const Ended&) = default;
  friend std::ostream& operator<<(std::ostream& stream, const Ended& e) {
    return stream << "status " << e.status << ", out \"" << e.out << "\", err \"" << e.err << "\"";
  }
};

/// Runs `action` in a child process of its own.
template <class Action>
Ended runApart(Action action) {
  std::FILE* streams[] = {std::tmpfile(), std::tmpfile()};
  std::cout << std::flush;
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    for (int s : {0, 1}) dup2(fileno(streams[s]), s + 1);
    action();
    std::exit(Ended::returned);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  Ended ended{WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), {}, {}};
  for (int s : {0, 1}) {
    std::rewind(streams[s]);
    for (int c; (c = std::fgetc(streams[s])) != EOF;) {
      (s == 0 ? ended.out : ended.err) += static_cast<char>(c);
    }
    std::fclose(streams[s]);
  }
  return ended;
}

}  // namespace tavrel::test
