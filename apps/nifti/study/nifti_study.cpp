// Measures masks against given ones over a range of settings, for docs/accuracy.md.
//
//   nifti_study evolve SCAN FOLDER [FIRST LAST STEP]
//       runs the evolution for each W5 and keeps the masks, of the scan's grid and of the half
//       resolution before it, in FOLDER
//   nifti_study score SCAN REFERENCE FOLDER [CLOSE_MM]
//       finishes each kept mask with all pairs of radii from 0 to 6 mm and prints, tab-separated,
//       W5, both radii, Dice, false-positive and false-negative volume in mL against REFERENCE > 0
//       (closed by a ball of CLOSE_MM and filled, for references that leave out the sulci)
#include <voxPipeline.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <string>

#include "finishing.h"
#include "scan.h"

namespace {

using namespace tavrel::nifti;
namespace fs = std::filesystem;

constexpr int kLargestRadius = 6;

void save(const fs::path& path, const char* first, std::size_t count) {
  const gzFile file = gzopen(path.c_str(), "wb4");
  if (!file || gzwrite(file, first, unsigned(count)) != int(count) || gzclose(file) != Z_OK)
    throw ScanError("cannot be written");
}

std::vector<char> load(const fs::path& path, std::size_t count) {
  std::vector<char> mask(count);
  const gzFile file = gzopen(path.c_str(), "rb");
  if (!file || gzread(file, mask.data(), unsigned(count)) != int(count))
    throw ScanError("cannot be read");
  gzclose(file);
  return mask;
}

std::string maskName(double w5) {
  char name[40];
  std::snprintf(name, sizeof name, "w5_%.2f.mask.gz", w5);
  return name;
}

void evolveAll(const std::string& path, const fs::path& folder, double first, double last,
               double step) {
  fs::create_directories(folder);
  const Scan scan = readScan(path);
  const Size& size = scan.header.size;
  vox3DMat<double, char> image(size[0], size[1], size[2]);
  intensities(scan, {image.p, voxelCount(size)});
  char none[] = "";
  for (int i = 0; first + i * step < last + step / 2; ++i) {
    const double w5 = first + i * step;
    if (fs::exists(folder / maskName(w5))) continue;
    voxPara P;
    tavrel::setupPipeline(P, none, none, none, 3, size[0], size[1], size[2], w5);
    auto volumes = tavrel::prepare(image, P);
    tavrel::EvolutionObserver observer;
    observer.onLevel = [&](int level, vox3DMat<double, char>& phi) {
      if (level != 1) return;
      const std::unique_ptr<vox3DMat<char, double>> half(phi.Phi2VeC());
      save(folder / (maskName(w5) + ".half"), half->p,
           voxelCount({half->sizeX, half->sizeY, half->sizeZ}));
    };
    tavrel::evolve(volumes, P, observer, 1);
    tavrel::finish(*volumes.mask, image, P);
    save(folder / maskName(w5), volumes.mask->p, voxelCount(size));
    std::cerr << path << " W5 " << w5 << std::endl;
  }
}

struct Score {
  double dice, falsePositiveMl, falseNegativeMl;
};

Score score(const std::vector<char>& mask, const std::vector<char>& reference, double voxelMl) {
  std::size_t both = 0, inMask = 0, inReference = 0;
  for (std::size_t v = 0; v < mask.size(); ++v) {
    both += std::size_t(mask[v] & reference[v]);
    inMask += std::size_t(mask[v]);
    inReference += std::size_t(reference[v]);
  }
  return {2.0 * double(both) / double(inMask + inReference), double(inMask - both) * voxelMl,
          double(inReference - both) * voxelMl};
}

std::vector<char> readReference(const std::string& path, double closeMm) {
  const Scan scan = readScan(path);
  const Header& header = scan.header;
  std::vector<double> values(voxelCount(header.size));
  intensities(scan, values);
  std::vector<char> mask(values.size());
  std::transform(values.begin(), values.end(), mask.begin(), [](double v) { return char(v > 0); });
  if (closeMm > 0)
    finishMask(mask, header.size, header.spacing,
               {.openMm = 0, .largest = false, .closeMm = closeMm, .fillHoles = true});
  return mask;
}

void scoreAll(const std::string& path, const std::string& referencePath, const fs::path& folder,
              double closeMm) {
  const Header header = readScan(path).header;
  const auto& [size, spacing] = std::tie(header.size, header.spacing);
  const auto reference = readReference(referencePath, closeMm);
  const double voxelMl = spacing[0] * spacing[1] * spacing[2] / 1000;
  std::puts("w5\topen_mm\tclose_mm\tdice\tfp_ml\tfn_ml\tml");
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(folder))
    if (entry.path().string().ends_with(".mask.gz")) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files) {
    const auto raw = load(file, voxelCount(size));
    const double w5 = std::atof(file.filename().string().c_str() + 3);
    const auto print = [&](int open, int close, const std::vector<char>& mask) {
      const Score s = score(mask, reference, voxelMl);
      const double ml = double(std::count(mask.begin(), mask.end(), 1)) * voxelMl;
      std::printf("%.2f\t%d\t%d\t%.4f\t%.1f\t%.1f\t%.1f\n", w5, open, close, s.dice,
                  s.falsePositiveMl, s.falseNegativeMl, ml);
    };
    print(-1, -1, raw);  // not finished at all
    for (int open = 0; open <= kLargestRadius; ++open) {
      auto opened = raw;
      finishMask(opened, size, spacing,
                 {.openMm = double(open), .largest = true, .closeMm = 0, .fillHoles = false});
      for (int close = 0; close <= kLargestRadius; ++close) {
        auto closed = opened;
        finishMask(closed, size, spacing,
                   {.openMm = 0, .largest = false, .closeMm = double(close), .fillHoles = true});
        print(open, close, closed);
      }
    }
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  const auto number = [&](std::size_t i, double fallback) {
    return arguments.size() > i ? std::stod(arguments[i]) : fallback;
  };
  try {
    if (arguments.size() >= 3 && arguments[0] == "evolve")
      evolveAll(arguments[1], arguments[2], number(3, 0.7), number(4, 1.5), number(5, 0.05));
    else if (arguments.size() >= 4 && arguments[0] == "score")
      scoreAll(arguments[1], arguments[2], arguments[3], number(4, 0));
    else
      throw ScanError(
          "usage: nifti_study evolve SCAN FOLDER [FIRST LAST STEP]\n"
          "       nifti_study score SCAN REFERENCE FOLDER [CLOSE_MM]");
  } catch (const std::exception& error) {
    std::cerr << error.what() << std::endl;
    return 1;
  }
}
