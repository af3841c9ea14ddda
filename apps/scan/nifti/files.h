// The files of a scan: what a name stands for, and opening without surprises.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "scan/descriptor.h"

namespace tavrel::scan {

/// Opens a file for reading. Nothing but a regular file is opened, so that no pipe or device keeps
/// the process waiting. @throws ScanError with the reason
Descriptor openRegular(const std::filesystem::path& path);

/// The names that the header of a scan may have, best first, given its name, the name of the other
/// file of a pair, or either without the ending.
std::vector<std::string> headerNames(const std::string& name);

/// The names that the second file of a pair may have, given the header's.
std::vector<std::string> imageNames(const std::string& header);

/// The first of the names that is there, in whatever state, or "".
std::string firstThatExists(const std::vector<std::string>& names);

/// Finds the file that holds the header. @throws ScanError if there is none
std::string findHeader(const std::string& name);

/// The name without its endings (.nii, .hdr, .img, with or without .gz, in either case).
std::string withoutEnding(const std::string& name);

}  // namespace tavrel::scan
