// Compares two masks of bytes: volumes and the Dice coefficient 2 |A and B| / (|A| + |B|). Every
// value other than 0 counts as inside.
#include <cstdio>
#include <fstream>
#include <iterator>

#include "common.h"

namespace {

std::vector<char> readBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw tavrel::ToolError("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

void compare(const std::vector<std::string>& args) {
  if (args.size() != 2) throw tavrel::ToolError("arguments: MASK REFERENCE");
  const std::vector<char> mask = readBytes(args[0]), reference = readBytes(args[1]);
  if (mask.size() != reference.size()) throw tavrel::ToolError("the masks differ in size");
  double a = 0, b = 0, both = 0;
  for (std::size_t n = 0; n < mask.size(); ++n) {
    a += mask[n] != 0;
    b += reference[n] != 0;
    both += mask[n] != 0 && reference[n] != 0;
  }
  std::printf("mask       %.0f voxels\nreference  %.0f voxels\nDice       %.4f\n", a, b,
              a + b > 0 ? 2 * both / (a + b) : 1.0);
}

}  // namespace

int main(int argc, char** argv) { return tavrel::runTool(argc, argv, compare); }
