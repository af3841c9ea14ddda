// Draws the contour of brain masks on three cuts of a volume (axial, coronal, sagittal) into a PNG;
// one row of cuts a mask. Up is +y on the axial cut and +z on the others.
#include <png.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "common.h"

namespace {

using Colour = std::array<unsigned char, 3>;
constexpr Colour kContour{255, 90, 40};
constexpr int kScale = 2;  // picture pixels a voxel
constexpr int kGap = 6;    // pixels between cuts

struct Canvas {
  Canvas(int w, int h) : width(w), height(h), pixels(std::size_t(w) * h, Colour{}) {}
  Colour& at(int x, int y) { return pixels[std::size_t(y) * width + x]; }
  int width, height;
  std::vector<Colour> pixels;
};

struct Volume {
  std::array<int, 3> sizes;
  std::vector<double> values;
  double at(const std::array<int, 3>& p) const {
    return values[(std::size_t(p[2]) * sizes[1] + p[1]) * sizes[0] + p[0]];
  }
};

/// A plane of the volume: the axes drawn to the right and upwards, and where it cuts the third.
struct Cut {
  int right, up, normal, at;
};

/// Cuts through the mask's bounding box (the volume when the mask is empty): in the middle, but the
/// sagittal one beside it, where the folds of a hemisphere show.
std::array<Cut, 3> cutsThrough(const Volume& mask) {
  std::array<int, 3> low = mask.sizes, high{}, p;
  for (p[2] = 0; p[2] < mask.sizes[2]; ++p[2])
    for (p[1] = 0; p[1] < mask.sizes[1]; ++p[1])
      for (p[0] = 0; p[0] < mask.sizes[0]; ++p[0])
        for (int a = 0; a < 3 && mask.at(p) != 0; ++a) {
          low[a] = std::min(low[a], p[a]);
          high[a] = std::max(high[a], p[a]);
        }
  const auto at = [&](int a, double fraction) {
    if (low[a] > high[a]) return mask.sizes[a] / 2;
    return low[a] + static_cast<int>(fraction * (high[a] - low[a]));
  };
  return {Cut{0, 1, 2, at(2, 0.5)}, Cut{0, 2, 1, at(1, 0.5)}, Cut{1, 2, 0, at(0, 0.4)}};
}

/// Maps the 2nd to the 99.5th percentile of the voxels that are not zero to black and white.
class Window {
 public:
  explicit Window(const Volume& image) {
    std::vector<double> values;
    std::copy_if(image.values.begin(), image.values.end(), std::back_inserter(values),
                 [](double v) { return v != 0; });
    if (values.empty()) return;
    std::sort(values.begin(), values.end());
    low_ = values[values.size() / 50];
    high_ = values[values.size() - 1 - values.size() / 200];
  }
  unsigned char operator()(double value) const {
    if (!(high_ > low_)) return 0;
    return static_cast<unsigned char>(255 * std::clamp((value - low_) / (high_ - low_), 0.0, 1.0));
  }

 private:
  double low_ = 0, high_ = 0;
};

void drawCut(Canvas& canvas, int left, int top, const Volume& image, const Window& window,
             const Volume& mask, const Cut& cut) {
  const int width = image.sizes[cut.right], height = image.sizes[cut.up];
  const auto voxel = [&](int x, int y) {
    std::array<int, 3> p;
    p[cut.right] = x, p[cut.up] = height - 1 - y, p[cut.normal] = cut.at;
    return p;
  };
  const auto inside = [&](int x, int y) {
    return x >= 0 && y >= 0 && x < width && y < height && mask.at(voxel(x, y)) != 0;
  };
  for (int y = 0; y < height * kScale; ++y)
    for (int x = 0; x < width * kScale; ++x) {
      const int vx = x / kScale, vy = y / kScale;
      const unsigned char grey = window(image.at(voxel(vx, vy)));
      // A pixel of the contour belongs to an inside voxel and faces an outside one.
      const bool contour =
          inside(vx, vy) &&
          !(inside((x - 1 + kScale) / kScale - 1, vy) && inside((x + 1) / kScale, vy) &&
            inside(vx, (y - 1 + kScale) / kScale - 1) && inside(vx, (y + 1) / kScale));
      canvas.at(left + x, top + y) = contour ? kContour : Colour{grey, grey, grey};
    }
}

void writePng(const std::string& path, const Canvas& canvas) {
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = canvas.width;
  png.height = canvas.height;
  png.format = PNG_FORMAT_RGB;
  if (!png_image_write_to_file(&png, path.c_str(), 0, canvas.pixels.data(), 0, nullptr))
    throw tavrel::ToolError("cannot write " + path + ": " + png.message);
}

void draw(const std::vector<std::string>& args) {
  if (args.size() < 7)
    throw tavrel::ToolError("arguments: X Y Z byte|word|float IMAGE OUT.png MASK...");
  const std::array<int, 3> sizes{tavrel::parseSize(args[0]), tavrel::parseSize(args[1]),
                                 tavrel::parseSize(args[2])};
  const auto read = [&](const std::string& path, int format) {
    return Volume{sizes, tavrel::readVolume(path, format, sizes[0], sizes[1], sizes[2])};
  };
  const Volume image = read(args[4], tavrel::parseFormat(args[3]));
  const Window window(image);
  const std::vector<std::string> masks(args.begin() + 6, args.end());
  const std::array<Cut, 3> cuts = cutsThrough(read(masks[0], 0));

  const int rowHeight = std::max(sizes[1], sizes[2]) * kScale;
  const int rows = static_cast<int>(masks.size());
  Canvas canvas((2 * sizes[0] + sizes[1]) * kScale + 2 * kGap, rows * (rowHeight + kGap) - kGap);
  for (int row = 0; row < rows; ++row) {
    const Volume mask = read(masks[row], 0);
    int left = 0;
    for (const Cut& cut : cuts) {
      const int top = row * (rowHeight + kGap) + (rowHeight - sizes[cut.up] * kScale) / 2;
      drawCut(canvas, left, top, image, window, mask, cut);
      left += sizes[cut.right] * kScale + kGap;
    }
  }
  writePng(args[5], canvas);
}

}  // namespace

int main(int argc, char** argv) { return tavrel::runTool(argc, argv, draw); }
