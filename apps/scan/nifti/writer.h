// Outputs of a scan as NIfTI files with the scan's geometry, version and byte order.
#pragma once

#include <filesystem>
#include <span>

#include "scan.h"
#include "scan/output.h"

namespace tavrel::scan {

/// The scan inside the mask: header, extensions and values of the scan, and outside the stored
/// value that stands for the real value nearest 0. The caller commits the file.
/// @throws OutputError, Interrupted
PendingFile writeBrain(const std::filesystem::path& target, const Scan& scan,
                       std::span<const char> mask);

/// Unsigned 8-bit, 1 inside and 0 outside.
PendingFile writeMask(const std::filesystem::path& target, const Scan& scan,
                      std::span<const char> mask);

/// 32-bit floats.
PendingFile writeFloats(const std::filesystem::path& target, const Scan& scan,
                        std::span<const float> values);

}  // namespace tavrel::scan
