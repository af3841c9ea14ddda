// The one way to end the process on an error.
//
// Errors that a caller cannot repair (sizes that do not match, an unknown method, a file that does
// not open) print one fixed message and end the process; no error value travels upwards.
// Convention: a message carries its own line end, where it has one.
#pragma once

#include <cstdlib>
#include <ostream>
#include <string_view>

namespace tavrel {

/// Writes `message` to `stream`, flushes it and ends the process with exit status `status`.
[[noreturn]] inline void fatal(std::string_view message, std::ostream& stream, int status) {
  stream << message << std::flush;
  std::exit(status);
}

}  // namespace tavrel
