#include "report.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace tavrel::scan {
namespace {

using json = nlohmann::ordered_json;

json settingsEntry(const StripSettings& settings, std::optional<std::int64_t> volume) {
  json entry;
  entry["volume"] = volume ? json(*volume) : json();
  entry["evolution"] = settings.evolution == Evolution::exact ? "exact" : "scan";
  entry["w5"] = settings.w5 ? json(*settings.w5) : json("auto");
  entry["resample_mm"] = settings.resampleMm ? json(*settings.resampleMm) : json("auto");
  entry["volume_range_ml"] = {settings.volumes.least, settings.volumes.most};
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

json boxEntry(const Box& box) {
  if (box.empty()) return nullptr;
  return {{"first", box.first}, {"last", {box.end[0] - 1, box.end[1] - 1, box.end[2] - 1}}};
}

}  // namespace

json newReport(const std::string& program, const StripSettings& settings,
               std::optional<std::int64_t> volume) {
  return {{"program", program},
          {"version", kVersion},
          {"settings", settingsEntry(settings, volume)},
          {"scans", json::array()}};
}

json reportEntry(const ScanJob& job, const ScanResult& result) {
  json entry = {{"input", job.input}, {"status", result.done ? "done" : "failed"}};
  if (!result.done) {
    entry["error"] = result.reason;
    return entry;
  }
  if (!job.fromMask.empty()) entry["from_mask"] = job.fromMask;
  entry["sha256"] = result.sha256;
  if (!result.imageSha256.empty()) entry["image_sha256"] = result.imageSha256;
  entry["size"] = result.size;
  entry["voxel_mm"] = result.spacing;
  entry["w5"] = std::isnan(result.w5) ? json() : json(result.w5);
  entry["confidence"] = result.confidence;
  entry["flags"] = json::array();
  for (const Flag& flag : result.flags)
    entry["flags"].push_back({{"code", flag.code}, {"text", flag.text}});
  entry["notices"] = result.notices;
  entry["voxels"] = result.voxels;
  entry["volume_ml"] = result.volumeMl;
  entry["bounding_box"] = boxEntry(result.box);
  entry["seconds"] = result.seconds;
  for (const LevelRecord& level : result.levels)
    entry["levels"].push_back(
        {{"size", level.size}, {"iterations", level.iterations}, {"seconds", level.seconds}});
  for (const TrialRecord& trial : result.trials)
    entry["trials"].push_back(
        {{"w5", trial.w5}, {"volume_ml", trial.ml}, {"agreement", trial.agreement}});
  for (const auto& [name, path] : {std::pair{"brain", job.outputs.brain},
                                   {"mask", job.outputs.mask},
                                   {"phi", job.outputs.phi},
                                   {"qc", job.outputs.qc}})
    if (!path.empty()) entry["outputs"][name] = path.string();
  return entry;
}

std::string reportText(const json& report) {
  // ASCII alone: a name changes nothing on the terminal that shows the report.
  return report.dump(2, ' ', true, json::error_handler_t::replace) + "\n";
}

}  // namespace tavrel::scan
