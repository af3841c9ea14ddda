#include "interrupt.h"

#include <csignal>
#include <initializer_list>

namespace tavrel::scan {
namespace {

volatile std::sig_atomic_t arrived = 0;

void note(int signal) { arrived = signal; }

/// A signal that the command was started to ignore, as nohup does with SIGHUP, stays ignored.
void handle(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  sigaction(signal, nullptr, &action);
  if (action.sa_handler == SIG_IGN) return;
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(signal, &action, nullptr);
}

}  // namespace

void catchSignals() {
  arrived = 0;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) handle(signal, note);
  handle(SIGPIPE, SIG_IGN);
}

void checkInterrupted() {
  if (arrived) throw Interrupted{arrived};
}

}  // namespace tavrel::scan
