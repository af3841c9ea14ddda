#include "scan/picture.h"

#include <cairo.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

namespace {

using namespace tavrel::scan;

/// A decoded picture.
struct Pixels {
  int width = 0, height = 0;
  std::vector<std::uint32_t> rgb;
  std::uint32_t at(int x, int y) const { return rgb[std::size_t(y) * width + x] & 0xffffff; }
};

Pixels decode(const std::vector<std::byte>& png) {
  std::span<const std::byte> rest = png;
  const auto read = [](void* from, unsigned char* data, unsigned length) {
    auto& bytes = *static_cast<std::span<const std::byte>*>(from);
    if (length > bytes.size()) return CAIRO_STATUS_READ_ERROR;
    std::memcpy(data, bytes.data(), length);
    bytes = bytes.subspan(length);
    return CAIRO_STATUS_SUCCESS;
  };
  cairo_surface_t* surface = cairo_image_surface_create_from_png_stream(read, &rest);
  Pixels pixels{
      cairo_image_surface_get_width(surface), cairo_image_surface_get_height(surface), {}};
  const auto* data = cairo_image_surface_get_data(surface);
  const int stride = cairo_image_surface_get_stride(surface);
  for (int y = 0; y < pixels.height; ++y) {
    const auto* row = reinterpret_cast<const std::uint32_t*>(data + std::ptrdiff_t(y) * stride);
    pixels.rgb.insert(pixels.rgb.end(), row, row + pixels.width);
  }
  cairo_surface_destroy(surface);
  return pixels;
}

/// The centre, in patient millimetres (left, front, top), of a bright ball in a stored volume.
PictureInput ballInput(const Orientation& orientation, const Size& patientSize,
                       const std::array<double, 3>& centre, std::vector<double>& values,
                       std::vector<char>& mask) {
  PictureInput input{};
  for (int p = 0; p < 3; ++p) input.size[orientation.axis[p]] = patientSize[p];
  input.spacing = {1, 1, 1};
  input.orientation = orientation;
  values.assign(voxelCount(input.size), 0);
  mask.assign(values.size(), 1);
  for (int z = 0; z < input.size[2]; ++z)
    for (int y = 0; y < input.size[1]; ++y)
      for (int x = 0; x < input.size[0]; ++x) {
        const Size stored = {x, y, z};
        double distance = 0;
        for (int p = 0; p < 3; ++p) {
          const int i = stored[orientation.axis[p]];
          const double mm = orientation.ascending[p] ? i : patientSize[p] - 1 - i;
          distance += (mm - centre[p]) * (mm - centre[p]);
        }
        values[(std::size_t(z) * input.size[1] + y) * input.size[0] + x] = 1000 * (distance < 36);
      }
  input.read = readerOf(values);
  input.mask = mask;
  return input;
}

TEST(Picture, IsTheSameForEveryStorageOrderAndShowsThePatientsLeftOnTheRight) {
  const Size patient = {40, 50, 44};
  // A ball on the patient's left, in front and on top.
  std::vector<double> values;
  std::vector<char> mask;
  std::vector<std::vector<std::byte>> pictures;
  for (const Orientation& o :
       {Orientation{{0, 1, 2}, {true, true, true}}, Orientation{{0, 1, 2}, {false, false, false}},
        Orientation{{2, 0, 1}, {true, false, true}}, Orientation{{1, 2, 0}, {false, true, false}}})
    pictures.push_back(drawPicture(ballInput(o, patient, {29, 35, 31}, values, mask)));
  for (const auto& picture : pictures) EXPECT_EQ(picture, pictures.front());

  // Columns of white pixels in the axial row lie in the right halves of their cuts.
  const Pixels pixels = decode(pictures.front());
  int right = 0, left = 0;
  const int column = pixels.width / 7;
  for (int y = 75; y < 270; ++y)
    for (int x = 0; x < column * 7; ++x)
      if (pixels.at(x, y) == 0xffffff) (x % column > column / 2 ? right : left) += 1;
  EXPECT_GT(right, 500);
  EXPECT_LT(left, right / 10);
}

TEST(Picture, DrawsAnyVolume) {
  for (const Size& size : {Size{1, 1, 1}, Size{1, 300, 2}, Size{7, 7, 7}, Size{64, 3, 90}})
    for (const double value : {0.0, 3.5, std::nan("")}) {
      const std::vector<double> values(voxelCount(size), value);
      for (const char inside : {0, 1}) {
        const std::vector<char> mask(values.size(), inside);
        const Pixels pixels =
            decode(drawPicture({readerOf(values), mask, size, {1, 2, 0.3}, {}, "name", "caption"}));
        EXPECT_GT(pixels.width, 100);
        EXPECT_GT(pixels.height, 50);
      }
    }
}

TEST(Picture, WindowsBetweenPercentiles) {
  std::vector<double> values(1001);
  for (std::size_t v = 0; v < values.size(); ++v) values[v] = double((v * 17) % 1001);
  values.push_back(std::nan(""));
  const Window window = intensityWindow(readerOf(values), values.size(), 0.02, 0.98);
  EXPECT_EQ(window.low, 20);
  EXPECT_EQ(window.high, 980);

  // Ramps along rows, whose length is a multiple of the distance between the voxels of a sample.
  constexpr std::size_t kRow = 256, kVoxels = 32 * 200'003;
  const auto ramps = [](std::size_t first, std::span<float> wanted) {
    for (float& value : wanted) value = float(first++ % kRow);
  };
  const Window sampled = intensityWindow(ramps, kVoxels, 0.02, 0.98);
  EXPECT_NEAR(sampled.low, 0.02 * kRow, 2);
  EXPECT_NEAR(sampled.high, 0.98 * kRow, 2);
}

}  // namespace
