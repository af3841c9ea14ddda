#include "picture.h"

#include <cairo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <memory>
#include <numeric>

#include "format.h"
#include "png.h"
#include "strip/finishing.h"

namespace tavrel::scan {
namespace {

constexpr int kCuts = 7;
constexpr int kPanel = 230;  // pixels of the longest side of a cut
constexpr int kGap = 6;      // pixels between cuts
constexpr int kThumbnailPanel = 96, kThumbnailGap = 2;
constexpr int kHeading = 52;                    // pixels for the two lines of text
constexpr double kDark = 0.02, kBright = 0.98;  // fractions of voxels beyond black and white
constexpr std::size_t kSample = 200'003;  // voxels that place the percentiles as well as all do
constexpr std::uint32_t kGolden = 2'654'435'769;  // multiples of the golden ratio, times 2^32
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

/// The intensities on the cut at `through`, rows from the top, those that are no numbers as 0.
std::vector<float> readCut(const IntensityReader& read, const Size& size, const Plane& plane,
                           int through) {
  // Stored rows are read whole where they lie on the cut, upright or not.
  const bool upright = plane.down.axis == 0;
  const Walk &along = upright ? plane.down : plane.across,
             &beside = upright ? plane.across : plane.down;
  const bool whole = along.axis == 0;
  const auto width = std::size_t(plane.across.count);
  std::vector<float> cut(width * std::size_t(plane.down.count)),
      run(whole ? std::size_t(along.count) : 1);
  Size at;
  at[plane.through.axis] = plane.through.index(through);
  for (int b = 0; b < beside.count; ++b)
    for (int a = 0; a < along.count; a += int(run.size())) {
      at[beside.axis] = beside.index(b);
      at[along.axis] = whole ? 0 : along.index(a);
      read((std::size_t(at[2]) * size[1] + at[1]) * size[0] + at[0], run);
      for (int r = 0; r < int(run.size()); ++r) {
        const int i = whole ? along.index(r) : a;
        const std::size_t place = upright ? std::size_t(i) * width + b : std::size_t(b) * width + i;
        cut[place] = std::isfinite(run[r]) ? run[r] : 0;
      }
    }
  return cut;
}

/// Index and weight of the two voxels around pixel i of `pixels` along a walk.
struct Between {
  int first, second;
  float weight;
};

std::vector<Between> interpolation(int count, int pixels) {
  std::vector<Between> result(static_cast<std::size_t>(pixels));
  for (int i = 0; i < pixels; ++i) {
    const double at = std::clamp((i + 0.5) * count / pixels - 0.5, 0.0, count - 1.0);
    const int first = int(at);
    result[std::size_t(i)] = {first, std::min(first + 1, count - 1), float(at - first)};
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
        painter_(cairo_create(surface_.get()), cairo_destroy) {
    if (cairo_status(painter()) != CAIRO_STATUS_SUCCESS) throw std::bad_alloc();
  }

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
    return encodePng(cairo_image_surface_get_width(surface_.get()),
                     cairo_image_surface_get_height(surface_.get()),
                     [this](int y) { return row(y); });
  }

 private:
  Surface surface_;
  Painter painter_;
};

/// Pixels of a walk's whole length.
int pixels(const Walk& walk, double pixelsPerMm) {
  return std::max(1, int(std::lround(walk.count * walk.spacing * pixelsPerMm)));
}

constexpr float kHalf = 0.5f;  // of a voxel inside the mask: where its contour runs

/// The cuts of one plane, drawn with their upper left corners at (left, top).
class CutPainter {
 public:
  CutPainter(const Plane& plane, double pixelsPerMm)
      : plane_(plane),
        width(pixels(plane.across, pixelsPerMm)),
        height(pixels(plane.down, pixelsPerMm)),
        columns_(interpolation(plane.across.count, width)),
        rows_(interpolation(plane.down.count, height)) {}

  const Plane& plane() const { return plane_; }

  /// Both arrays hold the values of a cut as readCut() gives them; `greys` go from 0 to 255.
  void draw(Canvas& canvas, int left, int top, std::span<const float> greys,
            std::span<const float> inside) const {
    const std::vector<float> image = enlarged(greys);
    for (int y = 0; y < height; ++y) {
      std::uint32_t* row = canvas.row(top + y) + left;
      const float* from = &image[std::size_t(y) * width];
      for (int x = 0; x < width; ++x) row[x] = 0x010101u * std::uint32_t(from[x] + 0.5f);
    }
    canvas.touched();
    drawContour(canvas, left, top, enlarged(inside));
    canvas.write(left + 2, top + 14, 15, plane_.left);
    canvas.write(left + width - 13, top + 14, 15, plane_.right);
  }

 private:
  /// A cut at the picture's size, linear between its voxels.
  std::vector<float> enlarged(std::span<const float> cut) const {
    const auto count = std::size_t(plane_.across.count);
    std::vector<float> result(std::size_t(width) * height), row(count);
    float* out = result.data();
    for (const Between& r : rows_) {
      const float *upper = &cut[r.first * count], *lower = &cut[r.second * count];
      for (std::size_t i = 0; i < count; ++i) row[i] = upper[i] + r.weight * (lower[i] - upper[i]);
      for (const Between& c : columns_)
        *out++ = row[c.first] + c.weight * (row[c.second] - row[c.first]);
    }
    return result;
  }

  /// Strokes the line on which the interpolated mask is one half (marching squares).
  void drawContour(Canvas& canvas, int left, int top, const std::vector<float>& inside) const {
    cairo_t* painter = canvas.painter();
    const auto isInside = [](float share) { return share > kHalf; };
    for (int y = 0; y + 1 < height; ++y) {
      const float *upper = &inside[std::size_t(y) * width], *lower = upper + width;
      for (int x = 0; x + 1 < width; ++x) {
        const int corners = isInside(upper[x]) + isInside(upper[x + 1]) + isInside(lower[x]) +
                            isInside(lower[x + 1]);
        if (corners % 4 != 0)
          strokeSquare(
              painter, left + x + 0.5, top + y + 0.5,
              {upper[x] - kHalf, upper[x + 1] - kHalf, lower[x + 1] - kHalf, lower[x] - kHalf});
      }
    }
    cairo_set_source_rgb(painter, 1, 0.85, 0);
    cairo_set_line_width(painter, 1.4);
    cairo_stroke(painter);
  }

  /// Adds the line segments of one square, corner values clockwise from the upper left.
  static void strokeSquare(cairo_t* painter, double x, double y, const std::array<float, 4>& v) {
    constexpr double kCorner[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
    int crossings = 0;
    for (int side = 0; side < 4; ++side) {
      const int next = (side + 1) % 4;
      if ((v[side] > 0) == (v[next] > 0)) continue;
      const double t = double(v[side]) / (double(v[side]) - v[next]);
      const double px = x + std::lerp(kCorner[side][0], kCorner[next][0], t);
      const double py = y + std::lerp(kCorner[side][1], kCorner[next][1], t);
      crossings++ % 2 ? cairo_line_to(painter, px, py) : cairo_move_to(painter, px, py);
    }
  }

  const Plane& plane_;

 public:
  const int width, height;

 private:
  std::vector<Between> columns_, rows_;
};

/// Positions along a plane's walk, evenly spread over the mask's box (over the volume without one).
std::array<int, kCuts> cutPositions(const Box& box, const Walk& walk) {
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

/// Turns intensities into greys from 0 to 255.
void toGreys(std::span<float> values, const Window& window) {
  const double range = window.high - window.low;
  for (float& value : values)
    value = range > 0 ? float(255 * std::clamp((value - window.low) / range, 0.0, 1.0))
                      : 255.0f * (value > window.low);
}

/// The scale at which the longest side of the volume takes this many pixels.
double pixelsPerMm(const PictureInput& input, int pixels) {
  double longest = 0;
  for (int d = 0; d < 3; ++d) longest = std::max(longest, input.size[d] * input.spacing[d]);
  return pixels / longest;
}

/// What all cuts of a picture have in common.
class Cuts {
 public:
  explicit Cuts(const PictureInput& input)
      : input_(input),
        window_(intensityWindow(input.read, voxelCount(input.size), kDark, kBright)),
        box_(boundingBox(BitVolume(input.mask, input.size))) {}

  std::array<int, kCuts> positions(const Plane& plane) const {
    return cutPositions(box_, plane.through);
  }

  void draw(Canvas& canvas, int left, int top, const CutPainter& painter, int through) const {
    const Plane& plane = painter.plane();
    auto greys = readCut(input_.read, input_.size, plane, through);
    toGreys(greys, window_);
    painter.draw(canvas, left, top, greys, readCut(maskReader(), input_.size, plane, through));
  }

 private:
  IntensityReader maskReader() const {
    return [mask = input_.mask](std::size_t first, std::span<float> values) {
      std::copy_n(mask.begin() + std::ptrdiff_t(first), values.size(), values.begin());
    };
  }

  const PictureInput& input_;
  Window window_;
  Box box_;
};

}  // namespace

IntensityReader readerOf(std::span<const double> volume) {
  return [volume](std::size_t first, std::span<float> values) {
    for (std::size_t i = 0; i < values.size(); ++i) values[i] = float(volume[first + i]);
  };
}

Window intensityWindow(const IntensityReader& read, std::size_t voxels, double low, double high) {
  const std::size_t step = std::max<std::size_t>(1, voxels / kSample);
  std::vector<float> sample;
  sample.reserve(voxels / step + 1);
  for (std::size_t first = 0, i = 0; first < voxels; first += step, ++i) {
    // One voxel of each stretch, spread evenly over it: steps may fit the rows of the volume.
    const std::size_t within = std::uint64_t(std::uint32_t(i * kGolden)) * step >> 32;
    float value = 0;
    read(std::min(first + within, voxels - 1), {&value, 1});
    if (std::isfinite(value)) sample.push_back(value);
  }
  if (sample.empty()) return {0, 0};
  auto sorted = sample.begin();
  const auto at = [&](double fraction) {
    const auto place = sample.begin() + std::ptrdiff_t(fraction * double(sample.size() - 1));
    std::nth_element(sorted, place, sample.end());
    sorted = place;
    return double(*place);
  };
  const double lower = at(low);
  return {lower, at(high)};
}

std::vector<std::byte> drawPicture(const PictureInput& input) {
  const double scale = pixelsPerMm(input, kPanel);
  const auto views = planes(input);

  int width = 0, height = kHeading;
  for (const Plane& plane : views) {
    width = std::max(width, kCuts * (pixels(plane.across, scale) + kGap) + kGap);
    height += pixels(plane.down, scale) + kGap;
  }
  Canvas canvas(width, height);
  canvas.write(kGap, 20, 17, input.title);
  canvas.write(kGap, 43, 15, input.caption);

  const Cuts cuts(input);
  const int column = (width - kGap) / kCuts;
  int top = kHeading;
  for (const Plane& plane : views) {
    const CutPainter painter(plane, scale);
    int left = kGap + (column - kGap - painter.width) / 2;
    for (const int through : cuts.positions(plane)) {
      cuts.draw(canvas, left, top, painter, through);
      left += column;
    }
    top += painter.height + kGap;
  }
  return canvas.png();
}

std::vector<std::byte> drawThumbnail(const PictureInput& input) {
  const double scale = pixelsPerMm(input, kThumbnailPanel);
  auto views = planes(input);
  int width = 0, height = 0;
  for (Plane& plane : views) {
    plane.left = plane.right = "";
    width += pixels(plane.across, scale);
    height = std::max(height, pixels(plane.down, scale));
  }
  Canvas canvas(width + kThumbnailGap * (int(views.size()) - 1), height);
  const Cuts cuts(input);
  int left = 0;
  for (const Plane& plane : views) {
    const CutPainter painter(plane, scale);
    cuts.draw(canvas, left, (height - painter.height) / 2, painter,
              cuts.positions(plane)[kCuts / 2]);
    left += painter.width + kThumbnailGap;
  }
  return canvas.png();
}

}  // namespace tavrel::scan
