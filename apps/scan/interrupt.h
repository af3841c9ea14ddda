// Ctrl-C and its relatives, answered between steps of the work.
//
// The handlers only note the signal; the loops of the command call checkInterrupted() several times
// a second, which throws, so that destructors remove what is unfinished.
#pragma once

namespace tavrel::scan {

/// Thrown by checkInterrupted() when a signal has asked the command to stop.
struct Interrupted {
  int signal;  ///< number of the signal; the exit status is 128 plus it
};

/// Installs the handlers for those of SIGINT, SIGTERM and SIGHUP that are not ignored already, and
/// ignores SIGPIPE, so that a reader that went away shows up as a failed write.
void catchSignals();

/// @throws Interrupted if a signal has arrived since catchSignals().
void checkInterrupted();

}  // namespace tavrel::scan
