// Checksums of files, for reports.
#pragma once

#include <filesystem>
#include <string>

namespace tavrel::scan {

/// SHA-256 of a file's bytes in hexadecimal. @throws ScanError if it cannot be read
std::string sha256(const std::filesystem::path& file);

}  // namespace tavrel::scan
