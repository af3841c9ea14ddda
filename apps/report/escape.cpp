#include "escape.h"

#include <nlohmann/json.hpp>

#include "scan/format.h"

namespace tavrel::report {
namespace {

/// The text with each character for which `replacement` gives something replaced by that.
template <class Replacement>
std::string replaced(std::string_view text, Replacement replacement) {
  std::string result;
  result.reserve(text.size() + text.size() / 8);
  for (const char c : text) {
    const std::string_view other = replacement(c);
    other.empty() ? result += c : result += other;
  }
  return result;
}

}  // namespace

std::string html(std::string_view text) {
  return replaced(scan::printable(text), [](char c) -> std::string_view {
    switch (c) {
      case '&':
        return "&amp;";
      case '<':
        return "&lt;";
      case '>':
        return "&gt;";
      case '"':
        return "&quot;";
      case '\'':
        return "&#39;";
    }
    return "";
  });
}

std::string scriptJson(const nlohmann::ordered_json& value) {
  // These characters stand in strings only, where an escape means the same.
  const std::string text = value.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
  return replaced(text, [](char c) -> std::string_view {
    return c == '<' ? "\\u003c" : c == '>' ? "\\u003e" : c == '&' ? "\\u0026" : "";
  });
}

std::string url(const std::filesystem::path& path) {
  constexpr std::string_view kDigits = "0123456789ABCDEF", kPlain = "-._~/";
  std::string result;
  for (const char c : path.string()) {
    const auto byte = static_cast<unsigned char>(c);
    const bool letter = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    if (letter || kPlain.find(c) != kPlain.npos)
      result += c;
    else
      result += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return result;
}

std::string base64(std::span<const std::byte> bytes) {
  constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string result;
  result.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
    unsigned group = 0;
    for (std::size_t k = 0; k < 3; ++k)
      group = group << 8 | (k < count ? unsigned(bytes[i + k]) : 0);
    for (std::size_t k = 0; k < 4; ++k)
      result += k <= count ? kDigits[group >> (18 - 6 * k) & 63] : '=';
  }
  return result;
}

std::string filled(std::string_view text,
                   const std::function<std::string(const std::string& name)>& value) {
  std::string result;
  while (true) {
    const std::size_t open = text.find("{{");
    const std::size_t close = text.find("}}", open);
    if (close == text.npos) return result.append(text);
    result.append(text.substr(0, open));
    result += value(std::string(text.substr(open + 2, close - open - 2)));
    text.remove_prefix(close + 2);
  }
}

}  // namespace tavrel::report
