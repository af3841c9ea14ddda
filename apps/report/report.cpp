#include "report.h"

#include <algorithm>

#include "files.h"
#include "pages.h"
#include "parallel.h"
#include "preview.h"
#include "scan/interrupt.h"
#include "scan/nifti/scan.h"
#include "scan/output.h"
#include "scan/picture.h"
#include "threads.h"

namespace tavrel::report {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::byte>;

Bytes bytesOf(const std::string& text) {
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

/// The picture of the scan for the index, from preview and mask; empty if these are not usable.
Bytes thumbnail(const fs::path& output, const ScanFiles& files) try {
  const scan::Scan preview = scan::readScan((output / files.preview).string());
  const scan::Scan mask = scan::readScan((output / files.mask).string());
  if (previewSize(mask.header.size) != preview.header.size) return {};
  const auto read = [&](std::size_t first, std::span<float> values) {
    scan::intensities(preview, first, values);
  };
  return scan::drawThumbnail({read, reducedMask(maskOf(mask), mask.header.size),
                              preview.header.size, preview.header.spacing,
                              preview.header.orientation, "", ""});
} catch (const scan::ScanError&) {
  return {};
}

/// A page holds all that its thumbnail is made from, so that one that has not changed needs no new
/// thumbnail either.
void writeScan(const ReportInput& input, std::size_t row) {
  const ScanFiles files = filesOf(input.rows[row]);
  const Bytes page = bytesOf(scanPage(input, row));
  const bool same = readFile(input.output / files.page) == page;
  const fs::path picture = input.output / files.thumbnail;
  scan::removeStale(picture.parent_path());
  if (same && fs::exists(picture)) return;
  std::vector<scan::PendingFile> pending;
  const Bytes png = thumbnail(input.output, files);
  if (!png.empty()) pending.push_back(scan::writePending(picture, png, scan::kOpenToAll));
  if (!same)
    pending.push_back(scan::writePending(input.output / files.page, page, scan::kOpenToAll));
  commitTogether(pending, true);
}

}  // namespace

void writeReports(const ReportInput& input) {
  scan::removeStale(input.output);
  parallelFor(usualThreads(), int(input.rows.size()), [&](int row) {
    scan::checkInterrupted();
    writeScan(input, std::size_t(row));
  });
  const Bytes index = bytesOf(indexPage(input));
  const fs::path target = input.output / "index.html";
  if (readFile(target) == index) return;
  std::vector<scan::PendingFile> pending;
  pending.push_back(scan::writePending(target, index, scan::kOpenToAll));
  commitTogether(pending, true);
}

}  // namespace tavrel::report
