#include "words.h"

#include <cctype>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace tavrel::cohort {

std::string shellWord(const std::string& text) {
  bool plain = !text.empty();
  for (const unsigned char c : text)
    plain = plain && (std::isalnum(c) ||
                      std::string_view("_-+=./,:@%").find(char(c)) != std::string_view::npos);
  if (plain) return text;
  std::string result(1, '\'');
  for (const char c : text)
    if (c == '\'')
      result += "'\\''";
    else
      result += c;
  return result += '\'';
}

std::vector<std::string> shellWords(const std::string& line) {
  std::vector<std::string> result;
  std::optional<std::string> word;
  char quote = 0;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    const bool space = std::isspace(static_cast<unsigned char>(c)) != 0;
    if (!quote && space) {
      if (word) result.push_back(*word);
      word.reset();
      continue;
    }
    if (!word) word = "";
    if (c == quote)
      quote = 0;
    else if (!quote && (c == '\'' || c == '"'))
      quote = c;
    else if (c == '\\' && quote != '\'' && i + 1 < line.size())
      *word += line[++i];
    else
      *word += c;
  }
  if (quote) throw std::invalid_argument("a quote is not closed in: " + line);
  if (word) result.push_back(*word);
  return result;
}

std::string shellLine(const std::vector<std::string>& words) {
  std::string result;
  for (const std::string& word : words) {
    if (!result.empty()) result += ' ';
    result += shellWord(word);
  }
  return result;
}

}  // namespace tavrel::cohort
