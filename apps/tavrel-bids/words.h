// Command lines as a shell reads them.
#pragma once

#include <string>
#include <vector>

namespace tavrel::cohort {

/// A word that a shell reads as this text.
std::string shellWord(const std::string& text);

/// Words in a line, which may be quoted by '...', "..." and backslashes.
/// @throws std::invalid_argument if a quote is not closed
std::vector<std::string> shellWords(const std::string& line);

/// The line of these words.
std::string shellLine(const std::vector<std::string>& words);

}  // namespace tavrel::cohort
