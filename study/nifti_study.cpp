// Measures masks against given ones over a range of settings, for docs/accuracy.md.
//
//   nifti_study evolve SCAN FOLDER [FIRST LAST STEP]
//       runs the evolution for each W5 and keeps the masks, of the scan's grid and of the half
//       resolution before it, in FOLDER
//   nifti_study score SCAN FOLDER CLOSE_MM REFERENCE...
//       finishes each kept mask with all pairs of radii from 0 to 6 mm (-1: not finished) and
//       prints, tab-separated, W5, both radii, volume in mL and for each reference Dice,
//       false-positive and false-negative volume in mL against REFERENCE > 0 (closed by a ball of
//       CLOSE_MM and filled, for references that leave out the sulci)
#include <voxPipeline.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <span>
#include <string>
#include <vector>

#include "scan/nifti/scan.h"
#include "strip/distance.h"
#include "strip/finishing.h"
#include "strip/resample.h"

namespace {

using namespace tavrel::scan;
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
    const double w5 = std::round((first + i * step) * 100) / 100;  // 1.2, not 1.2000000000000002
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
    tavrel::finish(*volumes.mask, P);
    save(folder / maskName(w5), volumes.mask->p, voxelCount(size));
    std::cerr << path << " W5 " << w5 << std::endl;
  }
}

/// The part of a mask within a box.
std::vector<char> cut(const std::vector<char>& mask, const Size& size, const Box& box) {
  std::vector<char> part;
  for (int z = box.first[2]; z < box.end[2]; ++z)
    for (int y = box.first[1]; y < box.end[1]; ++y) {
      const auto row = mask.begin() + (std::ptrdiff_t(z) * size[1] + y) * size[0];
      part.insert(part.end(), row + box.first[0], row + box.end[0]);
    }
  return part;
}

struct Score {
  double dice, falsePositiveMl, falseNegativeMl;
};

/// @param inReference  voxels of the whole reference, of which `reference` may be a part
Score score(const std::vector<char>& mask, const std::vector<char>& reference,
            std::size_t inReference, double voxelMl) {
  std::size_t both = 0, inMask = 0;
  for (std::size_t v = 0; v < mask.size(); ++v) {
    both += std::size_t(mask[v] & reference[v]);
    inMask += std::size_t(mask[v]);
  }
  return {2.0 * double(both) / double(inMask + inReference), double(inMask - both) * voxelMl,
          double(inReference - both) * voxelMl};
}

std::vector<char> readReference(const std::string& path, double closeMm) {
  const Scan scan = readScan(path);
  const Header& header = scan.header;
  std::vector<char> mask = maskOf(scan);
  if (closeMm > 0)
    finishMask(mask, header.size, header.spacing,
               {.openMm = 0, .largest = false, .closeMm = closeMm, .fillHoles = true});
  return mask;
}

/// Calls f(opening radius, closing radius, mask) for all pairs of radii, with every distance map
/// made once. Gives what finishMask() gives.
template <class F>
void forRadii(const std::vector<char>& raw, const Size& size, const Spacing& spacing, F&& f) {
  const auto toOutside = squaredDistances(raw, size, spacing, 0);
  for (int open = 0; open <= kLargestRadius; ++open) {
    auto opened = raw;
    if (open > 0) setWithin(opened, toOutside, open, 0);
    keepLargest(opened, size);
    if (open > 0) setWithin(opened, squaredDistances(opened, size, spacing, 1), open, 1);
    const auto toInside = squaredDistances(opened, size, spacing, 1);
    for (int close = 0; close <= kLargestRadius; ++close) {
      auto closed = opened;
      if (close > 0) {
        setWithin(closed, toInside, close, 1);
        setWithin(closed, squaredDistances(closed, size, spacing, 0), close, 0);
      }
      fillHoles(closed, size);
      f(open, close, closed);
    }
  }
}

/// Prints the scores of one mask for all radii, and first as it is.
void scoreMask(const std::vector<char>& whole, double w5, const Grid& grid,
               std::span<const std::vector<char>> wholeReferences) {
  Box box = boundingBox(whole, grid.size);
  Size size;
  for (int d = 0; d < 3; ++d) {
    const int margin = int(kLargestRadius / grid.spacing[d]) + 2;
    box.first[d] = std::max(0, box.first[d] - margin);
    box.end[d] = std::min(grid.size[d], box.end[d] + margin);
    size[d] = box.end[d] - box.first[d];
  }
  std::vector<std::vector<char>> references;
  std::vector<std::size_t> counts;
  for (const auto& reference : wholeReferences) {
    references.push_back(cut(reference, grid.size, box));
    counts.push_back(std::size_t(std::count(reference.begin(), reference.end(), 1)));
  }
  const double voxelMl = grid.spacing[0] * grid.spacing[1] * grid.spacing[2] / 1000;
  const auto print = [&](int open, int close, const std::vector<char>& mask) {
    const double ml = double(std::count(mask.begin(), mask.end(), 1)) * voxelMl;
    std::printf("%.2f\t%d\t%d\t%.1f", w5, open, close, ml);
    for (std::size_t r = 0; r < references.size(); ++r) {
      const Score s = score(mask, references[r], counts[r], voxelMl);
      std::printf("\t%.4f\t%.1f\t%.1f", s.dice, s.falsePositiveMl, s.falseNegativeMl);
    }
    std::puts("");
  };
  const auto mask = cut(whole, grid.size, box);
  print(-1, -1, mask);
  forRadii(mask, size, grid.spacing, print);
  std::fflush(stdout);
}

void scoreAll(const std::string& path, const fs::path& folder, double closeMm,
              std::span<const std::string> referencePaths) {
  const Header header = readScan(path).header;
  std::vector<std::vector<char>> references;
  for (const auto& reference : referencePaths)
    references.push_back(readReference(reference, closeMm));
  std::puts("w5\topen_mm\tclose_mm\tml\tdice\tfp_ml\tfn_ml");
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(folder))
    if (entry.path().string().ends_with(".mask.gz")) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files)
    scoreMask(load(file, voxelCount(header.size)), std::atof(file.filename().string().c_str() + 3),
              {header.size, header.spacing}, references);
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
    else if (arguments.size() >= 5 && arguments[0] == "score")
      scoreAll(arguments[1], arguments[2], number(3, 0), std::span(arguments).subspan(4));
    else
      throw ScanError(
          "usage: nifti_study evolve SCAN FOLDER [FIRST LAST STEP]\n"
          "       nifti_study score SCAN FOLDER CLOSE_MM REFERENCE...");
  } catch (const std::exception& error) {
    std::cerr << error.what() << std::endl;
    return 1;
  }
}
