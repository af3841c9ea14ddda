// Text made of values, for messages.
#pragma once

#include <cmath>
#include <cstdio>
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

/// The arguments in a format of printf.
template <class... Args>
std::string print(const char* format, Args... args) {
  char buffer[200];
  std::snprintf(buffer, sizeof buffer, format, args...);
  return buffer;
}

/// A weight for people: "W5 1.00".
inline std::string weight(double w5) {
  return print(std::abs(w5) < 1000 ? "W5 %.2f" : "W5 %g", w5);
}

}  // namespace tavrel::scan
