#include "job.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <new>
#include <set>

#include "checksum.h"
#include "format.h"
#include "interrupt.h"
#include "memory.h"
#include "nifti/scan.h"
#include "nifti/writer.h"
#include "output.h"
#include "parallel.h"
#include "picture.h"
#include "targets.h"

namespace tavrel::scan {
namespace {

namespace fs = std::filesystem;

// The region that the method looks at round each voxel is 21 voxels wide.
constexpr double kFinestMm = 0.7, kCoarsestMm = 2.1, kMostAnisotropic = 2;  // exact evolution
// Limits of what is taken for a head where a grid is made for it.
constexpr double kLargestHeadMm = 1000, kLargestVoxelMm = 20;

template <class... Args>
void tell(const std::function<void(Args...)>& listener, const auto&... values) {
  if (listener) listener(values...);
}

Grid gridOf(const Header& header) { return {header.size, header.spacing}; }

/// Refuses a mask whose voxels do not lie where those of the scan with the same index do. Programs
/// that make masks keep one transform of two, or none, and round them.
void checkGrid(const Header& mask, const Header& scan) {
  const char* const reason = "is not on the scan's grid";
  if (mask.size != scan.size) throw ScanError(reason);
  if (mask.transforms.empty() || scan.transforms.empty()) {
    for (int d = 0; d < 3; ++d)
      if (std::abs(mask.spacing[d] - scan.spacing[d]) > 0.01 * scan.spacing[d])
        throw ScanError(reason);
    return;
  }
  double mm = std::numeric_limits<double>::infinity();
  for (const Affine& of : scan.transforms)
    mm = std::min(mm, largestDistance(mask.transforms.front(), of, scan.size));
  if (mm > 0.5 * *std::max_element(scan.spacing.begin(), scan.spacing.end()))
    throw ScanError(print("is not on the scan's grid: it lies up to %.1f mm beside it", mm));
}

/// What the user should know about a scan's voxel sizes, or nothing.
std::string spacingNotice(const Header& header) {
  const auto [least, most] = std::minmax_element(header.spacing.begin(), header.spacing.end());
  if (*least >= kFinestMm && *most <= kCoarsestMm && *most <= kMostAnisotropic * *least) return "";
  return text("voxels of ", header.spacing[0], " x ", header.spacing[1], " x ", header.spacing[2],
              " mm are far from 1 mm; --resample 1 may do better");
}

/// A wrong voxel size in the header would make a grid out of all proportion.
void checkHeadSize(const Header& header) {
  for (int d = 0; d < 3; ++d)
    if (header.size[d] * header.spacing[d] > kLargestHeadMm || header.spacing[d] > kLargestVoxelMm)
      throw ScanError(text("is no head by its voxels of ", header.spacing[0], " x ",
                           header.spacing[1], " x ", header.spacing[2], " mm"));
}

std::unique_ptr<Image> imageOf(const Scan& scan) {
  const Size& size = scan.header.size;
  auto image = std::make_unique<Image>(size[0], size[1], size[2]);
  intensities(scan, {image->p, voxelCount(size)});
  return image;
}

/// A view of the scan; its voxels can be read as long as the scan lives.
ScanView viewOf(const Scan& scan) {
  return {
      gridOf(scan.header), scan.header.orientation,
      [&scan](std::size_t first, std::span<float> voxels) { intensities(scan, first, voxels); }};
}

/// The reason why a job failed, from the exception being handled.
std::string reason() {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return "needs more memory than there is";
  } catch (const fs::filesystem_error& error) {
    return error.what();
  } catch (const std::exception& error) {
    return error.what();
  }
}

/// A job on its way.
class Run {
 public:
  Run(const ScanJob& job, const JobObserver& observer, ScanResult& result)
      : job_(job), observer_(observer), result_(result) {}

  void operator()() {
    checkOutputs({&job_, 1});
    for (const auto& path : job_.outputs.all()) checkTarget(path, job_.force);
    tell(observer_.onStage, "reading");
    scan_ = readScan(job_.input, job_.volume, [this](const Header& header) { check(header); });
    describeScan();
    // The checksums take the time of reading the file once more, beside the work.
    parallelFor(job_.strip.threads, 2, [this](int i) {
      if (i == 0)
        describeFiles();
      else
        stripped_ = job_.fromMask.empty() ? strip() : givenMask();
    });
    const std::string& distortion = scan_.header.distortion;
    if (!distortion.empty()) doubtGeometry(stripped_.judgement, distortion);
    describeMask();
    tell(observer_.onStage, "writing");
    write();
  }

 private:
  void notice(const std::string& line) {
    result_.notices.push_back(line);
    tell(observer_.onNotice, line);
  }

  /// Refuses what could not be stripped before anything is allocated for it.
  void check(const Header& header) const {
    const StripSettings settings = this->settings();
    const bool gridMade = settings.resampleMm || settings.evolution == Evolution::scan;
    if (job_.fromMask.empty() && gridMade) checkHeadSize(header);
    const std::uint64_t need = memoryNeed(header, settings), available = availableMemory();
    if (need > available)
      throw ScanError(
          text("needs about ", amount(need), " of memory, and there are ", amount(available)));
  }

  StripSettings settings() const {
    StripSettings settings = job_.strip;
    settings.phi = !job_.outputs.phi.empty();
    return settings;
  }

  void describeScan() {
    const Header& header = scan_.header;
    result_.size = header.size;
    result_.spacing = header.spacing;
    result_.permissions = scan_.permissions;
    for (const std::string& line : header.notices) notice(line);
    const std::string line = spacingNotice(header);
    const bool asStored = job_.strip.evolution == Evolution::exact && !job_.strip.resampleMm;
    if (job_.fromMask.empty() && asStored && !line.empty()) notice(line);
  }

  void describeFiles() {
    result_.sha256 = sha256(scan_.path);
    if (!scan_.imagePath.empty()) result_.imageSha256 = sha256(scan_.imagePath);
  }

  Stripped strip() {
    const StripSettings settings = this->settings();
    StripObserver observer = observer_.strip;
    observer.checkpoint = [this] {
      checkInterrupted();
      pass(observer_.strip.checkpoint);
    };
    if (settings.evolution == Evolution::scan) return stripScan(viewOf(scan_), settings, observer);
    const Grid grid = gridOf(scan_.header);
    tell(observer_.onGrid, exactGrid(grid, settings));
    return stripExactly(imageOf(scan_), grid, settings, observer);
  }

  Scan readMask() const {
    try {
      return readScan(job_.fromMask, {},
                      [this](const Header& header) { checkGrid(header, scan_.header); });
    } catch (const ScanError& error) {
      throw ScanError(text("its mask ", job_.fromMask, " ", error.what()));
    }
  }

  /// The mask that the job names, instead of a stripped one.
  Stripped givenMask() {
    Stripped given;
    given.w5 = result_.w5;
    given.mask = maskOf(readMask());
    return given;
  }

  void describeMask() {
    const auto& mask = stripped_.mask;
    result_.voxels = std::size_t(std::count(mask.begin(), mask.end(), 1));
    result_.volumeMl = millilitres(double(result_.voxels), result_.spacing);
    result_.box = boundingBox(BitVolume(mask, result_.size));
    result_.w5 = stripped_.w5;
    result_.levels = stripped_.levels;
    result_.trials = stripped_.trials;
    result_.flags = stripped_.judgement.flags;
    result_.confidence = stripped_.judgement.confidence;
    if (result_.voxels > 0) return;
    if (job_.fromMask.empty() && job_.strip.finish)
      throw ScanError("shows no brain to the method (the mask is empty)");
    result_.flags.push_back({"empty", "the mask is empty"});
    result_.confidence = 0;
  }

  std::vector<std::byte> picture() const {
    std::string caption = text(std::lround(result_.volumeMl), " mL   ",
                               job_.fromMask.empty() ? weight(result_.w5) : "given mask");
    for (const Flag& flag : result_.flags) caption += "   " + flag.text;
    if (!scan_.header.orientation) caption += "   orientation unknown, cuts as stored";
    return drawPicture({viewOf(scan_).read, stripped_.mask, scan_.header.size, scan_.header.spacing,
                        scan_.header.orientation, fs::path(job_.input).filename().string(),
                        caption});
  }

  /// What writes each of the outputs beside its target, the slowest first. They can go on at the
  /// same time.
  std::vector<std::function<PendingFile()>> writers() const {
    const OutputPaths& paths = job_.outputs;
    std::vector<std::function<PendingFile()>> writers;
    const auto add = [&](const fs::path& target, auto&& writer) {
      if (!target.empty()) writers.push_back([&target, writer] { return writer(target); });
    };
    add(paths.phi, [this](auto& path) { return writeFloats(path, scan_, stripped_.phi); });
    add(paths.qc, [this](auto& path) { return writePending(path, picture(), scan_.permissions); });
    add(paths.brain, [this](auto& path) { return writeBrain(path, scan_, stripped_.mask); });
    add(paths.mask, [this](auto& path) { return writeMask(path, scan_, stripped_.mask); });
    return writers;
  }

  /// Writes all outputs beside their targets, then puts them in place together.
  void write() {
    std::set<fs::path> folders;
    for (const fs::path& target : job_.outputs.all()) folders.insert(folderOf(target));
    for (const fs::path& folder : folders) removeStale(folder);
    const auto writers = this->writers();
    std::vector<std::optional<PendingFile>> written(writers.size());
    parallelFor(job_.strip.threads, int(writers.size()),
                [&](int i) { written[std::size_t(i)].emplace(writers[std::size_t(i)]()); });
    std::vector<PendingFile> files;
    for (auto& file : written) files.push_back(std::move(*file));
    if (observer_.onWritten) observer_.onWritten(scan_, result_, files);
    checkInterrupted();
    commitTogether(files, job_.force);
  }

  const ScanJob& job_;
  const JobObserver& observer_;
  ScanResult& result_;
  Scan scan_;
  Stripped stripped_;
};

}  // namespace

std::vector<fs::path> OutputPaths::all() const {
  std::vector<fs::path> result;
  for (const auto& path : {brain, mask, phi, qc})
    if (!path.empty()) result.push_back(path);
  return result;
}

ScanResult stripFile(const ScanJob& job, const JobObserver& observer) {
  const auto start = std::chrono::steady_clock::now();
  ScanResult result;
  try {
    Run(job, observer, result)();
    result.done = true;
  } catch (const Interrupted&) {
    throw;
  } catch (...) {
    result.reason = reason();
  }
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return result;
}

std::uint64_t memoryNeed(const Header& header, const StripSettings& settings) {
  // Bytes a voxel, measured over heads of 0.9 to 57 million voxels and rounded up: the mask and
  // what goes with it; the working grid of the evolution for scans; the exact evolution with the
  // distances of the finishing; what comes on top.
  constexpr std::uint64_t kScan = 4, kWork = 26, kExact = 48, kResampling = 16, kPhi = 12;
  constexpr std::uint64_t kProgram = 48 << 20;
  const std::uint64_t voxels = voxelCount(header.size);
  const std::uint64_t scan = voxels * (kScan + std::uint64_t(header.bytesPerVoxel));
  if (settings.evolution == Evolution::scan)
    return kProgram + scan +
           kWork *
               voxelCount(largestWorkGrid({gridOf(header), header.orientation, {}}, settings).size);
  const std::uint64_t work = voxelCount(exactGrid(gridOf(header), settings).size);
  return kProgram + scan + work * kExact + (settings.resampleMm ? voxels * kResampling : 0) +
         (settings.phi ? std::max(voxels, work) * kPhi : 0);
}

}  // namespace tavrel::scan
