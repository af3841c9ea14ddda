// Text files of the output folder.
#pragma once

#include <filesystem>
#include <string>

namespace tavrel::cohort {

/// The content of a file, "" if it cannot be read.
std::string readText(const std::filesystem::path& file);

/// Gives a file this content, whole or not at all, and leaves it alone if it has it already.
/// @throws OutputError
void writeText(const std::filesystem::path& file, const std::string& content);

/// Makes a folder and those it lies in. @throws OutputError
void makeFolder(const std::filesystem::path& folder);

}  // namespace tavrel::cohort
