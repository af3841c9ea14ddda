#include "report.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>

#include "files.h"
#include "pages.h"
#include "preview.h"
#include "scan/interrupt.h"
#include "scan/nifti/scan.h"
#include "scan/output.h"
#include "scan/picture.h"

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
  if (same && fs::exists(picture)) return;
  std::vector<scan::PendingFile> pending;
  const Bytes png = thumbnail(input.output, files);
  if (!png.empty()) pending.push_back(scan::writePending(picture, png, scan::kOpenToAll));
  if (!same)
    pending.push_back(scan::writePending(input.output / files.page, page, scan::kOpenToAll));
  commitTogether(pending, true);
}

/// Calls work(i) for 0 <= i < count on all cores. @throws the first exception of any of them
template <class Work>
void forEach(std::size_t count, Work work) {
  std::atomic<std::size_t> next = 0;
  std::exception_ptr failure;
  std::mutex guard;
  const auto take = [&] {
    try {
      for (std::size_t i; (i = next++) < count;) {
        scan::checkInterrupted();
        work(i);
      }
    } catch (...) {
      next = count;
      const std::lock_guard lock(guard);
      if (!failure) failure = std::current_exception();
    }
  };
  {
    std::vector<std::jthread> threads;
    for (unsigned t = 1; t < std::min<std::size_t>(count, std::thread::hardware_concurrency()); ++t)
      threads.emplace_back(take);
    take();
  }
  if (failure) std::rethrow_exception(failure);
}

}  // namespace

void writeReports(const ReportInput& input) {
  forEach(input.rows.size(), [&](std::size_t row) { writeScan(input, row); });
  const Bytes index = bytesOf(indexPage(input));
  const fs::path target = input.output / "index.html";
  if (readFile(target) == index) return;
  std::vector<scan::PendingFile> pending;
  pending.push_back(scan::writePending(target, index, scan::kOpenToAll));
  commitTogether(pending, true);
}

}  // namespace tavrel::report
