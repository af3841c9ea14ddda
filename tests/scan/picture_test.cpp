#include "scan/picture.h"

#include <gtest/gtest.h>
#include <png.h>

#include <array>
#include <cmath>

#include "tests/strip/heads.h"

namespace {

using namespace tavrel::scan;
using namespace test_volumes;

/// A decoded picture.
struct Pixels {
  png_image image = {};
  std::vector<std::array<std::uint8_t, 3>> rgb;

  explicit Pixels(const std::vector<std::byte>& png) {
    image.version = PNG_IMAGE_VERSION;
    EXPECT_TRUE(png_image_begin_read_from_memory(&image, png.data(), png.size()));
    image.format = PNG_FORMAT_RGB;
    rgb.resize(std::size_t(image.width) * image.height);
    EXPECT_TRUE(png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr));
  }
};

TEST(Picture, IsTheSameForEveryStorageOrderAndShowsThePatientsLeftOnTheRight) {
  // A ball on the patient's left, in front and on top.
  const Grid grid = {{40, 50, 44}, {1, 1, 1}};
  const auto ball = [](double x, double y, double z) {
    return std::hypot(x - 9.5, y - 10.5, z - 9.5) < 6 ? 1000.0f : 0.0f;
  };
  const TestScan scan{grid, sampled(grid, ball), std::vector<char>(voxelCount(grid.size), 1), {}};
  std::vector<std::vector<std::byte>> pictures;
  for (const Orientation& o :
       {Orientation{{0, 1, 2}, {true, true, true}}, Orientation{{0, 1, 2}, {false, false, false}},
        Orientation{{2, 0, 1}, {true, false, true}},
        Orientation{{1, 2, 0}, {false, true, false}}}) {
    const TestScan stored = storedAs(scan, o);
    pictures.push_back(
        drawPicture({stored.view().read, stored.brain, stored.grid.size, grid.spacing, o, "", ""}));
  }
  for (const auto& picture : pictures) EXPECT_EQ(picture, pictures.front());

  // Columns of white pixels in the axial row lie in the right halves of their cuts.
  const Pixels pixels(pictures.front());
  int right = 0, left = 0;
  const int width = int(pixels.image.width), column = width / 7;
  for (int y = 75; y < 270; ++y)
    for (int x = 0; x < column * 7; ++x)
      if (pixels.rgb[std::size_t(y * width + x)] == std::array<std::uint8_t, 3>{255, 255, 255})
        (x % column > column / 2 ? right : left) += 1;
  EXPECT_GT(right, 500);
  EXPECT_LT(left, right / 10);
}

TEST(Picture, DrawsAnyVolume) {
  for (const Size& size : {Size{1, 1, 1}, Size{1, 300, 2}, Size{7, 7, 7}, Size{64, 3, 90}})
    for (const double value : {0.0, 3.5, std::nan("")}) {
      const std::vector<double> values(voxelCount(size), value);
      for (const char inside : {0, 1}) {
        const std::vector<char> mask(values.size(), inside);
        const Pixels pixels(
            drawPicture({readerOf(values), mask, size, {1, 2, 0.3}, {}, "name", "caption"}));
        EXPECT_GT(pixels.image.width, 100u);
        EXPECT_GT(pixels.image.height, 50u);
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
