// libFuzzer target over header and data of the reader: whatever the bytes, reading either succeeds
// or throws ScanError, and what was read can be turned into intensities and headers.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "scan/nifti/scan.h"

namespace {

using namespace tavrel::scan;

ByteSource sourceOf(std::span<const std::byte> bytes) {
  auto read = [rest = bytes](std::span<std::byte> target) mutable {
    const std::size_t count = std::min(rest.size(), target.size());
    std::copy_n(rest.begin(), count, target.begin());
    rest = rest.subspan(count);
    return count;
  };
  return {read, bytes.size()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const auto bytes = std::as_bytes(std::span(data, size));
  // The first byte picks a volume and where the second file of a pair begins.
  const auto choice = static_cast<unsigned>(data[0]);
  const auto files = bytes.subspan(1);
  const auto image = files.subspan(std::min<std::size_t>(files.size(), choice * 4));
  try {
    const std::optional<std::int64_t> volume =
        choice % 4 ? std::optional(choice / 4) : std::nullopt;
    const Scan scan = readScan(
        sourceOf(files), [&] { return sourceOf(image); }, volume);
    std::vector<double> values(voxelCount(scan.header.size));
    intensities(scan, values);
    storedZero(scan.header);
    for (const Header& header : {oneVolumeHeader(scan.header, scan.extensions.size()),
                                 derivedHeader(scan.header, NIFTI_TYPE_FLOAT32, 0, 0)})
      if (parseHeader(headerBytes(header)).size != scan.header.size) __builtin_trap();
  } catch (const ScanError&) {
  }
  return 0;
}
