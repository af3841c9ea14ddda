#include "report.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "progress.h"
#include "scan/checksum.h"

namespace tavrel::scan {
namespace {

using json = nlohmann::ordered_json;

json settingsEntry(const Options& options) {
  const StripSettings& settings = options.strip;
  json entry;
  entry["volume"] = options.volume ? json(*options.volume) : json();
  entry["w5"] = settings.w5 ? json(*settings.w5) : json("auto");
  entry["resample_mm"] = settings.resampleMm ? json(*settings.resampleMm) : json();
  entry["threads"] = settings.threads;
  if (settings.finish)
    entry["finish"] = {{"open_mm", settings.finish->openMm},
                       {"largest", settings.finish->largest},
                       {"close_mm", settings.finish->closeMm},
                       {"fill_holes", settings.finish->fillHoles}};
  else
    entry["finish"] = "none";
  return entry;
}

}  // namespace

json newReport(const Options& options) {
  return {{"program", "tavrel-nifti"},
          {"version", kVersion},
          {"settings", settingsEntry(options)},
          {"scans", json::array()}};
}

json scanEntry(const std::string& input, const Scan& scan, const Stripped& stripped,
               const OutputPaths& outputs, double seconds) {
  const Header& header = scan.header;
  const auto voxels = std::count(stripped.mask.begin(), stripped.mask.end(), 1);
  const Box box = boundingBox(stripped.mask, header.size);
  json entry = {{"input", input},
                {"status", "done"},
                {"sha256", sha256(scan.path)},
                {"size", header.size},
                {"voxel_mm", header.spacing},
                {"w5", stripped.w5},
                {"leaks", stripped.leaks},
                {"voxels", voxels},
                {"volume_ml", millilitres(double(voxels), header.spacing)},
                {"seconds", seconds}};
  if (!scan.imagePath.empty()) entry["image_sha256"] = sha256(scan.imagePath);
  if (box.empty())
    entry["bounding_box"] = nullptr;
  else
    entry["bounding_box"] = {{"first", box.first},
                             {"last", {box.end[0] - 1, box.end[1] - 1, box.end[2] - 1}}};
  for (const LevelRecord& level : stripped.levels)
    entry["levels"].push_back(
        {{"size", level.size}, {"iterations", level.iterations}, {"seconds", level.seconds}});
  for (const auto& [name, path] : {std::pair{"brain", outputs.brain},
                                   {"mask", outputs.mask},
                                   {"phi", outputs.phi},
                                   {"qc", outputs.qc}})
    if (!path.empty()) entry["outputs"][name] = path.string();
  return entry;
}

json failedEntry(const std::string& input, const std::string& reason) {
  return {{"input", input}, {"status", "failed"}, {"error", reason}};
}

}  // namespace tavrel::scan
