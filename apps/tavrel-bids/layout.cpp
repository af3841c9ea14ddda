#include "layout.h"

#include <algorithm>

#include "scan/format.h"

namespace tavrel::cohort {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLongestName = 200;

}  // namespace

fs::path unfinishedFolder(const fs::path& output) { return output / "logs" / "unfinished"; }

ScanFiles filesOf(const fs::path& output, const Source& source) {
  const fs::path subject = output / source.participant / source.session;
  const auto anat = [&](const char* ending) { return subject / "anat" / (source.stem + ending); };
  const auto figure = [&](const char* ending) {
    return subject / "figures" / (source.stem + ending);
  };
  // Named after the scan's file, for two of them may have the same entities.
  std::string name = scan::printable(source.path);
  name = source.stem.empty() ? name : name.substr(name.rfind('/') + 1);
  std::replace(name.begin(), name.end(), '/', '_');
  return {.brain = anat("_desc-brain_T1w.nii.gz"),
          .brainInfo = anat("_desc-brain_T1w.json"),
          .mask = anat(kMask),
          .maskInfo = anat(kMaskInfo),
          .mosaic = figure("_desc-brain_mosaic.png"),
          .preview = figure("_desc-preview_T1w.nii.gz"),
          .unfinished = unfinishedFolder(output) / (name.substr(0, kLongestName) + ".json")};
}

}  // namespace tavrel::cohort
