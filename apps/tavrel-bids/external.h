// Programs of others.
#pragma once

#include <string>
#include <vector>

namespace tavrel::cohort {

/// What a program left.
struct Answer {
  int status = 127;  ///< of its exit; 127 if it could not be started
  std::string out;   ///< both streams
};

/// Runs a program found by PATH and waits for it.
Answer runProgram(const std::vector<std::string>& words);

}  // namespace tavrel::cohort
