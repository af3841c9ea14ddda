// Text for messages.
#pragma once

#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <string_view>

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

/// An amount of memory for people: "1.4 GB", "90 MB".
std::string amount(std::uint64_t bytes);

/// A weight for people: "W5 1.00".
std::string weight(double w5);

/// Text that changes nothing on a terminal but the cells it is written to: control characters and
/// bytes that are not UTF-8, which file names may hold, become \x and two digits.
std::string printable(std::string_view text);

/// The first characters of a text in UTF-8, at most `most`; what was cut off is shown by two dots.
std::string shortened(const std::string& text, std::size_t most);

}  // namespace tavrel::scan
