#include "interrupt.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <initializer_list>

namespace tavrel::scan {
namespace {

constexpr int kPatienceMicroseconds = 700'000;
constexpr int kMostAlarms = 12;  // that wait for files

// Handlers run on any thread.
std::atomic<int> arrived = 0, alarms = 0, unfinished = 0;
static_assert(std::atomic<int>::is_always_lock_free);
const char* programName = "";

void setAlarm(int microseconds = kPatienceMicroseconds) {
  const itimerval once = {{0, 0}, {0, microseconds}};
  setitimer(ITIMER_REAL, &once, nullptr);
}

void note(int signal) {
  if (arrived.exchange(signal) == 0) setAlarm();  // that an impatient user does not put off
}

void say(int stream, const char* words) {
  if (write(stream, words, std::strlen(words)) < 0) return;
}

/// Nothing has answered the signal.
void endProcess(int) {
  if (!arrived) return;
  if (++alarms < kMostAlarms && unfinished > 0) return setAlarm();
  if (isatty(STDOUT_FILENO)) say(STDOUT_FILENO, "\r\033[K");  // the live line
  for (const char* words : {programName, ": interrupted\n"}) say(STDERR_FILENO, words);
  _exit(128 + arrived);
}

/// A signal that the command was started to ignore, as nohup does with SIGHUP, stays ignored.
void handle(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  sigaction(signal, nullptr, &action);
  if (action.sa_handler == SIG_IGN) return;
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;  // the alarm ends a wait that goes on
  sigaction(signal, &action, nullptr);
}

}  // namespace

void catchSignals(const char* program) {
  arrived = 0;
  programName = program;
  std::signal(SIGALRM, SIG_DFL);
  handle(SIGALRM, endProcess);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) handle(signal, note);
  for (const int signal : {SIGPIPE, SIGXFSZ}) handle(signal, SIG_IGN);
}

void checkInterrupted() {
  if (arrived) throw Interrupted{arrived};
}

void answerInterrupt() {
  setAlarm(0);  // none
  alarms = 0;
  arrived = 0;
}

Unfinished::Unfinished() { ++unfinished; }
Unfinished::~Unfinished() { --unfinished; }

}  // namespace tavrel::scan
