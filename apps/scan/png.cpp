#include "png.h"

#include <png.h>

#include <new>

namespace tavrel::scan {
namespace {

constexpr int kLevel =
    2;  // of compression; on pictures of heads 9 makes a tenth less of it, slowly
constexpr std::size_t kChunk = 1 << 16;

/// libpng's state while it writes into a vector. Its errors, of which only a lack of memory is left
/// here, leave it as exceptions.
class Encoder {
 public:
  explicit Encoder(std::vector<std::byte>& out)
      : png_(png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, fail, nullptr)),
        info_(png_ ? png_create_info_struct(png_) : nullptr) {
    if (!info_) {
      png_destroy_write_struct(&png_, nullptr);
      throw std::bad_alloc();
    }
    png_set_write_fn(png_, &out, append, nullptr);
  }
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;
  ~Encoder() { png_destroy_write_struct(&png_, &info_); }

  void begin(int width, int height) {
    png_set_IHDR(png_, info_, png_uint_32(width), png_uint_32(height), 8, PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(png_, kLevel);
    png_set_compression_buffer_size(png_, kChunk);
    png_set_filter(png_, PNG_FILTER_TYPE_BASE, PNG_FILTER_UP);
    png_write_info(png_, info_);
  }
  void write(const std::vector<png_byte>& row) { png_write_row(png_, row.data()); }
  void end() { png_write_end(png_, nullptr); }

 private:
  [[noreturn]] static void fail(png_structp, png_const_charp) { throw std::bad_alloc(); }

  static void append(png_structp png, png_bytep data, std::size_t length) {
    auto& out = *static_cast<std::vector<std::byte>*>(png_get_io_ptr(png));
    const auto* first = reinterpret_cast<const std::byte*>(data);
    out.insert(out.end(), first, first + length);
  }

  png_structp png_;
  png_infop info_;
};

}  // namespace

std::vector<std::byte> encodePng(int width, int height,
                                 const std::function<const std::uint32_t*(int y)>& row) {
  std::vector<std::byte> bytes;
  Encoder encoder(bytes);
  encoder.begin(width, height);
  std::vector<png_byte> rgb(3 * std::size_t(width));
  for (int y = 0; y < height; ++y) {
    const std::uint32_t* pixel = row(y);
    for (std::size_t i = 0; i < rgb.size(); i += 3, ++pixel)
      for (std::size_t c = 0; c < 3; ++c) rgb[i + c] = png_byte(*pixel >> (16 - 8 * c));
    encoder.write(rgb);
  }
  encoder.end();
  return bytes;
}

}  // namespace tavrel::scan
