#include "external.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "scan/descriptor.h"

namespace tavrel::cohort {

Answer runProgram(const std::vector<std::string>& words) {
  std::array<int, 2> ends = {-1, -1};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return {127, std::strerror(errno)};
  const scan::Descriptor reading(ends[0]);
  scan::Descriptor writing(ends[1]);
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
    posix_spawn_file_actions_adddup2(&actions, writing.get(), stream);
  pid_t child = 0;
  const int error =
      posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error) return {127, words[0] + ": " + std::strerror(error)};
  writing = scan::Descriptor();
  Answer answer;
  std::array<char, 4096> chunk;
  for (ssize_t got; (got = read(reading.get(), chunk.data(), chunk.size())) != 0;) {
    if (got < 0 && errno != EINTR) break;
    if (got > 0) answer.out.append(chunk.data(), std::size_t(got));
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  answer.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return answer;
}

}  // namespace tavrel::cohort
