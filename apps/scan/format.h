// Text made of values, for messages.
#pragma once

#include <sstream>
#include <string>

namespace tavrel::scan {

/// The arguments written one after the other, as a stream writes them.
template <class... Args>
std::string text(const Args&... args) {
  std::ostringstream out;
  (out << ... << args);
  return out.str();
}

}  // namespace tavrel::scan
