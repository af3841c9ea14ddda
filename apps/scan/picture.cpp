#include "picture.h"

#include <cairo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <memory>
#include <numeric>

#include "format.h"
#include "strip/finishing.h"

namespace tavrel::scan {
namespace {

constexpr int kCuts = 7;
constexpr int kPanel = 230;          // pixels of the longest side of a cut
constexpr int kGap = 6;              // pixels between cuts
constexpr int kThumbnailPanel = 96, kThumbnailGap = 2;
constexpr int kHeading = 52;         // pixels for the two lines of text
constexpr char kFont[] = "@cairo:";  // cairo's own stroke font: the same on every machine

/// A patient direction as a walk through the volume: index = start + step * i, 0 <= i < count.
struct Walk {
  int axis, count;
  bool reversed;
  double spacing;
  int index(int i) const { return reversed ? count - 1 - i : i; }
};

/// The plane of a cut: which way the picture's columns, rows and the cuts themselves go.
struct Plane {
  Walk across, down, through;
  const char* left;  // side marks, empty where the orientation is unknown
  const char* right;
};

Walk walk(const PictureInput& input, int patientAxis, bool ascending) {
  const Orientation stored = {{0, 1, 2}, {true, true, true}};
  const Orientation& o = input.orientation ? *input.orientation : stored;
  const int axis = o.axis[patientAxis];
  return {axis, input.size[axis], o.ascending[patientAxis] != ascending, input.spacing[axis]};
}

std::array<Plane, 3> planes(const PictureInput& input) {
  // Patient axes: 0 grows to the left, 1 to the front, 2 to the top. Rows of a picture go down.
  const auto toLeft = walk(input, 0, true), toBack = walk(input, 1, false),
             toBottom = walk(input, 2, false), toTop = walk(input, 2, true),
             toFront = walk(input, 1, true);
  const bool known = input.orientation.has_value();
  const char *r = known ? "R" : "", *l = known ? "L" : "", *a = known ? "A" : "",
             *p = known ? "P" : "";
  return {Plane{toLeft, toBack, toTop, r, l}, Plane{toLeft, toBottom, toFront, r, l},
          Plane{toBack, toBottom, toLeft, a, p}};
}

std::size_t voxelAt(const Size& size, const Plane& plane, int across, int down, int through) {
  Size at;
  at[plane.across.axis] = plane.across.index(across);
  at[plane.down.axis] = plane.down.index(down);
  at[plane.through.axis] = plane.through.index(through);
  return (std::size_t(at[2]) * size[1] + at[1]) * size[0] + at[0];
}

/// Index and weight of the two voxels around pixel i of `pixels` along a walk.
struct Between {
  int first, second;
  double weight;
};

std::vector<Between> interpolation(int count, int pixels) {
  std::vector<Between> result(static_cast<std::size_t>(pixels));
  for (int i = 0; i < pixels; ++i) {
    const double at = std::clamp((i + 0.5) * count / pixels - 0.5, 0.0, count - 1.0);
    const int first = int(at);
    result[std::size_t(i)] = {first, std::min(first + 1, count - 1), at - first};
  }
  return result;
}

using Surface = std::unique_ptr<cairo_surface_t, void (*)(cairo_surface_t*)>;
using Painter = std::unique_ptr<cairo_t, void (*)(cairo_t*)>;

/// A pixel surface addressed as 0xRRGGBB.
class Canvas {
 public:
  Canvas(int width, int height)
      : surface_(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height),
                 cairo_surface_destroy),
        painter_(cairo_create(surface_.get()), cairo_destroy) {}

  cairo_t* painter() { return painter_.get(); }

  /// The pixels of a row; the surface must not be painted on meanwhile.
  std::uint32_t* row(int y) {
    cairo_surface_flush(surface_.get());
    auto* bytes = cairo_image_surface_get_data(surface_.get());
    return reinterpret_cast<std::uint32_t*>(
        bytes + std::ptrdiff_t(y) * cairo_image_surface_get_stride(surface_.get()));
  }
  void touched() { cairo_surface_mark_dirty(surface_.get()); }

  void write(double x, double y, double size, const std::string& text) {
    cairo_select_font_face(painter(), kFont, CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
    cairo_set_font_size(painter(), size);
    cairo_set_source_rgb(painter(), 1, 1, 1);
    cairo_move_to(painter(), x, y);
    cairo_show_text(painter(), printable(text).c_str());
  }

  std::vector<std::byte> png() {
    std::vector<std::byte> bytes;
    const auto append = [](void* to, const unsigned char* data, unsigned length) {
      auto& out = *static_cast<std::vector<std::byte>*>(to);
      const auto* first = reinterpret_cast<const std::byte*>(data);
      out.insert(out.end(), first, first + length);
      return CAIRO_STATUS_SUCCESS;
    };
    if (cairo_surface_write_to_png_stream(surface_.get(), append, &bytes) != CAIRO_STATUS_SUCCESS)
      throw std::bad_alloc();
    return bytes;
  }

 private:
  Surface surface_;
  Painter painter_;
};

/// One cut, drawn with its upper left corner at (left, top).
class Cut {
 public:
  Cut(const PictureInput& input, const Plane& plane, int through, double pixelsPerMm)
      : input_(input),
        plane_(plane),
        through_(through),
        width(pixels(plane.across, pixelsPerMm)),
        height(pixels(plane.down, pixelsPerMm)),
        columns_(interpolation(plane.across.count, width)),
        rows_(interpolation(plane.down.count, height)) {}

  static int pixels(const Walk& walk, double pixelsPerMm) {
    return std::max(1, int(std::lround(walk.count * walk.spacing * pixelsPerMm)));
  }

  void draw(Canvas& canvas, int left, int top, const Window& window) const {
    for (int y = 0; y < height; ++y) {
      std::uint32_t* row = canvas.row(top + y) + left;
      for (int x = 0; x < width; ++x)
        row[x] = 0x010101u * grey(sample(input_.values, x, y), window);
    }
    canvas.touched();
    drawContour(canvas, left, top);
    canvas.write(left + 2, top + 14, 15, plane_.left);
    canvas.write(left + width - 13, top + 14, 15, plane_.right);
  }

 private:
  template <class T>
  double sample(std::span<const T> volume, int x, int y) const {
    const Between &c = columns_[std::size_t(x)], &r = rows_[std::size_t(y)];
    const auto at = [&](int across, int down) {
      const double value = volume[voxelAt(input_.size, plane_, across, down, through_)];
      return std::isfinite(value) ? value : 0;
    };
    const double upper = std::lerp(at(c.first, r.first), at(c.second, r.first), c.weight);
    const double lower = std::lerp(at(c.first, r.second), at(c.second, r.second), c.weight);
    return std::lerp(upper, lower, r.weight);
  }

  static std::uint32_t grey(double value, const Window& window) {
    if (!(window.high > window.low)) return value > window.low ? 255 : 0;
    return std::uint32_t(
        std::lround(255 * std::clamp((value - window.low) / (window.high - window.low), 0.0, 1.0)));
  }

  /// Strokes the line on which the interpolated mask is one half (marching squares).
  void drawContour(Canvas& canvas, int left, int top) const {
    std::vector<double> inside(std::size_t(width) * height);
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x)
        inside[std::size_t(y) * width + x] = sample(input_.mask, x, y) - 0.5;
    cairo_t* painter = canvas.painter();
    for (int y = 0; y + 1 < height; ++y)
      for (int x = 0; x + 1 < width; ++x) {
        const double* upper = &inside[std::size_t(y) * width + x];
        strokeSquare(painter, left + x + 0.5, top + y + 0.5,
                     {upper[0], upper[1], upper[width + 1], upper[width]});
      }
    cairo_set_source_rgb(painter, 1, 0.85, 0);
    cairo_set_line_width(painter, 1.4);
    cairo_stroke(painter);
  }

  /// Adds the line segments of one square, corner values clockwise from the upper left.
  static void strokeSquare(cairo_t* painter, double x, double y, const std::array<double, 4>& v) {
    constexpr double kCorner[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
    int crossings = 0;
    for (int side = 0; side < 4; ++side) {
      const int next = (side + 1) % 4;
      if ((v[side] > 0) == (v[next] > 0)) continue;
      const double t = v[side] / (v[side] - v[next]);
      const double px = x + std::lerp(kCorner[side][0], kCorner[next][0], t);
      const double py = y + std::lerp(kCorner[side][1], kCorner[next][1], t);
      crossings++ % 2 ? cairo_line_to(painter, px, py) : cairo_move_to(painter, px, py);
    }
  }

  const PictureInput& input_;
  const Plane& plane_;
  int through_;

 public:
  const int width, height;

 private:
  std::vector<Between> columns_, rows_;
};

/// Positions along a plane's walk, evenly spread over the mask (over the volume without one).
std::array<int, kCuts> cutPositions(const PictureInput& input, const Walk& walk) {
  const Box box = boundingBox(BitVolume(input.mask, input.size));
  int first = 0, end = walk.count;
  if (!box.empty()) {
    first = walk.reversed ? walk.count - box.end[walk.axis] : box.first[walk.axis];
    end = first + box.end[walk.axis] - box.first[walk.axis];
  }
  std::array<int, kCuts> positions;
  for (int i = 0; i < kCuts; ++i)
    positions[std::size_t(i)] =
        std::clamp(int(std::floor(first + (i + 0.5) * (end - first) / kCuts)), 0, walk.count - 1);
  return positions;
}

/// The scale at which the longest side of the volume takes this many pixels.
double pixelsPerMm(const PictureInput& input, int pixels) {
  double longest = 0;
  for (int d = 0; d < 3; ++d) longest = std::max(longest, input.size[d] * input.spacing[d]);
  return pixels / longest;
}

constexpr double kDark = 0.02, kBright = 0.98;  // fractions of voxels beyond black and white

}  // namespace

Window intensityWindow(std::span<const double> values, double low, double high) {
  // A large sample places the percentiles as well as all voxels do.
  const std::size_t step = std::max<std::size_t>(1, values.size() / 1000003);
  std::vector<double> sample;
  sample.reserve(values.size() / step + 1);
  for (std::size_t v = 0; v < values.size(); v += step)
    if (std::isfinite(values[v])) sample.push_back(values[v]);
  if (sample.empty()) return {0, 0};
  const auto at = [&](double fraction) {
    const auto place = sample.begin() + std::ptrdiff_t(fraction * double(sample.size() - 1));
    std::nth_element(sample.begin(), place, sample.end());
    return *place;
  };
  return {at(low), at(high)};
}

std::vector<std::byte> drawPicture(const PictureInput& input) {
  const double scale = pixelsPerMm(input, kPanel);
  const auto views = planes(input);

  int width = 0, height = kHeading;
  for (const Plane& plane : views) {
    width = std::max(width, kCuts * (Cut::pixels(plane.across, scale) + kGap) + kGap);
    height += Cut::pixels(plane.down, scale) + kGap;
  }
  Canvas canvas(width, height);
  canvas.write(kGap, 20, 17, input.title);
  canvas.write(kGap, 43, 15, input.caption);

  const Window window = intensityWindow(input.values, kDark, kBright);
  int top = kHeading;
  for (const Plane& plane : views) {
    const int column = (width - kGap) / kCuts;
    int left = kGap, tallest = 0;
    for (const int through : cutPositions(input, plane.through)) {
      const Cut cut(input, plane, through, scale);
      cut.draw(canvas, left + (column - kGap - cut.width) / 2, top, window);
      tallest = cut.height;
      left += column;
    }
    top += tallest + kGap;
  }
  return canvas.png();
}

std::vector<std::byte> drawThumbnail(const PictureInput& input) {
  const double scale = pixelsPerMm(input, kThumbnailPanel);
  auto views = planes(input);
  int width = 0, height = 0;
  for (Plane& plane : views) {
    plane.left = plane.right = "";
    width += Cut::pixels(plane.across, scale);
    height = std::max(height, Cut::pixels(plane.down, scale));
  }
  Canvas canvas(width + kThumbnailGap * (int(views.size()) - 1), height);
  const Window window = intensityWindow(input.values, kDark, kBright);
  int left = 0;
  for (const Plane& plane : views) {
    const Cut cut(input, plane, cutPositions(input, plane.through)[kCuts / 2], scale);
    cut.draw(canvas, left, (height - cut.height) / 2, window);
    left += cut.width + kThumbnailGap;
  }
  return canvas.png();
}

}  // namespace tavrel::scan
