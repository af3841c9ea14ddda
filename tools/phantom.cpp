// Writes a head phantom and its own brain mask as raw volumes.
#include "phantom.h"

#include "common.h"

namespace {

/// Brightness of intensity 1 in each format: spans most of a byte, a usual range of a scanner's
/// words, and unit floats.
constexpr double kScale[] = {230, 1400, 1};

void writePhantom(const std::vector<std::string>& args) {
  if (args.size() < 6 || args.size() > 7)
    throw tavrel::ToolError("arguments: X Y Z byte|word|float IMAGE MASK [SEED]");
  const int x = tavrel::parseSize(args[0]), y = tavrel::parseSize(args[1]),
            z = tavrel::parseSize(args[2]), format = tavrel::parseFormat(args[3]);
  tavrel::Phantom phantom =
      tavrel::makePhantom(x, y, z, args.size() > 6 ? std::stoull(args[6]) : 1);
  for (double& value : phantom.image) {
    value *= kScale[format];
    if (format == 0) value = std::clamp(value, 0.0, 255.0);
  }
  tavrel::writeVolume(args[4], format, x, y, z, phantom.image);
  tavrel::writeVolume(args[5], 0, x, y, z, phantom.brain);
}

}  // namespace

int main(int argc, char** argv) { return tavrel::runTool(argc, argv, writePhantom); }
