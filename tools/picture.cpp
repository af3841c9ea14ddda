// Draws the contour of a raw mask on cuts of a raw volume into a PNG, as tavrel-nifti does for
// scans:
//   picture X Y Z byte|word|float IMAGE MASK OUT.png
// Up is +y on the axial cuts and +z on the others.
#include "scan/picture.h"

#include <fstream>

#include "common.h"

namespace {

void draw(const std::vector<std::string>& args) {
  if (args.size() != 7)
    throw tavrel::ToolError("arguments: X Y Z byte|word|float IMAGE MASK OUT.png");
  const tavrel::strip::Size size = {tavrel::parseSize(args[0]), tavrel::parseSize(args[1]),
                                    tavrel::parseSize(args[2])};
  const auto read = [&](const std::string& path, int format) {
    return tavrel::readVolume(path, format, size[0], size[1], size[2]);
  };
  const auto image = read(args[4], tavrel::parseFormat(args[3])), inside = read(args[5], 0);
  const std::vector<char> mask(inside.begin(), inside.end());
  const auto png = tavrel::scan::drawPicture({.read = tavrel::scan::readerOf(image),
                                              .mask = mask,
                                              .size = size,
                                              .spacing = {1, 1, 1},
                                              .orientation = {},
                                              .title = args[4],
                                              .caption = args[5]});
  std::ofstream file(args[6], std::ios::binary);
  file.write(reinterpret_cast<const char*>(png.data()), std::streamsize(png.size()));
  if (!file.flush()) throw tavrel::ToolError("cannot write " + args[6]);
}

}  // namespace

int main(int argc, char** argv) { return tavrel::runTool(argc, argv, draw); }
