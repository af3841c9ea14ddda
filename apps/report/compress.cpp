#include "compress.h"

#include <zlib.h>

#include <new>

namespace tavrel::report {

std::vector<std::byte> gzip(std::span<const std::byte> bytes) {
  constexpr int kLevel = 1, kStrategy = Z_RLE;  // as other outputs
  constexpr int kWindowBits = 15, kGzip = 16, kMemoryLevel = 8;
  z_stream stream{};
  if (deflateInit2(&stream, kLevel, Z_DEFLATED, kWindowBits + kGzip, kMemoryLevel, kStrategy) !=
      Z_OK)
    throw std::bad_alloc();
  std::vector<std::byte> result(deflateBound(&stream, bytes.size()));
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<std::byte*>(bytes.data()));
  stream.avail_in = uInt(bytes.size());
  stream.next_out = reinterpret_cast<Bytef*>(result.data());
  stream.avail_out = uInt(result.size());
  deflate(&stream, Z_FINISH);  // which the bound leaves room for
  result.resize(stream.total_out);
  deflateEnd(&stream);
  return result;
}

}  // namespace tavrel::report
