#include "format.h"

#include <cmath>

namespace tavrel::scan {
namespace {

bool continues(char byte) { return (static_cast<unsigned char>(byte) & 0xc0) == 0x80; }

/// Bytes of the character that `text` begins with, or 0 if it is a control character or not UTF-8.
std::size_t characterLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return first >= 0x20 && first != 0x7f;
  const std::size_t length = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
  if (length == 0 || first > 0xf4 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i)
    if (!continues(text[i])) return 0;
  // Second bytes that would make the C1 controls, overlong forms, surrogates or too large values.
  const auto second = static_cast<unsigned char>(text[1]);
  const bool excluded = (first == 0xc2 && second < 0xa0) || (first == 0xe0 && second < 0xa0) ||
                        (first == 0xed && second >= 0xa0) || (first == 0xf0 && second < 0x90) ||
                        (first == 0xf4 && second >= 0x90);
  return excluded ? 0 : length;
}

}  // namespace

std::string amount(std::uint64_t bytes) {
  const double mb = double(bytes) / 1e6;
  return mb < 999.5 ? print("%.0f MB", mb) : print("%.1f GB", mb / 1000);
}

std::string weight(double w5) { return print(std::abs(w5) < 1000 ? "W5 %.2f" : "W5 %g", w5); }

std::string printable(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    if (length > 0)
      result += text.substr(0, length);
    else
      result += print("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(text[0])));
    text.remove_prefix(std::max<std::size_t>(1, length));
  }
  return result;
}

std::string shortened(const std::string& text, std::size_t most) {
  // Ends of the first `most` characters and of two fewer.
  std::size_t characters = 0, fewer = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (continues(text[i])) continue;
    if (characters + 2 == most) fewer = i;
    if (characters++ == most) return text.substr(0, fewer) + std::string(most < 2 ? most : 2, '.');
  }
  return text;
}

}  // namespace tavrel::scan
