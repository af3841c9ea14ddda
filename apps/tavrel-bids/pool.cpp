#include "pool.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <system_error>
#include <thread>

#include "scan/format.h"
#include "scan/interrupt.h"
#include "scan/memory.h"
#include "threads.h"

namespace tavrel::cohort {
namespace {

using namespace std::chrono_literals;

constexpr int kPause = 50;        // ms until signals and time limits are looked at again
constexpr auto kPatience = 5s;    // until what was asked to end is killed
constexpr int kUnanswered = 125;  // exit status of a child that has no answer

/// The life of a child: its work, its answer, its end.
[[noreturn]] void live(const std::function<std::string()>& work, int answer, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(kUnanswered);  // it was faster
  // Should memory run out, the kernel takes a scan before the run.
  std::ofstream("/proc/self/oom_score_adj") << 500;
  try {
    const std::string text = work();
    _exit(write(answer, text.data(), text.size()) == ssize_t(text.size()) ? 0 : kUnanswered);
  } catch (const scan::Interrupted& interrupted) {
    _exit(128 + interrupted.signal);
  } catch (...) {
    _exit(kUnanswered);
  }
}

std::optional<std::uint64_t> numberIn(const char* variable) {
  const char* text = std::getenv(variable);
  if (!text) return std::nullopt;
  char* end = nullptr;
  const auto value = std::strtoull(text, &end, 10);
  return end != text && value > 0 ? std::optional<std::uint64_t>(value) : std::nullopt;
}

}  // namespace

Pool::~Pool() {
  for (const Child& child : children_) kill(child.process, SIGKILL);
  for (const Child& child : children_) waitpid(child.process, nullptr, 0);
}

bool Pool::hasRoom(std::uint64_t memory) const {
  if (children_.empty()) return true;
  if (children_.size() >= std::size_t(limits_.jobs)) return false;
  std::uint64_t taken = memory;
  for (const Child& child : children_) taken += child.memory;
  return taken <= limits_.memory;
}

void Pool::start(std::size_t index, std::uint64_t memory,
                 const std::function<std::string()>& work) {
  scan::Descriptor answer(memfd_create("answer", MFD_CLOEXEC));
  std::array<int, 2> ends = {-1, -1};
  if (!answer || pipe2(ends.data(), O_CLOEXEC) != 0)
    throw std::system_error(errno, std::generic_category(), "no further process");
  scan::Descriptor life(ends[0]), childsEnd(ends[1]);
  std::cout << std::flush;
  const pid_t parent = getpid(), child = fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "no further process");
  if (child == 0) live(work, answer.get(), parent);
  children_.push_back({child, index, memory, std::move(answer), std::move(life), Clock::now()});
}

void Pool::killLate() {
  if (!limits_.timeout) return;
  for (Child& child : children_)
    if (!child.late && Clock::now() - child.start > *limits_.timeout) {
      child.late = true;
      kill(child.process, SIGKILL);
    }
}

Ended Pool::end(Child& child, int status) const {
  Ended ended{child.index, scan::contentOf(child.answer), ""};
  const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  if (!signal && WEXITSTATUS(status) == 0) return ended;
  ended.answer.clear();
  if (child.late)
    ended.trouble = scan::print("took longer than %g s (--timeout)", limits_.timeout->count());
  else if (signal == SIGKILL)
    ended.trouble = "was killed, perhaps for want of memory";
  else if (signal)
    ended.trouble = scan::text("crashed (", strsignal(signal), ")");
  else
    ended.trouble = scan::text("ended with status ", WEXITSTATUS(status));
  return ended;
}

void Pool::waitForAnEnd() const {
  std::vector<pollfd> ends;
  for (const Child& child : children_) ends.push_back({child.life.get(), POLLIN, 0});
  if (!ends.empty()) poll(ends.data(), ends.size(), kPause);
}

std::vector<Ended> Pool::collect() {
  killLate();
  std::vector<Ended> result;
  std::erase_if(children_, [&](Child& child) {
    int status = 0;
    if (waitpid(child.process, &status, WNOHANG) != child.process) return false;
    result.push_back(end(child, status));
    return true;
  });
  if (result.empty()) waitForAnEnd();
  return result;
}

void Pool::stop() {
  for (const Child& child : children_) kill(child.process, SIGTERM);
  const auto end = Clock::now() + kPatience;
  while (!children_.empty() && Clock::now() < end) collect();
}

int processorsGranted() {
  const int count = usableProcessors();
  const auto given = numberIn("SLURM_CPUS_PER_TASK");
  return given ? int(std::min<std::uint64_t>(*given, std::uint64_t(count))) : count;
}

std::uint64_t memoryGranted() {
  std::uint64_t bytes = scan::availableMemory();
  if (const auto mb = numberIn("SLURM_MEM_PER_NODE")) bytes = std::min(bytes, *mb << 20);
  if (const auto mb = numberIn("SLURM_MEM_PER_CPU"))
    bytes = std::min(bytes, (*mb << 20) * std::uint64_t(processorsGranted()));
  return bytes;
}

}  // namespace tavrel::cohort
