// Ctrl-C and its relatives.
//
// The handlers only note the signal; the loops of the work call checkInterrupted() several times a
// second, which throws, so that destructors remove what is unfinished. Where no loop comes by for
// most of a second (a disk that does not answer, a long calculation), an alarm ends the process.
#pragma once

namespace tavrel::scan {

/// Thrown by checkInterrupted() when a signal has asked the command to stop.
struct Interrupted {
  int signal;  ///< number of the signal; the exit status is 128 plus it
};

/// Installs the handlers for those of SIGINT, SIGTERM and SIGHUP that are not ignored already, and
/// ignores SIGPIPE and SIGXFSZ, so that a reader that went away and a limit on the size of files
/// show up as failed writes.
/// @param program  name in the message of a process that the alarm ends; kept
void catchSignals(const char* program);

/// @throws Interrupted if a signal has arrived since catchSignals().
void checkInterrupted();

/// Takes the signal for answered, so that what has been done can still be written down: the next
/// one counts anew.
void answerInterrupt();

/// While one exists, the alarm waits for some seconds: there are files that have to be removed or
/// put in place.
class Unfinished {
 public:
  Unfinished();
  ~Unfinished();
  Unfinished(const Unfinished&) = delete;
  Unfinished& operator=(const Unfinished&) = delete;
};

}  // namespace tavrel::scan
