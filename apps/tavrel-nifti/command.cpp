#include "command.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <new>
#include <nlohmann/json.hpp>

#include "progress.h"
#include "report.h"
#include "scan/format.h"
#include "scan/interrupt.h"
#include "scan/nifti/datatype.h"
#include "scan/nifti/scan.h"
#include "scan/output.h"
#include "scan/picture.h"

namespace tavrel::scan {
namespace {

namespace fs = std::filesystem;

// The region that the method looks at round each voxel is 21 voxels wide.
constexpr double kFinestMm = 0.7, kCoarsestMm = 2.1, kMostAnisotropic = 2;

int terminalColumns() {
  winsize size = {};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

void makeFolder(const fs::path& folder) {
  std::error_code failure;
  fs::create_directories(folder, failure);
  if (failure) throw OutputError(text(folder.string(), " cannot be made: ", failure.message()));
}

/// Complains before the work begins about outputs that could not be written after it.
void checkTarget(const fs::path& target, bool force) {
  std::error_code failure;
  const fs::path folder = target.has_parent_path() ? target.parent_path() : ".";
  if (!fs::is_directory(folder, failure))
    throw OutputError(text(folder.string(), " is not a folder",
                           failure ? " (" + failure.message() + ")" : std::string()));
  if (access(folder.c_str(), W_OK | X_OK) != 0)
    throw OutputError(text(folder.string(), " is not writable"));
  const fs::file_type type = fs::status(target, failure).type();
  if (type == fs::file_type::none)
    throw OutputError(text(target.string(), " cannot be written: ", failure.message()));
  if (type == fs::file_type::directory) throw OutputError(text(target.string(), " is a folder"));
  if (!force && type != fs::file_type::not_found)
    throw OutputError(text(target.string(), " exists; --force overwrites it"));
}

/// Complains about outputs that would replace a file of the scan itself.
void checkNotInput(const Scan& scan, const OutputPaths& paths) {
  std::error_code failure;
  for (const fs::path& target : paths.all())
    for (const std::string& input : {scan.path, scan.imagePath})
      if (fs::equivalent(target, input, failure) && !failure)
        throw OutputError(text(target.string(), " is the scan itself"));
}

/// What the user should know about a scan's voxel sizes, or nothing.
std::string spacingNotice(const Header& header) {
  const auto [least, most] = std::minmax_element(header.spacing.begin(), header.spacing.end());
  if (*least >= kFinestMm && *most <= kCoarsestMm && *most <= kMostAnisotropic * *least) return "";
  return text("voxels of ", header.spacing[0], " x ", header.spacing[1], " x ", header.spacing[2],
              " mm are far from 1 mm; --resample 1 may do better");
}

std::vector<std::byte> maskedVoxels(const Scan& scan, std::span<const char> mask) {
  std::vector<std::byte> voxels = scan.stored;
  const auto zero = storedZero(scan.header);
  for (std::size_t v = 0; v < mask.size(); ++v)
    if (!mask[v])
      std::copy(zero.begin(), zero.end(), voxels.begin() + std::ptrdiff_t(v * zero.size()));
  return voxels;
}

std::vector<std::byte> floatVoxels(std::span<const float> values, bool swapped) {
  std::vector<std::byte> bytes(values.size_bytes());
  for (std::size_t v = 0; v < values.size(); ++v)
    storeVoxel(values[v], bytes.data() + v * sizeof(float), swapped);
  return bytes;
}

std::vector<std::byte> picture(const std::string& name, const Scan& scan,
                               const Stripped& stripped) {
  std::vector<double> values(voxelCount(scan.header.size));
  intensities(scan, values);
  const auto voxels = double(std::count(stripped.mask.begin(), stripped.mask.end(), 1));
  char caption[100];
  std::snprintf(caption, sizeof caption, "%.0f mL   W5 %.2f%s%s",
                millilitres(voxels, scan.header.spacing), stripped.w5,
                stripped.leaks ? "   SEEMS TO LEAK" : "",
                scan.header.orientation ? "" : "   orientation unknown, cuts as stored");
  return drawPicture({values, stripped.mask, scan.header.size, scan.header.spacing,
                      scan.header.orientation, name, caption});
}

/// Writes all outputs beside their targets, then renames them together.
void writeOutputs(const std::string& name, const Scan& scan, const Stripped& stripped,
                  const OutputPaths& paths, bool force) {
  constexpr std::byte kNoExtensions[4] = {};
  std::vector<PendingFile> files;
  if (!paths.brain.empty()) {
    auto extensions = scan.extensions;
    if (extensions.size() < 4) extensions.resize(4);
    files.push_back(writePendingNifti(paths.brain, oneVolumeHeader(scan.header, extensions.size()),
                                      extensions, maskedVoxels(scan, stripped.mask)));
  }
  if (!paths.mask.empty())
    files.push_back(writePendingNifti(paths.mask,
                                      derivedHeader(scan.header, NIFTI_TYPE_UINT8, 0, 1),
                                      kNoExtensions, std::as_bytes(std::span(stripped.mask))));
  if (!paths.phi.empty())
    files.push_back(
        writePendingNifti(paths.phi, derivedHeader(scan.header, NIFTI_TYPE_FLOAT32, 0, 0),
                          kNoExtensions, floatVoxels(stripped.phi, scan.header.swapped)));
  if (!paths.qc.empty()) files.push_back(writePending(paths.qc, picture(name, scan, stripped)));
  checkInterrupted();
  for (const PendingFile& file : files) checkTarget(file.target(), force);
  for (PendingFile& file : files) file.commit();
}

std::unique_ptr<Image> imageOf(const Scan& scan) {
  const Size& size = scan.header.size;
  auto image = std::make_unique<Image>(size[0], size[1], size[2]);
  intensities(scan, {image->p, voxelCount(size)});
  return image;
}

nlohmann::ordered_json stripOne(const std::string& input, const Options& options,
                                Progress& progress) {
  const OutputPaths paths = outputPaths(input, options);
  for (const auto& path : paths.all()) checkTarget(path, options.force);
  progress.stage("reading");
  const Scan scan = readScan(input, options.volume);
  checkNotInput(scan, paths);
  const Grid grid{scan.header.size, scan.header.spacing};
  const auto notice = [&](const std::string& line) {
    progress.clear();
    if (!options.quiet && !line.empty()) std::cerr << input << ": note: " << line << std::endl;
  };
  for (const std::string& line : scan.header.notices) notice(line);
  if (!options.strip.resampleMm) notice(spacingNotice(scan.header));

  const Stripped stripped = stripScan(imageOf(scan), grid, options.strip,
                                      progress.observer(strippingGrid(grid, options.strip)));
  const auto voxels = std::count(stripped.mask.begin(), stripped.mask.end(), 1);
  if (voxels == 0 && options.strip.finish)
    throw ScanError("shows no brain to the method (the mask is empty)");
  if (voxels == 0) notice("the mask is empty");
  if (stripped.leaks) notice("the mask seems to leak out of the skull; look at the picture");
  progress.stage("writing");
  writeOutputs(fs::path(input).filename().string(), scan, stripped, paths, options.force);

  char line[100];
  std::snprintf(line, sizeof line, "%.0f mL, W5 %.2f, %.1f s",
                millilitres(double(voxels), scan.header.spacing), stripped.w5, progress.seconds());
  std::string names;
  for (const auto& path : paths.all()) names += (names.empty() ? " -> " : ", ") + path.string();
  progress.done(line + names);
  if (options.json.empty()) return {};
  return scanEntry(input, scan, stripped, paths, progress.seconds());
}

/// The reason why a scan failed, from the exception being handled.
std::string reason() {
  try {
    throw;
  } catch (const OutputError& error) {
    return error.what();
  } catch (const ScanError& error) {
    return error.what();
  } catch (const std::bad_alloc&) {
    return "needs more memory than there is";
  } catch (const std::exception& error) {
    return error.what();
  }
}

int stripAll(const Options& options) {
  nlohmann::ordered_json report = newReport(options);
  std::vector<std::string> failed;
  if (!options.outDir.empty()) makeFolder(options.outDir);
  if (!options.json.empty()) checkTarget(options.json, options.force);
  for (const std::string& input : options.inputs) {
    try {
      Progress progress(std::cout, Progress::styleFor(STDOUT_FILENO, options.quiet), input,
                        terminalColumns());
      report["scans"].push_back(stripOne(input, options, progress));
    } catch (const Interrupted&) {
      throw;
    } catch (...) {
      const std::string why = reason();
      std::cerr << "tavrel-nifti: " << input << ": " << why << std::endl;
      report["scans"].push_back(failedEntry(input, why));
      failed.push_back(input);
    }
  }
  if (!options.json.empty()) {
    using json = nlohmann::ordered_json;
    const std::string content = report.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
    writePending(options.json, std::as_bytes(std::span(content))).commit();
  }
  if (failed.empty()) return 0;
  std::cerr << "tavrel-nifti: " << failed.size() << " of " << options.inputs.size() << " failed:";
  for (const std::string& input : failed) std::cerr << ' ' << input;
  std::cerr << std::endl;
  return 2;
}

}  // namespace

int runCommand(const Options& options) {
  catchSignals();
  try {
    return stripAll(options);
  } catch (const Interrupted& interrupted) {
    std::cerr << "tavrel-nifti: interrupted" << std::endl;
    return 128 + interrupted.signal;
  } catch (...) {
    std::cerr << "tavrel-nifti: " << reason() << std::endl;
    return 2;
  }
}

}  // namespace tavrel::scan
